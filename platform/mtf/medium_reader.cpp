#include "platform/mtf/medium_reader.h"

#include "platform/mtf/medium_object.h"
#include "platform/mtf/medium_walker.h"
#include "platform/mtf/set_copy.h"

#include <algorithm>
#include <new>

using namespace MTF_Format;

namespace {

constexpr unsigned START = 4 * FLB; ///< up to the end of the volume's block
constexpr const char* NO_MEDIUM = " is no medium: neither its first block nor its volume's is whole";

class File_Medium_Reader : public Medium_Reader {
public:
  File_Medium_Reader(std::shared_ptr<Medium_Source> source, std::string set_uuid)
      : source_(std::move(source)), set_uuid_(std::move(set_uuid)) {}

  std::unique_ptr<Object_Reader> object(unsigned long long offset, std::string& error,
                                        unsigned long long stored) override {
    try {
      auto reader = std::make_unique<Medium_Object>(source_);
      if (reader->open(offset, error, stored))
        return reader;
    } catch (const std::bad_alloc&) {
      error = "no memory to read " + source_->path();
    }
    return nullptr;
  }

  bool walk(bool content, const std::function<bool(const Medium_Finding&)>& found, std::string& error) override {
    try {
      return Medium_Walker(source_, content, found).walk(error);
    } catch (const std::bad_alloc&) {
      error = "no memory to read " + source_->path();
      return false;
    }
  }

  bool complete(std::string& error) const override {
    Medium_Window window(*source_, 3 * FLB);
    const unsigned long long size = source_->size();
    Dblk_Header header;
    unsigned long long end = 0;
    std::string reason;
    const auto is = [&](unsigned long long offset, uint32_t type) {
      return read_block(window, offset, header, reason) && header.type == type;
    };
    if (find_set_end(window, size, end, reason) && is(end - FLB, SFMB) && is(size - FLB, SFMB))
      return true;
    error = "the medium " + source_->path() + " does not end as a finished one does: " + reason;
    return false;
  }

  unsigned long long size() const override { return source_->size(); }
  const std::string& set_uuid() const override { return set_uuid_; }

private:
  std::shared_ptr<Medium_Source> source_;
  const std::string set_uuid_;
};

/// Takes what the block at `offset` says about the set; false where there is no such block, or it is damaged.
bool read_set_at(Medium_Window& window, unsigned long long offset, uint32_t type, Medium_Set& set) {
  Dblk_Header header;
  Medium_Stream stream;
  std::string ignored;
  unsigned long long at = 0;
  bool identity = false;
  if (!read_block(window, offset, header, ignored) || header.type != type ||
      !descriptor_holds(window, offset, header, at, ignored))
    return false;
  const unsigned long long streams = at;
  for (; read_stream(window, at, stream, ignored) && stream.header.id != SPAD; at = stream.next()) {
    const size_t length = static_cast<size_t>(std::min<uint64_t>(stream.header.length, FLB));
    const unsigned char* const data = window.at(stream.data(), length);
    Medium_Self self;
    Medium_Key key;
    if (data == nullptr)
      return false;
    if (stream.header.id == OBSI) {
      if (!self.parse(data, length))
        return false;
      // Where whoever opens the medium looks for it.
      identity = at == streams;
      set.uuid = self.set_uuid;
      set.name = self.set_name;
      set.family = self.family;
      set.incremental = self.incremental;
      set.write_date = self.write_date;
    } else if (stream.header.id == OBSK) {
      if (!key.parse(data, length))
        return false;
      set.uuid = key.set_uuid;
      set.wrapped_key = key.wrapped;
    }
  }
  return stream.header.id == SPAD && !set.uuid.empty() && (type == ESET || identity);
}

/// The family, from the first block, or from the volume's where that is damaged.
bool find_family(Medium_Window& window, unsigned& family) {
  Dblk_Header header;
  std::string ignored;
  unsigned long long streams = 0;
  if (read_block(window, 0, header, ignored) && header.type == TAPE &&
      descriptor_holds(window, 0, header, streams, ignored)) {
    family = get32(window.at(0, TAPE_FIXED) + 52);
    return true;
  }
  Medium_Stream stream;
  Medium_Self self;
  if (!read_block(window, VOLB_OFFSET, header, ignored) || header.type != VOLB ||
      !descriptor_holds(window, VOLB_OFFSET, header, streams, ignored) ||
      !read_stream(window, streams, stream, ignored) || stream.header.id != OBSI || stream.header.length > FLB)
    return false;
  const size_t length = static_cast<size_t>(stream.header.length);
  const unsigned char* data = window.at(stream.data(), length);
  if (data == nullptr || !self.parse(data, length))
    return false;
  family = self.family;
  return true;
}

} // namespace

bool read_medium_set(const Medium_Source& source, Medium_Set& set, std::string& error) {
  Medium_Window window(source, FLB);
  set = Medium_Set();
  if (read_set_at(window, VOLB_OFFSET, VOLB, set))
    return true;
  Medium_Window start(source, START);
  unsigned family = 0;
  if (!find_family(start, family)) {
    error = source.path() + NO_MEDIUM;
    return false;
  }
  // The end does not tell the family, and who reads the medium needs it.
  set = Medium_Set();
  unsigned long long end = 0;
  std::string ignored;
  if (find_set_end(window, source.size(), end, ignored) && read_set_at(window, end, ESET, set)) {
    set.family = family;
    return true;
  }
  error = source.path() + " does not say which set it belongs to: its volume block is damaged";
  return false;
}

bool read_medium_set(const std::string& path, Medium_Set& set, std::string& error) {
  try {
    const std::shared_ptr<Medium_Source> source = Medium_Source::open(path, error);
    return source && read_medium_set(*source, set, error);
  } catch (const std::bad_alloc&) {
    error = "no memory to read " + path;
    return false;
  }
}

std::unique_ptr<Medium_Reader> Medium_Reader::open(const std::string& path, unsigned family, std::string& error,
                                                   const Set_Cipher_ptr& cipher) {
  try {
    const std::shared_ptr<Medium_Source> source = Medium_Source::open(path, error, cipher);
    if (!source)
      return nullptr;
    Medium_Window window(*source, START);
    unsigned found = 0;
    if (!find_family(window, found)) {
      error = path + NO_MEDIUM;
      return nullptr;
    }
    if (family != 0 && family != found) {
      error = "the medium " + path + " belongs to the family " + std::to_string(found) + ", not to " +
              std::to_string(family);
      return nullptr;
    }
    Medium_Set set;
    const bool says = read_set_at(window, VOLB_OFFSET, VOLB, set);
    return std::make_unique<File_Medium_Reader>(source, says ? set.uuid : std::string());
  } catch (const std::bad_alloc&) {
    error = "no memory to read " + path;
    return nullptr;
  }
}
