#pragma once

#include "platform/mtf/dblk_format.h"

#include <cstddef>
#include <string>
#include <string_view>

// Building blocks of MTF media: headers, checksums, dates, strings, and a builder for descriptor blocks. Functions of
// values; any thread.

inline void put16(unsigned char* at, uint16_t value) {
  at[0] = static_cast<unsigned char>(value);
  at[1] = static_cast<unsigned char>(value >> 8);
}
inline void put32(unsigned char* at, uint32_t value) {
  put16(at, static_cast<uint16_t>(value));
  put16(at + 2, static_cast<uint16_t>(value >> 16));
}
inline void put64(unsigned char* at, uint64_t value) {
  put32(at, static_cast<uint32_t>(value));
  put32(at + 4, static_cast<uint32_t>(value >> 32));
}
inline uint16_t get16(const unsigned char* at) {
  return static_cast<uint16_t>(at[0] | at[1] << 8);
}
inline uint32_t get32(const unsigned char* at) {
  return static_cast<uint32_t>(get16(at)) | static_cast<uint32_t>(get16(at + 2)) << 16;
}
inline uint64_t get64(const unsigned char* at) {
  return static_cast<uint64_t>(get32(at)) | static_cast<uint64_t>(get32(at + 4)) << 32;
}
inline unsigned char* bytes_at(std::string& text, size_t offset) {
  return reinterpret_cast<unsigned char*>(text.data()) + offset;
}
inline const unsigned char* bytes_of(std::string_view text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}

/// XOR of little-endian 16-bit words, the checksum of MTF headers.
uint16_t xor_words(const unsigned char* at, unsigned words);

/// The common header of a descriptor block, as read.
struct Dblk_Header {
  uint32_t type = 0;
  uint32_t attributes = 0;
  unsigned first_event = 0; ///< bytes from the block's start to its first stream
  unsigned char os_id = 0;
  unsigned char os_version = 0;
  uint64_t displayable = 0;
  uint64_t fla = 0; ///< in FLBs
  uint32_t control_id = 0;
  unsigned char string_type = 0;

  /// Reads 52 bytes. False when the checksum does not hold or the type is none of MTF.
  bool parse(const unsigned char* at);
};
bool is_dblk_type(uint32_t type);
/// Writes the header's checksum into the 52 bytes at `at`.
void seal_dblk_header(unsigned char* at);
/// Four characters, "?" for those that are not printable.
std::string four_text(uint32_t id);

struct Stream_Header {
  uint32_t id = 0;
  uint16_t system_attributes = 0;
  uint16_t format_attributes = 0;
  uint64_t length = 0; ///< of the data, bytes
  uint16_t encryption = 0;
  uint16_t compression = 0;

  /// Reads 22 bytes. False when the checksum does not hold.
  bool parse(const unsigned char* at);
};
void put_stream_header(unsigned char* at, uint32_t id, uint16_t format_attributes, uint64_t length);

/// Appends `text` as UTF-16LE. False, with what came before the bad byte appended, when it is not strict UTF-8.
bool append_utf16(std::string_view text, std::string& out);
/// UTF-16LE bytes as UTF-8; U+FFFD for half surrogates.
std::string utf16_to_utf8(std::string_view bytes);

/// Appends zero bytes until `out`, which begins at a multiple of `alignment`, ends at one.
void pad_to(std::string& out, size_t alignment);
/// Appends a stream header behind alignment; `out` begins at a multiple of 4 of the medium.
void append_stream_header(std::string& out, uint32_t id, uint16_t format_attributes, uint64_t length);
void append_stream(std::string& out, uint32_t id, std::string_view data);
/// Appends the SPAD that ends a block's streams; `base` is the place of `out` on the medium.
void append_spad(std::string& out, uint64_t base);
/// Appends the stream with the check of the descriptor block that `out` begins with. Call it when all fields stand.
void append_block_check(std::string& out);
/// XXH3-64 of a descriptor block without its streams.
uint64_t block_check(const unsigned char* at, size_t size);

/// Fills a descriptor block of one FLB's size at most: fields by offset, strings behind the fixed part.
class Dblk_Builder {
public:
  /// Appends the block to `out`, which must be empty and outlive the builder.
  Dblk_Builder(std::string& out, uint32_t type, unsigned fixed, unsigned char string_type);

  unsigned char* at(unsigned offset) { return bytes_at(out_, offset); }
  /// Appends `bytes` and writes their tape address at `offset`; nothing for an empty string.
  void string(unsigned offset, std::string_view bytes);
  /// Writes place and number, the offset of the first stream and the checksum.
  void finish(uint64_t fla, uint32_t control_id);

private:
  std::string& out_;
};
