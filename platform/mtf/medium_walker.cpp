#include "platform/mtf/medium_walker.h"

#include "platform/mtf/medium_object.h"
#include "platform/mtf/medium_rules.h"
#include "platform/mtf/set_copy.h"

#include <xxhash.h>

#include <algorithm>
#include <cstring>

using namespace MTF_Format;

bool descriptor_holds(Medium_Window& window, unsigned long long offset, const Dblk_Header& header,
                      unsigned long long& streams, std::string& error) {
  Medium_Stream stream;
  if (!read_stream(window, offset + header.first_event, stream, error))
    return false;
  if (stream.header.id != OBSC || stream.header.length != CHECK) {
    error = "a stream " + four_text(stream.header.id) + " stands where the block's check belongs";
    return false;
  }
  const unsigned char* at = window.at(offset, header.first_event + STREAM_HEADER + CHECK);
  if (at == nullptr) {
    error = window.error();
    return false;
  }
  if (get64(at + header.first_event + STREAM_HEADER) != block_check(at, header.first_event)) {
    error = "the block " + four_text(header.type) + " does not match its check";
    return false;
  }
  streams = stream.next();
  return true;
}

void Medium_Walker::damage(unsigned long long offset, unsigned long long length, const std::string& what) {
  whole_ = false;
  tell_damage(offset, length, what);
}

void Medium_Walker::tell_damage(unsigned long long offset, unsigned long long length, const std::string& what) {
  Medium_Finding finding;
  finding.kind = Medium_Finding::DAMAGE;
  finding.offset = offset;
  finding.length = length;
  finding.head = head_;
  finding.message = (object_name_.empty() ? std::string() : "\"" + object_name_ + "\": ") + what;
  tell(finding);
}

void Medium_Walker::check_zero(unsigned long long offset, unsigned long long end) {
  unsigned long long bad = 0;
  if (end > offset && !all_zero(window_, offset, end - offset, bad))
    damage(bad, 1, "the padding at " + std::to_string(bad) + " is not zero; no content is affected");
}

void Medium_Walker::broken_rule(unsigned long long offset, const std::string& what) {
  if (content_ && !what.empty())
    tell_damage(offset, STREAM_ALIGNMENT, what + "; readers elsewhere may be led astray, no content is affected");
}

/// Whether the block keeps all rules that it can be held to by itself.
bool Medium_Walker::check_block_rules(const Dblk_Header& header) {
  const unsigned char* const block = content_ ? window_.at(at_, header.first_event) : nullptr;
  const std::string broken = block == nullptr ? std::string() : broken_block_rule(header, block);
  broken_rule(at_, broken);
  return broken.empty();
}

void Medium_Walker::check_stream_rules(uint32_t type, const Medium_Stream& stream, bool sealed) {
  if (content_)
    broken_rule(stream.offset, broken_stream_rule(type, stream.header, sealed));
}

// Readers make folders from these blocks, each when it comes: the one that it lies in must be there. As folders are
// left only to come to the next one, the way to the current one is all that has to be remembered.
void Medium_Walker::check_directory(const Dblk_Header& header, const unsigned char* block, const std::string& path,
                                    bool exact_beside) {
  if (!content_)
    return;
  broken_rule(at_, broken_directory_name_rule(header, block, path, exact_beside));
  const size_t slash = path.size() < 2 ? std::string::npos : path.rfind('\0', path.size() - 2);
  const size_t parent = slash == std::string::npos ? 0 : slash + 1;
  if (encrypted_ && !path.empty())
    tell_damage(at_, FLB, "the block DIRB names a folder of an encrypted set");
  if (at_ == ROOT_OFFSET && !path.empty())
    broken_rule(at_, "the first directory is not the root");
  else if (directory_known_ && directory_.compare(0, parent, path, 0, parent) != 0)
    broken_rule(at_, "the block DIRB: the folder that it lies in has no block in front of it");
}

void Medium_Walker::check_file(const Dblk_Header& header, const unsigned char* block, const Object_Start& start,
                               const Object_End& end) {
  if (!content_)
    return;
  const bool sealed = start.stream.sealed;
  if (encrypted_ && !sealed)
    tell_damage(at_, next_ - at_, "it is not encrypted, and its set is");
  check_stream_rules(FILE_, start.head_stream, sealed);
  if (start.attributes.offset != 0)
    check_stream_rules(FILE_, start.attributes, sealed);
  check_stream_rules(FILE_, end.digest_stream, sealed);
  check_stream_rules(FILE_, end.padding, sealed);
  if (block != nullptr)
    broken_rule(at_, broken_file_rule(header, block, head_, sealed));
  std::string folder = sealed ? std::string() : head_.path.substr(0, head_.path.rfind('/') + 1);
  std::replace(folder.begin(), folder.end(), '/', '\0');
  if (directory_known_ && folder != directory_)
    broken_rule(at_, "the block FILE: it does not lie in the directory in front of it");
}

// Some readers look for blocks at every boundary behind any block but FILE.
void Medium_Walker::check_boundaries(unsigned long long offset, unsigned long long end) {
  for (unsigned long long at = (offset + FLB - 1) / FLB * FLB; content_ && at < end && !stopped_; at += FLB) {
    const unsigned char* const bytes = window_.at(at, 4);
    if (bytes != nullptr && is_dblk_type(get32(bytes)))
      broken_rule(at, "inside a block " + four_text(get32(bytes)) + " seems to begin");
  }
}

// What comes first and last stands fixed; between them directories and objects follow in any order.
bool Medium_Walker::in_order(uint32_t type) {
  const uint32_t fixed[] = {TAPE, SFMB, SSET, VOLB, DIRB};
  const uint64_t place = at_ / FLB;
  if (place < 5)
    return type == fixed[place];
  if (ended_)
    return false;
  if (set_ended_)
    return type == SFMB;
  if (filemarks_.size() > 1)
    return type == ESET || (type == SFMB && !in_step_);
  return type == DIRB || type == FILE_ || type == SFMB || (type == ESET && !in_step_);
}

void Medium_Walker::numbered(const Dblk_Header& header) {
  if (header.type == TAPE)
    return;
  if (in_step_ && header.control_id != control_id_)
    damage(at_, FLB,
           "the block has the number " + std::to_string(header.control_id) + ", expected was " +
               std::to_string(control_id_));
  control_id_ = static_cast<uint64_t>(header.control_id) + 1;
}

bool Medium_Walker::filemark() {
  const unsigned char* at = window_.at(at_, FLB);
  if (at == nullptr) {
    reason_ = window_.error();
    return false;
  }
  std::string expected;
  // Where one was lost to damage, the entries that are there stand for it.
  if (!in_step_ || !whole_) {
    filemarks_.clear();
    const unsigned used = std::min(get32(at + 56), SFMB_ENTRIES);
    for (unsigned i = used; i-- > 0;)
      filemarks_.push_back(get32(at + SFMB_FIXED + 4 * i));
  }
  make_filemark(expected, at_ / FLB, filemarks_);
  if (std::memcmp(at, expected.data(), FLB) != 0) {
    reason_ = "the filemark is not as it must be";
    return false;
  }
  filemarks_.push_back(at_ / FLB);
  next_ = at_ + FLB;
  if (set_ended_ || filemarks_.size() > 2) {
    set_ended_ = ended_ = true;
    Medium_Finding finding;
    finding.kind = Medium_Finding::END_OF_SET;
    finding.offset = at_;
    finding.length = FLB;
    tell(finding);
  }
  return true;
}

bool Medium_Walker::descriptor(const Dblk_Header& header) {
  unsigned long long streams = 0;
  if (!descriptor_holds(window_, at_, header, streams, reason_))
    return false;
  check_zero(at_ + header.first_event + STREAM_HEADER + CHECK, streams);
  Medium_Stream check;
  if (!read_stream(window_, at_ + header.first_event, check, reason_))
    return false;
  check_stream_rules(header.type, check);
  const unsigned char* block = window_.at(at_, header.first_event);
  if (block == nullptr) {
    reason_ = window_.error();
    return false;
  }
  std::string path;
  bool exact_beside = false;
  if (header.type == DIRB) {
    path = name_in_block(block, header.first_event, 80);
    if (path == std::string(1, '\0'))
      path.clear();
    const uint32_t id = get32(block + 76);
    if (in_step_ && id != directory_id_ + 1)
      damage(at_, FLB, "the directory has the number " + std::to_string(id));
    directory_id_ = id;
  }
  for (unsigned long long offset = streams;;) {
    Medium_Stream stream;
    if (!read_stream(window_, offset, stream, reason_))
      return false;
    check_stream_rules(header.type, stream);
    check_boundaries(offset, stream.data());
    if (stream.header.id == SPAD) {
      next_ = stream.data() + stream.header.length;
      if (stream.header.length >= FLB || next_ % FLB != 0) {
        reason_ = "the padding does not end at a block boundary";
        return false;
      }
      check_zero(stream.data(), next_);
      break;
    }
    const size_t length = static_cast<size_t>(std::min<uint64_t>(stream.header.length, 64 * 1024));
    const unsigned char* data = window_.at(stream.data(), length);
    const unsigned long long behind = stream.data() + stream.header.length;
    Medium_Self self;
    Medium_Key key;
    Medium_Totals totals;
    bool good = data != nullptr;
    if (good && stream.header.id == OBSI)
      good = self.parse(data, length);
    else if (good && stream.header.id == OBSK)
      good = encrypted_ = key.parse(data, length);
    else if (good && stream.header.id == OBSN)
      good = exact_beside = parse_directory_path(data, length, path);
    else if (good && stream.header.id == OBST) {
      good = totals.parse(data, length);
      if (good && whole_ && (totals.objects != totals_.objects || totals.bytes != totals_.bytes))
        damage(at_, FLB,
               "the set says it holds " + std::to_string(totals.objects) + " objects with " +
                   std::to_string(totals.bytes) + " bytes; found were " + std::to_string(totals_.objects) + " with " +
                   std::to_string(totals_.bytes));
    }
    if (good && (stream.header.id == OBSR || stream.header.id == OBSL))
      good = set_copy_holds(window_, stream, reason_);
    if (!good) {
      reason_ = "the stream " + four_text(stream.header.id) + " does not match its check";
      return false;
    }
    check_boundaries(stream.data(), behind);
    check_zero(behind, stream.next());
    offset = stream.next();
  }
  if ((header.type == TAPE || header.type == SSET) && next_ - at_ != FLB)
    broken_rule(at_, "the block " + four_text(header.type) + " takes more than one logical block");
  const bool keeps = check_block_rules(header);
  if (header.type == DIRB) {
    block = window_.at(at_, header.first_event);
    if (block == nullptr) {
      reason_ = window_.error();
      return false;
    }
    if (keeps)
      check_directory(header, block, path, exact_beside);
    directory_ = path;
    directory_known_ = true;
  }
  numbered(header);
  if (header.type == ESET)
    set_ended_ = true;
  return true;
}

/// Goes over all streams behind the head without looking at the content.
bool Medium_Walker::object_streams(const Object_Start& start, Object_End& end) {
  Medium_Stream stream = start.content;
  check_stream_rules(FILE_, stream, start.stream.sealed);
  const uint32_t kind = stream.header.id;
  const bool blind = start.stream.sealed && !start.stream.opened;
  uint32_t sequence = 0;
  plain_ = 0;
  while (kind != STAN) {
    Frame frame;
    const unsigned char* data = stream.header.length < FRAME_HEADER ? nullptr : window_.at(stream.data(), FRAME_HEADER);
    if (data == nullptr || !frame.parse(data, reason_) || frame.sequence != sequence++ ||
        frame.sealed != (kind == OBSX) || stream.header.length != FRAME_HEADER + frame.behind()) {
      reason_ = "the frame header at " + std::to_string(stream.data()) + " is damaged";
      return false;
    }
    plain_ += frame.plain;
    if (blind && content_ && !sealed_content(stream, frame))
      return false;
    if ((stream.header.format_attributes & STREAM_VARIABLE_END) != 0)
      break;
    check_zero(stream.data() + stream.header.length, stream.next());
    if (!read_stream(window_, stream.next(), stream, reason_))
      return false;
    if (stream.header.id != kind) {
      reason_ = "a stream " + four_text(stream.header.id) + " stands where a frame belongs";
      return false;
    }
    check_stream_rules(FILE_, stream, start.stream.sealed);
  }
  check_zero(stream.data() + stream.header.length, stream.next());
  if (!read_object_end(window_, stream.next(), start, end, reason_))
    return false;
  next_ = end.end;
  const unsigned long long spad = (end.digest_end + 3) / 4 * 4;
  check_zero(end.digest_end, spad);
  check_zero(spad + STREAM_HEADER, next_);
  return true;
}

/// All that can be said of an encrypted frame without its key: that it is as it was written.
bool Medium_Walker::sealed_content(const Medium_Stream& stream, const Frame& frame) {
  const unsigned char* data = window_.at(stream.data(), FRAME_HEADER + frame.behind());
  if (data != nullptr && XXH3_64bits(data + FRAME_HEADER, frame.behind()) == frame.stored_check)
    return true;
  reason_ =
      data == nullptr ? window_.error() : "the frame at " + std::to_string(stream.offset) + " does not match its check";
  return false;
}

bool Medium_Walker::check_content(const Object_Start& start) {
  if (start.stream.sealed && !start.stream.opened)
    return true;
  const Object_Head& head = start.head;
  Medium_Object reader(source_);
  std::string reason;
  if (!reader.open(at_, reason)) {
    damage(at_, next_ - at_, reason);
    return false;
  }
  std::vector<char> buffer(static_cast<size_t>(std::min<uint64_t>(CHUNK, head.size + 1)));
  for (;;) {
    size_t got = 0;
    switch (reader.read(buffer.data(), buffer.size(), got)) {
    case Read_Outcome::MORE:
      continue;
    case Read_Outcome::END:
      return true;
    default:
      object_name_.clear();
      damage(at_, next_ - at_, reader.error());
      return false;
    }
  }
}

bool Medium_Walker::object() {
  Object_Start start;
  if (!read_object_start(window_, at_, start, reason_)) {
    // The head stream is lost; the name in the block still tells which object it was.
    std::string ignored;
    Dblk_Header header;
    if (read_block(window_, at_, header, ignored)) {
      const unsigned char* block = window_.at(at_, header.first_event);
      std::string folder = directory_;
      std::replace(folder.begin(), folder.end(), '\0', '/');
      if (block != nullptr)
        object_name_ = folder + name_in_block(block, header.first_event, 84);
    }
    return false;
  }
  head_ = start.head;
  object_name_ = head_.path;
  Object_End end;
  Dblk_Header header;
  std::string ignored;
  if (!start.attributes_problem.empty())
    damage(start.attributes.offset == 0 ? start.content.offset : start.attributes.offset,
           start.attributes.offset == 0 ? 0 : start.content.offset - start.attributes.offset,
           start.attributes_problem + "; its content is not affected");
  if (start.attributes.offset != 0)
    check_zero(start.attributes.data() + start.attributes.header.length, start.content.offset);
  if (!start.block_holds)
    damage(at_, FLB, "its FILE block is damaged: " + start.block_problem + "; its content is not affected");
  if (!object_streams(start, end))
    return false;
  if (read_block(window_, at_, header, ignored) && start.block_holds) {
    const bool keeps = check_block_rules(header);
    const unsigned char* block = window_.at(at_, header.first_event);
    if (block == nullptr) {
      reason_ = window_.error();
      return false;
    }
    check_file(header, keeps ? block : nullptr, start, end);
    const uint32_t directory = get32(block + 76);
    const uint32_t file = get32(block + 80);
    if (in_step_ && (directory != directory_id_ || file != file_id_ + 1))
      damage(at_, FLB, "the numbers of its FILE block do not follow");
    file_id_ = file;
    directory_id_ = directory;
    numbered(header);
    // Between the head stream and the content.
    check_zero(start.head_end, start.attributes.offset != 0 ? start.attributes.offset : start.content.offset);
  } else {
    ++control_id_;
    ++file_id_;
  }
  ++totals_.objects;
  if (start.stream.sealed && !start.stream.opened)
    head_.size = plain_;
  totals_.bytes += head_.size;
  if (content_ && !stopped_ && !check_content(start))
    return true;
  Medium_Finding finding;
  finding.offset = at_;
  finding.length = next_ - at_;
  finding.head = head_;
  finding.attributes_lost = !start.attributes_problem.empty();
  std::memcpy(finding.sha256, end.digest.sha256, sizeof finding.sha256);
  tell(finding);
  return true;
}

bool Medium_Walker::block() {
  object_name_.clear();
  head_ = Object_Head();
  Dblk_Header header;
  const bool readable = read_block(window_, at_, header, reason_);
  if (!readable) {
    // A damaged FILE block in front of a whole head stream.
    const std::string reason = reason_;
    if (in_step_ && at_ >= 5 * FLB && filemarks_.size() < 2 && object())
      return true;
    if (object_name_.empty())
      reason_ = reason;
    return false;
  }
  if (!in_order(header.type)) {
    reason_ = "a block " + four_text(header.type) + " out of order";
    return false;
  }
  if (header.type == SFMB)
    return filemark();
  return header.type == FILE_ ? object() : descriptor(header);
}

bool Medium_Walker::holds(unsigned long long offset) {
  Dblk_Header header;
  std::string ignored;
  if (!read_block(window_, offset, header, ignored))
    return false;
  if (header.type == SFMB)
    return true;
  if (header.type == FILE_) {
    Object_Start start;
    return read_object_start(window_, offset, start, ignored) && start.block_holds;
  }
  unsigned long long streams = 0;
  return descriptor_holds(window_, offset, header, streams, ignored);
}

unsigned long long Medium_Walker::resynchronise() {
  unsigned long long offset = at_ + FLB;
  while (offset < source_->size() && source_->size() - offset >= FLB && !holds(offset))
    offset += FLB;
  return std::min<unsigned long long>(offset, source_->size());
}

bool Medium_Walker::walk(std::string& error) {
  while (!stopped_ && at_ < source_->size()) {
    if (source_->size() - at_ < FLB) {
      object_name_.clear();
      head_ = Object_Head();
      break;
    }
    if (block()) {
      in_step_ = true;
      at_ = next_;
      if (filemarks_.size() < 2 && at_ >= 5 * FLB) {
        data_end_.offset = at_;
        data_end_.control_id = control_id_;
        data_end_.totals = totals_;
      }
      // With something behind its end a set is none: it has to be ended anew.
      data_end_.finished = ended_ && at_ == source_->size();
      continue;
    }
    if (window_.failed()) {
      error = window_.error();
      return false;
    }
    const std::string reason = reason_;
    const unsigned long long next = resynchronise();
    const bool torn = next >= source_->size() && !set_ended_;
    damage(at_, next - at_,
           reason + "; " + std::to_string(next - at_) + " bytes from " + std::to_string(at_) + " on are lost" +
               (torn ? " (the medium is torn there)" : ""));
    in_step_ = directory_known_ = false;
    at_ = next;
  }
  if (!stopped_ && !ended_) {
    object_name_.clear();
    head_ = Object_Head();
    damage(at_, source_->size() - at_,
           "the medium is torn: it ends at " + std::to_string(source_->size()) + " without the end of its set");
  } else if (!stopped_ && at_ < source_->size()) {
    damage(at_, source_->size() - at_, "something follows the end of the set");
  }
  return true;
}
