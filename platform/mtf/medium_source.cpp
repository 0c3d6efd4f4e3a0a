#include "platform/mtf/medium_source.h"

#include "platform/mtf/sealed_stream.h"
#include "platform/pool/pool_files.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace MTF_Format;

const Medium_Source::Watch* Medium_Source::watch_ = nullptr;

Medium_Source::~Medium_Source() {
  if (fd_ >= 0)
    ::close(fd_);
}

std::shared_ptr<Medium_Source> Medium_Source::open(const std::string& path, std::string& error,
                                                   const Set_Cipher_ptr& cipher) {
  auto source = std::make_shared<Medium_Source>();
  source->cipher_ = cipher;
  source->path_ = path;
  source->fd_ = open_pool_file(path, O_RDONLY);
  struct stat status;
  if (source->fd_ < 0 || ::fstat(source->fd_, &status) != 0) {
    error = "cannot open the medium " + path + ": " + pool_file_error(errno);
    return nullptr;
  }
  source->size_ = static_cast<unsigned long long>(status.st_size);
  return source;
}

bool Medium_Source::read(unsigned long long offset, unsigned char* buffer, size_t size, std::string& error) const {
  if (watch_ != nullptr && !(*watch_)(path_, offset, size)) {
    failed_ = true;
    error = "cannot read the medium " + path_ + " at " + std::to_string(offset) + ": " + std::strerror(EIO);
    return false;
  }
  while (size != 0) {
    const ssize_t count = ::pread(fd_, buffer, size, static_cast<off_t>(offset));
    if (count < 0 && errno == EINTR)
      continue;
    if (count <= 0) {
      failed_ = true;
      error = "cannot read the medium " + path_ + " at " + std::to_string(offset) + ": " +
              (count == 0 ? "it has become shorter" : std::strerror(errno));
      return false;
    }
    buffer += count;
    size -= static_cast<size_t>(count);
    offset += static_cast<unsigned long long>(count);
  }
  return true;
}

const unsigned char* Medium_Window::at(unsigned long long offset, size_t size) {
  if (offset >= begin_ && offset - begin_ <= used_ && size <= used_ - (offset - begin_))
    return bytes_.data() + (offset - begin_);
  if (offset > source_.size() || size > source_.size() - offset) {
    error_ = "the medium ends at " + std::to_string(source_.size()) + ", before the " + std::to_string(size) +
             " bytes at " + std::to_string(offset);
    return nullptr;
  }
  const unsigned long long end = std::min(limit_, source_.size());
  const size_t ahead = end <= offset ? 0 : static_cast<size_t>(std::min<unsigned long long>(ahead_, end - offset));
  const size_t wanted = std::max(size, ahead);
  // What is there of it already stays.
  const size_t kept = offset >= begin_ && offset - begin_ < used_ ? used_ - static_cast<size_t>(offset - begin_) : 0;
  if (kept != 0)
    std::memmove(bytes_.data(), bytes_.data() + (used_ - kept), kept);
  used_ = 0;
  if (bytes_.size() < wanted)
    bytes_.resize(wanted);
  if (!source_.read(offset + kept, bytes_.data() + kept, wanted - kept, error_)) {
    failed_ = true;
    return nullptr;
  }
  begin_ = offset;
  used_ = wanted;
  return bytes_.data();
}

bool read_stream(Medium_Window& window, unsigned long long offset, Medium_Stream& stream, std::string& error) {
  const unsigned char* at = window.at(offset, STREAM_HEADER);
  if (at == nullptr) {
    error = window.error();
    return false;
  }
  stream.offset = offset;
  if (!stream.header.parse(at)) {
    error = "the stream header at " + std::to_string(offset) + " does not match its checksum";
    return false;
  }
  const unsigned long long size = window.source().size();
  if (stream.header.length > size - stream.data()) {
    error = "the stream " + four_text(stream.header.id) + " at " + std::to_string(offset) +
            " is longer than the medium, which ends at " + std::to_string(size);
    return false;
  }
  return true;
}

bool read_block(Medium_Window& window, unsigned long long offset, Dblk_Header& header, std::string& error) {
  const unsigned char* at = window.at(offset, DBLK_HEADER);
  if (at == nullptr) {
    error = window.error();
    return false;
  }
  if (!header.parse(at)) {
    error = "no block header with a right checksum";
    return false;
  }
  uint64_t fla = 0;
  unsigned fixed = DBLK_HEADER;
  switch (header.type) {
  case TAPE:
    fixed = TAPE_FIXED;
    break;
  case SSET:
    fixed = SSET_FIXED;
    break;
  case ESET:
    fixed = ESET_FIXED;
    break;
  case SFMB:
    fixed = FLB;
    fla = offset / FLB;
    break;
  case VOLB:
    fixed = VOLB_FIXED;
    break;
  case DIRB:
    fixed = DIRB_FIXED;
    break;
  case FILE_:
    fixed = FILE_FIXED;
    break;
  default:
    error = "a block of the kind " + four_text(header.type) + ", which media of ours do not hold";
    return false;
  }
  if (header.type == VOLB || header.type == DIRB || header.type == FILE_)
    fla = offset < SSET_OFFSET ? UINT64_MAX : (offset - SSET_OFFSET) / FLB;
  if (header.fla != fla) {
    error = "the block " + four_text(header.type) + " says it belongs at " + std::to_string(header.fla) +
            ", and lies at " + std::to_string(fla);
    return false;
  }
  if (header.first_event < fixed || header.first_event % STREAM_ALIGNMENT != 0 ||
      header.first_event > (header.type == SFMB ? FLB : MAX_FIRST_EVENT)) {
    error = "the block " + four_text(header.type) + " has its streams at the impossible offset " +
            std::to_string(header.first_event);
    return false;
  }
  return true;
}

bool all_zero(Medium_Window& window, unsigned long long offset, unsigned long long size, unsigned long long& bad) {
  while (size != 0) {
    const size_t piece = static_cast<size_t>(std::min<unsigned long long>(size, 4096));
    const unsigned char* at = window.at(offset, piece);
    if (at == nullptr) {
      bad = offset;
      return false;
    }
    for (size_t i = 0; i < piece; ++i)
      if (at[i] != 0) {
        bad = offset + i;
        return false;
      }
    offset += piece;
    size -= piece;
  }
  return true;
}

std::string name_in_block(const unsigned char* block, size_t size, unsigned field) {
  if (field + 4 > size)
    return std::string();
  const size_t length = get16(block + field);
  const size_t offset = get16(block + field + 2);
  if (offset > size || length > size - offset)
    return std::string();
  return utf16_to_utf8(std::string_view(reinterpret_cast<const char*>(block) + offset, length));
}

namespace {

/// Reads the head stream that should begin at `offset`.
bool read_head(Medium_Window& window, unsigned long long offset, Object_Start& start, Medium_Stream& stream,
               std::string& error) {
  if (!read_stream(window, offset, stream, error))
    return false;
  if (stream.header.id != OBSH || stream.header.length > 64 * 1024) {
    error = "a stream " + four_text(stream.header.id) + " stands where the head stream belongs";
    return false;
  }
  const size_t length = static_cast<size_t>(stream.header.length);
  const unsigned char* data = window.at(stream.data(), length);
  if (data == nullptr) {
    error = window.error();
    return false;
  }
  start.head_end = stream.data() + length;
  if (!parse_object_head(data, length, window.source().cipher(), start.head, start.stream, error))
    return false;
  if (start.stream.sealed || window.source().cipher() == nullptr)
    return true;
  error = "the object is not encrypted, and its set is: it was not written with it";
  return false;
}

/// Goes over the attributes stream, which stands where the content was looked for. Damage inside it costs the
/// attributes only.
bool skip_attributes(Medium_Window& window, Object_Start& start, std::string& error) {
  start.attributes = start.content;
  const uint64_t length = start.attributes.header.length;
  const unsigned char* const data = length > MAX_ATTRIBUTES_STREAM + SEALED_OVERHEAD
                                        ? nullptr
                                        : window.at(start.attributes.data(), static_cast<size_t>(length));
  const std::string_view bytes(reinterpret_cast<const char*>(data), data == nullptr ? 0 : static_cast<size_t>(length));
  std::string plain;
  std::string_view opened;
  start.attributes_problem.clear();
  if (data == nullptr)
    start.attributes_problem =
        length > MAX_ATTRIBUTES_STREAM + SEALED_OVERHEAD ? "the attributes stream is too long" : window.error();
  else if (start.stream.sealed && !start.stream.opened) {
    if (!sealed_stream_holds(bytes, error))
      start.attributes_problem = error;
  } else if (!open_private_stream(OBSA, start.stream.sealed ? &start.stream.seal : nullptr, bytes, plain, opened,
                                  error) ||
             !parse_attributes(bytes_of(opened), opened.size(), start.head, error))
    start.attributes_problem = error;
  return read_stream(window, start.attributes.next(), start.content, error);
}

} // namespace

bool read_object_start(Medium_Window& window, unsigned long long offset, Object_Start& start, std::string& error) {
  Dblk_Header header;
  Medium_Stream stream;
  start = Object_Start();
  start.block_holds = read_block(window, offset, header, error);
  if (start.block_holds && header.type != FILE_) {
    error = "a block " + four_text(header.type) + " stands where an object was looked for";
    return false;
  }
  if (start.block_holds) {
    if (!read_head(window, offset + header.first_event, start, stream, error))
      return false;
    const unsigned char* block = window.at(offset, header.first_event);
    start.block_holds = block != nullptr && block_check(block, header.first_event) == start.stream.block_check;
    start.block_problem = start.block_holds ? std::string() : "it does not match its check";
  } else {
    // The block does not tell where its streams begin: the first whole head stream inside the FLB is this object's.
    const std::string reason = error;
    bool found = false;
    for (unsigned at = FILE_FIXED; at <= MAX_FIRST_EVENT && !found; at += STREAM_ALIGNMENT)
      found = read_head(window, offset + at, start, stream, error);
    if (!found) {
      error = reason;
      return false;
    }
    start.block_problem = reason;
  }
  start.head_stream = stream;
  if (!read_stream(window, stream.next(), start.content, error))
    return false;
  if (start.content.header.id == OBSA) {
    if (!skip_attributes(window, start, error))
      return false;
  } else if (start.stream.attributes) {
    start.attributes_problem = "the attributes stream was taken out";
  }
  const uint32_t content = start.content.header.id;
  if (start.stream.sealed ? content != OBSX : content != STAN && content != OBSZ) {
    error = "a stream " + four_text(start.content.header.id) + " stands where the content belongs";
    return false;
  }
  if (start.content.header.id == STAN && start.content.header.length != start.head.size) {
    error = "the content has " + std::to_string(start.content.header.length) + " bytes, its head says " +
            std::to_string(start.head.size);
    return false;
  }
  return true;
}

bool read_object_end(Medium_Window& window, unsigned long long offset, const Object_Start& start, Object_End& end,
                     std::string& error) {
  Medium_Stream stream;
  if (!read_stream(window, offset, stream, error))
    return false;
  if (stream.header.id != OBSD || stream.header.length > MAX_PRIVATE_STREAM) {
    error = "a stream " + four_text(stream.header.id) + " stands where the digest belongs";
    return false;
  }
  const size_t length = static_cast<size_t>(stream.header.length);
  const unsigned char* data = window.at(stream.data(), length);
  if (data == nullptr) {
    error = window.error();
    return false;
  }
  end.digest_stream = stream;
  end.digest_end = stream.data() + length;
  const std::string_view bytes(reinterpret_cast<const char*>(data), length);
  if (start.stream.sealed && !start.stream.opened) {
    end.digest = Object_Digest();
    if (!sealed_stream_holds(bytes, error))
      return false;
  } else {
    std::string plain;
    std::string_view opened;
    if (!open_private_stream(OBSD, start.stream.sealed ? &start.stream.seal : nullptr, bytes, plain, opened, error) ||
        !end.digest.parse(bytes_of(opened), opened.size(), error))
      return false;
    if (end.digest.size != start.head.size || end.digest.ordinal != start.head.ordinal) {
      error = "the digest stream belongs to another object";
      return false;
    }
  }
  if (!read_stream(window, stream.next(), stream, error))
    return false;
  end.padding = stream;
  end.end = stream.data() + stream.header.length;
  if (stream.header.id != SPAD || end.end % FLB != 0 || stream.header.length >= FLB) {
    error = "the object does not end with padding to a block boundary";
    return false;
  }
  return true;
}
