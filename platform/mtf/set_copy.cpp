#include "platform/mtf/set_copy.h"

#include "platform/mtf/codec.h"
#include "platform/mtf/medium_walker.h"
#include "platform/pool/pool_files.h"

#include <xxhash.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

using namespace MTF_Format;

namespace {

constexpr unsigned RECORD_FIXED = 16;     ///< before the record's text
constexpr unsigned char COPY_PLAIN = 1;   ///< version 1: the data as they are
constexpr unsigned char COPY_GUARDED = 2; ///< with zeros at every FLB boundary
constexpr unsigned GUARD = 4;             ///< bytes of them: those of a block's type
constexpr int LEVEL = 1;
/// How far before the end of a medium its end-of-set block is looked for where the filemarks do not say.
constexpr unsigned long long SEARCH = 1ull << 30;

struct Close_File {
  void operator()(std::FILE* file) const { std::fclose(file); }
};

/// Null with errno.
std::FILE* opened(const std::string& path) {
  const int fd = open_pool_file(path, O_RDONLY);
  std::FILE* const file = fd < 0 ? nullptr : ::fdopen(fd, "rb");
  if (fd >= 0 && file == nullptr)
    ::close(fd);
  return file;
}

/// The streams of the end-of-set block behind its check, up to its padding.
bool for_each_stream(Medium_Window& window, unsigned long long offset,
                     const std::function<bool(const Medium_Stream&)>& told, std::string& error) {
  Dblk_Header header;
  unsigned long long at = 0;
  if (!read_block(window, offset, header, error) || !descriptor_holds(window, offset, header, at, error))
    return false;
  Medium_Stream stream;
  for (; read_stream(window, at, stream, error); at = stream.next()) {
    if (stream.header.id == SPAD)
      return true;
    if (!told(stream))
      return false;
  }
  return false;
}

bool is_set_end(Medium_Window& window, unsigned long long offset) {
  Dblk_Header header;
  std::string ignored;
  unsigned long long streams = 0;
  return read_block(window, offset, header, ignored) && header.type == ESET &&
         descriptor_holds(window, offset, header, streams, ignored);
}

/// Appends a stream with zeros put in at the FLB boundaries; `out`, which is empty, will stand at `place`. The data
/// begin behind a header, so not at a boundary, and their first two bytes, the version, are never moved.
void append_guarded(std::string& out, unsigned long long place, uint32_t id, std::string_view data) {
  out.assign(STREAM_HEADER, '\0');
  while (!data.empty()) {
    const unsigned over = static_cast<unsigned>((place + out.size()) % FLB);
    if (over == 0)
      out.append(GUARD, '\0');
    const size_t piece = std::min<size_t>(data.size(), over == 0 ? FLB - GUARD : FLB - over);
    out.append(data.substr(0, piece));
    data.remove_prefix(piece);
  }
  put_stream_header(bytes_at(out, 0), id, 0, out.size() - STREAM_HEADER);
  pad_to(out, STREAM_ALIGNMENT);
}

/// Takes the zeros out of the `size` bytes at `data`, which stand at `place`. False when they are not zero.
bool remove_guards(const unsigned char* data, size_t size, unsigned long long place, std::string& out) {
  static const unsigned char zeros[GUARD] = {};
  out.clear();
  out.reserve(size);
  for (size_t at = 0; at < size;) {
    const unsigned over = static_cast<unsigned>((place + at) % FLB);
    if (over == 0) {
      if (size - at < GUARD || std::memcmp(data + at, zeros, GUARD) != 0)
        return false;
      at += GUARD;
    }
    const size_t piece = std::min<size_t>(size - at, over == 0 ? FLB - GUARD : FLB - over);
    out.append(reinterpret_cast<const char*>(data) + at, piece);
    at += piece;
  }
  return true;
}

/// The data of a stream of the copy as they were before zeros were put in, checked. `bytes` holds until `room` or what
/// the window shows is changed.
bool copied_data(Medium_Window& window, const Medium_Stream& stream, std::string& room, std::string_view& bytes,
                 std::string& error) {
  const bool chunk = stream.header.id == OBSL;
  const uint64_t length = stream.header.length;
  const size_t least = chunk ? FRAME_HEADER : RECORD_FIXED + CHECK;
  if (length > MAX_PRIVATE_STREAM || length < least) {
    error = "the stream " + four_text(stream.header.id) + " has a length that cannot be";
    return false;
  }
  const unsigned char* const data = window.at(stream.data(), static_cast<size_t>(length));
  if (data == nullptr) {
    error = window.error();
    return false;
  }
  error = "the stream " + four_text(stream.header.id) + " does not match its check";
  const unsigned char version = data[0];
  bytes = std::string_view(reinterpret_cast<const char*>(data), static_cast<size_t>(length));
  if (version == COPY_GUARDED) {
    if (!remove_guards(data, static_cast<size_t>(length), stream.data(), room) || room.size() < least)
      return false;
    bytes = room;
  }
  const unsigned char* const at = bytes_of(bytes);
  bool holds = false;
  if (chunk) {
    Frame frame;
    std::string ignored;
    holds = frame.parse(at, ignored, version) && bytes.size() == FRAME_HEADER + uint64_t(frame.stored) &&
            XXH3_64bits(at + FRAME_HEADER, frame.stored) == frame.stored_check;
  } else {
    holds = data[1] == 0 && get64(at + bytes.size() - CHECK) == XXH3_64bits(at, bytes.size() - CHECK);
  }
  if (holds && version != COPY_GUARDED && version != COPY_PLAIN) {
    error = "the stream " + four_text(stream.header.id) + " has the unknown version " + std::to_string(version);
    return false;
  }
  return holds;
}

} // namespace

// OBSR: 0 version 2 | 2 zero 2 | 4 chunks 4 | 8 bytes of the catalog 8 | 16 text | XXH3-64 of all before
// OBSL: a frame, as in OBSZ
// Zeros are put in afterwards.
bool write_set_copy(const Set_Copy& copy, unsigned long long place, const std::function<bool(const std::string&)>& put,
                    std::string& error) {
  const std::unique_ptr<std::FILE, Close_File> file(opened(copy.catalog));
  unsigned long long size = 0;
  if (file && fseeko(file.get(), 0, SEEK_END) == 0) {
    const off_t end = ftello(file.get());
    size = end < 0 ? 0 : static_cast<unsigned long long>(end);
    std::rewind(file.get());
  }
  if (size == 0) {
    error = "cannot copy " + copy.catalog + ": " + pool_file_error(errno);
    return false;
  }
  unsigned char fixed[RECORD_FIXED] = {};
  put16(fixed, COPY_GUARDED);
  put32(fixed + 4, static_cast<uint32_t>(chunk_count(size)));
  put64(fixed + 8, size);
  std::string data(reinterpret_cast<const char*>(fixed), sizeof fixed);
  data += copy.record;
  unsigned char check[CHECK];
  put64(check, XXH3_64bits(data.data(), data.size()));
  data.append(reinterpret_cast<const char*>(check), sizeof check);
  std::string out;
  append_guarded(out, place, OBSR, data);
  if (!put(out))
    return false;
  place += out.size();

  std::string plain(CHUNK, '\0');
  std::string packed(Codec::bound(FRAME_ZSTD, CHUNK), '\0');
  for (uint32_t sequence = 0; size != 0; ++sequence) {
    Frame frame;
    frame.sequence = sequence;
    frame.plain = static_cast<uint32_t>(std::min<unsigned long long>(size, CHUNK));
    if (std::fread(plain.data(), 1, frame.plain, file.get()) != frame.plain) {
      error = "cannot copy " + copy.catalog + ": it ends too early";
      return false;
    }
    size -= frame.plain;
    const size_t packed_size = Codec::compress(FRAME_ZSTD, LEVEL, plain.data(), frame.plain, packed.data());
    const bool pays = packed_size != 0 && packed_size < frame.plain;
    frame.method = pays ? FRAME_ZSTD : FRAME_STORED;
    frame.stored = pays ? static_cast<uint32_t>(packed_size) : frame.plain;
    const char* const stored = pays ? packed.data() : plain.data();
    frame.plain_check = XXH3_64bits(plain.data(), frame.plain);
    frame.stored_check = XXH3_64bits(stored, frame.stored);
    data.assign(FRAME_HEADER, '\0');
    frame.put(bytes_at(data, 0), COPY_GUARDED);
    data.append(stored, frame.stored);
    append_guarded(out, place, OBSL, data);
    if (!put(out))
      return false;
    place += out.size();
  }
  return true;
}

bool set_copy_holds(Medium_Window& window, const Medium_Stream& stream, std::string& error) {
  std::string room;
  std::string_view bytes;
  return copied_data(window, stream, room, bytes, error);
}

bool find_set_end(Medium_Window& window, unsigned long long size, unsigned long long& offset, std::string& error) {
  Dblk_Header header;
  if (size % FLB != 0 || size < 8 * FLB) {
    error = "it is too short";
    return false;
  }
  // The last filemark names the one before it, which the end-of-set block follows.
  if (read_block(window, size - FLB, header, error) && header.type == SFMB) {
    const unsigned char* const at = window.at(size - FLB, FLB);
    offset = at == nullptr || get32(at + 56) == 0 ? 0 : (static_cast<uint64_t>(get32(at + SFMB_FIXED)) + 1) * FLB;
    if (offset > 5 * FLB && offset < size && is_set_end(window, offset))
      return true;
  }
  for (offset = size - 2 * FLB; offset > 5 * FLB && size - offset < SEARCH; offset -= FLB)
    if (is_set_end(window, offset))
      return true;
  error = "the end of its set is missing";
  return false;
}

bool read_set_copy(const std::string& path, std::string& record, const std::function<bool(const char*, size_t)>& take,
                   std::string& error) {
  try {
    const std::shared_ptr<Medium_Source> source = Medium_Source::open(path, error);
    if (!source)
      return false;
    Medium_Window window(*source, 64 * 1024);
    unsigned long long offset = 0;
    if (!find_set_end(window, source->size(), offset, error))
      return false;
    uint64_t chunks = 0, size = 0, done = 0;
    uint32_t sequence = 0;
    bool there = false;
    std::string plain(CHUNK, '\0');
    std::string room;
    const auto stream = [&](const Medium_Stream& one) {
      if (one.header.id != OBSR && one.header.id != OBSL)
        return true;
      std::string_view bytes;
      if (!copied_data(window, one, room, bytes, error))
        return false;
      const unsigned char* const data = bytes_of(bytes);
      if (one.header.id == OBSR) {
        there = true;
        chunks = get32(data + 4);
        size = get64(data + 8);
        record.assign(bytes.substr(RECORD_FIXED, bytes.size() - RECORD_FIXED - CHECK));
        return true;
      }
      Frame frame;
      if (!frame.parse(data, error, data[0]))
        return false;
      const char* const stored = reinterpret_cast<const char*>(data) + FRAME_HEADER;
      // An encrypted catalog does not shrink.
      if (frame.method == FRAME_STORED)
        std::memcpy(plain.data(), stored, frame.plain);
      if (frame.sequence != sequence++ ||
          (frame.method != FRAME_STORED &&
           !Codec::decompress(frame.method, stored, frame.stored, plain.data(), frame.plain)) ||
          XXH3_64bits(plain.data(), frame.plain) != frame.plain_check) {
        error = "a chunk of the catalog's copy is damaged";
        return false;
      }
      done += frame.plain;
      if (take(plain.data(), frame.plain))
        return true;
      error = "the copy cannot be written";
      return false;
    };
    if (!for_each_stream(window, offset, stream, error)) {
      error = path + " at " + std::to_string(offset) + ": " + error;
      return false;
    }
    if (there && sequence == chunks && done == size)
      return true;
    error = path + (there ? ": the copy of the catalog is not whole" : " holds no copy of a catalog");
  } catch (const std::bad_alloc&) {
    error = "no memory to read " + path;
  }
  return false;
}
