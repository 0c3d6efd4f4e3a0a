#include "platform/mtf/medium_writer.h"

#include "platform/mtf/codec.h"
#include "platform/mtf/medium_blocks.h"
#include "platform/mtf/medium_writer_file.h"
#include "platform/mtf/sealed_frames.h"
#include "platform/mtf/set_copy.h"

#include <algorithm>
#include <cstring>
#include <new>

using namespace MTF_Format;

namespace {

class File_Medium_Writer : public Medium_Writer {
public:
  bool create(const std::string& path, const Medium_Identity& identity);

  bool set_directory(const std::string& path) override;
  bool append(Object_Image& image, Stored_Object& stored) override;
  bool begin_object(const Object_Head& head, const Codec_Options& codec) override;
  bool write(const char* data, size_t size) override;
  bool end_object(Stored_Object& stored) override;
  bool cancel_object() override;
  bool flush() override;
  bool finish(const Set_Copy* copy) override;
  unsigned long long size() const override { return file_.size(); }
  unsigned long long objects() const override { return totals_.objects; }
  const std::string& error() const override { return error_.empty() ? file_.error() : error_; }

private:
  /// An object that comes piece by piece.
  struct Open_Object {
    Object_Head head;
    unsigned long long offset = 0;
    unsigned long long come = 0; ///< bytes of content so far
    bool decided = false;        ///< plain or frames: known with the first chunk
    bool plain = false;
    std::unique_ptr<Frame_Writer> frames;
    Object_Seal seal;                      ///< of an encrypted set
    std::unique_ptr<Sealed_Frames> sealed; ///< null: not encrypted
  };

  bool ready();
  bool fail(const std::string& error);
  bool put(const std::string& block) { return file_.append(block.data(), block.size()); }
  bool next_control_id(uint32_t& id);
  uint64_t fla() const { return (file_.size() - SSET_OFFSET) / FLB; }
  bool put_filemark();
  bool put_directory(const std::string& path);
  bool next_place(Object_Place& place);
  bool put_chunk();
  bool put_sealed_chunk();
  bool good_cipher(const Set_Cipher_ptr& cipher);
  bool put_plain_header();

  Medium_Writer_File file_;
  Medium_Identity identity_;
  Medium_Totals totals_;
  std::vector<uint64_t> filemarks_;
  std::string directory_;
  std::string error_;
  std::string scratch_;
  uint64_t control_id_ = 1;
  uint64_t directory_id_ = 0;
  uint64_t file_id_ = 0;
  bool finished_ = false;
  bool open_ = false;
  Open_Object object_;
  std::string chunk_; ///< content not yet written as a frame
  Content_Digest digest_;
};

bool File_Medium_Writer::fail(const std::string& error) {
  if (this->error().empty())
    error_ = error;
  return false;
}

bool File_Medium_Writer::ready() {
  if (finished_)
    return fail("the medium is finished already");
  return error().empty();
}

// Numbers on media have 32 bits; a medium that has used them up must end before they wrap.
bool File_Medium_Writer::next_control_id(uint32_t& id) {
  if (control_id_ >= UINT32_MAX)
    return fail("the medium holds as many blocks as its numbers allow");
  id = static_cast<uint32_t>(control_id_++);
  return true;
}

bool File_Medium_Writer::put_filemark() {
  scratch_.clear();
  const uint64_t place = file_.size() / FLB;
  make_filemark(scratch_, place, filemarks_);
  filemarks_.push_back(place);
  return put(scratch_);
}

bool File_Medium_Writer::create(const std::string& path, const Medium_Identity& identity) {
  identity_ = identity;
  if (identity_.cipher)
    identity_.set_name = identity_.description = std::string();
  if (!file_.create(path))
    return false;
  make_tape(scratch_, identity_);
  if (!put(scratch_) || !put_filemark())
    return false;
  scratch_.clear();
  make_set_start(scratch_, identity_);
  if (!put(scratch_))
    return false;
  uint32_t id = 0;
  scratch_.clear();
  if (!next_control_id(id))
    return false;
  make_volume(scratch_, identity_, id);
  return put(scratch_) && put_directory(std::string());
}

bool File_Medium_Writer::put_directory(const std::string& path) {
  uint32_t id = 0;
  if (!next_control_id(id))
    return false;
  scratch_.clear();
  make_directory(scratch_, path, static_cast<uint32_t>(++directory_id_), fla(), id);
  return put(scratch_);
}

// Every folder on the way has a block of its own, as readers that make folders from blocks expect.
bool File_Medium_Writer::set_directory(const std::string& path) {
  if (!ready())
    return false;
  if (open_)
    return fail("a directory cannot begin inside an object");
  // The folders of an encrypted set are nobody's business: all its objects lie in the root.
  if (path == directory_ || identity_.cipher)
    return true;
  size_t shared = 0;
  for (size_t i = 0; i < path.size() && i < directory_.size() && path[i] == directory_[i]; ++i)
    if (path[i] == '\0')
      shared = i + 1;
  if (shared >= path.size() && !put_directory(path))
    return false;
  for (size_t begin = shared; begin < path.size();) {
    const size_t end = path.find('\0', begin);
    begin = end == std::string::npos ? path.size() : end + 1;
    if (!put_directory(path.substr(0, begin)))
      return false;
  }
  directory_ = path;
  return true;
}

bool File_Medium_Writer::next_place(Object_Place& place) {
  place.fla = fla();
  place.directory_id = static_cast<uint32_t>(directory_id_);
  place.file_id = static_cast<uint32_t>(file_id_ + 1);
  if (!next_control_id(place.control_id))
    return false;
  ++file_id_;
  return true;
}

/// What is to be encrypted must never reach a medium otherwise, nor under another set's key.
bool File_Medium_Writer::good_cipher(const Set_Cipher_ptr& cipher) {
  return cipher == identity_.cipher || fail("an object came that was not encrypted as its medium is");
}

bool File_Medium_Writer::append(Object_Image& image, Stored_Object& stored) {
  if (!ready() || !good_cipher(image.cipher()))
    return false;
  if (open_)
    return fail("an object cannot be appended inside another");
  std::string& bytes = image.bytes();
  Object_Place place;
  if (bytes.empty() || !next_place(place))
    return fail("an object without an image was appended");
  place_object(bytes_at(bytes, 0), place);
  stored.offset = file_.size();
  if (!put(bytes))
    return false;
  stored.size = image.head().size;
  stored.stored = bytes.size();
  std::memcpy(stored.sha256, image.sha256(), sizeof stored.sha256);
  ++totals_.objects;
  totals_.bytes += stored.size;
  return true;
}

bool File_Medium_Writer::begin_object(const Object_Head& head, const Codec_Options& codec) {
  if (!ready() || !good_cipher(codec.cipher))
    return false;
  std::string missing;
  if (open_)
    return fail("an object cannot begin inside another");
  if (!Codec::available(Codec::method(codec.compression), missing))
    return fail(missing);
  if (DIGEST_FIXED + CHECK * (chunk_count(head.size) + 1) > MAX_PRIVATE_STREAM)
    return fail("\"" + head.path + "\" is larger than a medium can check");
  if (!digest_.begin())
    return fail("the SHA-256 digest cannot be set up");
  object_ = Open_Object();
  if (codec.cipher && !codec.cipher->new_object(head.ordinal, object_.seal))
    return fail("no key can be made for \"" + head.path + "\": the cryptographic library failed");
  Object_Place place;
  if (!next_place(place))
    return false;
  object_.head = head;
  object_.offset = file_.size();
  if (codec.cipher)
    object_.sealed = std::make_unique<Sealed_Frames>(codec, head.size, object_.seal);
  else
    object_.frames = std::make_unique<Frame_Writer>(codec, head.size);
  chunk_.clear();
  scratch_.clear();
  append_object_head(scratch_, head, codec.cipher ? &object_.seal : nullptr);
  place_object(bytes_at(scratch_, 0), place);
  pad_to(scratch_, STREAM_ALIGNMENT);
  append_attributes(scratch_, head, codec.cipher ? &object_.seal : nullptr);
  open_ = true;
  if (!put(scratch_))
    return false;
  if (object_.frames && !object_.frames->wanted()) {
    object_.decided = object_.plain = true;
    return put_plain_header();
  }
  return true;
}

bool File_Medium_Writer::put_plain_header() {
  scratch_.clear();
  append_stream_header(scratch_, STAN, 0, object_.head.size);
  return put(scratch_);
}

bool File_Medium_Writer::put_sealed_chunk() {
  if (!object_.sealed->append(scratch_, chunk_.data(), chunk_.size()))
    return fail("\"" + object_.head.path +
                "\" cannot be encrypted: memory is short or the cryptographic library failed");
  chunk_.clear();
  return put(scratch_);
}

// The first chunk decides, by what it saves, how the whole object is stored.
bool File_Medium_Writer::put_chunk() {
  scratch_.clear();
  if (object_.sealed)
    return put_sealed_chunk();
  if (!object_.frames->append(scratch_, chunk_.data(), chunk_.size(), digest_.chunks().back()))
    return fail("no memory to compress \"" + object_.head.path + "\"");
  if (!object_.decided) {
    object_.decided = true;
    object_.plain = !object_.frames->pays();
    if (object_.plain) {
      const bool put_it = put_plain_header() && put(chunk_);
      chunk_.clear();
      return put_it;
    }
  }
  chunk_.clear();
  return put(scratch_);
}

bool File_Medium_Writer::write(const char* data, size_t size) {
  if (!ready() || !open_)
    return fail("content came without an object");
  if (size > object_.head.size - object_.come) {
    cancel_object();
    return false;
  }
  while (size != 0) {
    if (object_.plain) {
      digest_.update(data, size);
      object_.come += size;
      return file_.append(data, size);
    }
    const size_t piece = std::min<size_t>(size, CHUNK - chunk_.size());
    digest_.update(data, piece);
    chunk_.append(data, piece);
    object_.come += piece;
    data += piece;
    size -= piece;
    // The last, short chunk gets its check when the digest ends.
    if (chunk_.size() == CHUNK && !put_chunk())
      return false;
  }
  return true;
}

bool File_Medium_Writer::end_object(Stored_Object& stored) {
  if (!ready() || !open_)
    return fail("an object ended that had not begun");
  if (object_.come != object_.head.size) {
    cancel_object();
    return false;
  }
  digest_.finish(stored.sha256);
  if ((!chunk_.empty() || (object_.sealed && object_.head.size == 0)) && !put_chunk())
    return false;
  scratch_.assign(static_cast<size_t>((STREAM_ALIGNMENT - file_.size() % STREAM_ALIGNMENT) % STREAM_ALIGNMENT), '\0');
  if (!put(scratch_))
    return false;
  scratch_.clear();
  append_digest(scratch_, object_.head, stored.sha256, digest_.chunks(), object_.sealed ? &object_.seal : nullptr);
  append_spad(scratch_, file_.size());
  if (!put(scratch_))
    return false;
  open_ = false;
  stored.offset = object_.offset;
  stored.size = object_.head.size;
  stored.stored = file_.size() - object_.offset;
  ++totals_.objects;
  totals_.bytes += stored.size;
  return true;
}

bool File_Medium_Writer::cancel_object() {
  if (!ready())
    return false;
  if (!open_)
    return true;
  open_ = false;
  chunk_.clear();
  --control_id_;
  --file_id_;
  return file_.cut(object_.offset);
}

bool File_Medium_Writer::flush() {
  return finished_ || (cancel_object() && file_.flush());
}

bool File_Medium_Writer::finish(const Set_Copy* copy) {
  if (!ready())
    return false;
  if (open_)
    return fail("the medium cannot end inside an object");
  uint32_t id = 0;
  if (!put_filemark() || !next_control_id(id))
    return false;
  scratch_.clear();
  make_set_end(scratch_, identity_, totals_, file_.size() / FLB, id, copy != nullptr);
  if (!put(scratch_))
    return false;
  if (copy != nullptr) {
    std::string why;
    if (!write_set_copy(
            *copy, file_.size(), [this](const std::string& piece) { return put(piece); }, why))
      return fail(why);
    scratch_.clear();
    append_spad(scratch_, file_.size());
    if (!put(scratch_))
      return false;
  }
  if (!put_filemark() || !file_.close())
    return false;
  finished_ = true;
  return true;
}

} // namespace

std::unique_ptr<Medium_Writer> Medium_Writer::create(const std::string& path, const Medium_Identity& identity,
                                                     std::string& error) {
  try {
    auto writer = std::make_unique<File_Medium_Writer>();
    if (writer->create(path, identity))
      return writer;
    error = writer->error();
  } catch (const std::bad_alloc&) {
    error = "no memory for the medium " + path;
  }
  return nullptr;
}
