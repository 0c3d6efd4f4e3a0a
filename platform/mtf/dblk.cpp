#include "platform/mtf/dblk.h"

#include <xxhash.h>

#include <cstring>

using namespace MTF_Format;

uint16_t xor_words(const unsigned char* at, unsigned words) {
  uint16_t sum = 0;
  for (unsigned i = 0; i < words; ++i)
    sum = static_cast<uint16_t>(sum ^ get16(at + 2 * i));
  return sum;
}

bool is_dblk_type(uint32_t type) {
  switch (type) {
  case TAPE:
  case SSET:
  case VOLB:
  case DIRB:
  case FILE_:
  case CFIL:
  case ESPB:
  case ESET:
  case EOTM:
  case SFMB:
    return true;
  default:
    return false;
  }
}

bool Dblk_Header::parse(const unsigned char* at) {
  type = get32(at);
  attributes = get32(at + 4);
  first_event = get16(at + 8);
  os_id = at[10];
  os_version = at[11];
  displayable = get64(at + 12);
  fla = get64(at + 20);
  control_id = get32(at + 36);
  string_type = at[48];
  return is_dblk_type(type) && xor_words(at, 26) == 0;
}

void seal_dblk_header(unsigned char* at) {
  put16(at + 50, xor_words(at, 25));
}

std::string four_text(uint32_t id) {
  std::string text(4, '?');
  for (unsigned i = 0; i < 4; ++i) {
    const unsigned char c = static_cast<unsigned char>(id >> (8 * i));
    if (c > 0x20 && c < 0x7F)
      text[i] = static_cast<char>(c);
  }
  return text;
}

bool Stream_Header::parse(const unsigned char* at) {
  id = get32(at);
  system_attributes = get16(at + 4);
  format_attributes = get16(at + 6);
  length = get64(at + 8);
  encryption = get16(at + 16);
  compression = get16(at + 18);
  // A header of zeros has a right checksum too, but no id.
  return id != 0 && xor_words(at, 11) == 0;
}

void put_stream_header(unsigned char* at, uint32_t id, uint16_t format_attributes, uint64_t length) {
  std::memset(at, 0, STREAM_HEADER);
  put32(at, id);
  put16(at + 6, format_attributes);
  put64(at + 8, length);
  put16(at + 20, xor_words(at, 10));
}

// Year 14 bits, month 4, day 5, hour 5, minute 6, second 6, most significant byte first. Days and dates are converted
// in the proleptic Gregorian calendar with years that begin in March.
namespace {

void append_unit(std::string& out, uint32_t unit) {
  out.push_back(static_cast<char>(unit & 0xFF));
  out.push_back(static_cast<char>(unit >> 8));
}

void append_utf8(std::string& out, uint32_t c) {
  if (c < 0x80) {
    out.push_back(static_cast<char>(c));
  } else if (c < 0x800) {
    out.push_back(static_cast<char>(0xC0 | c >> 6));
    out.push_back(static_cast<char>(0x80 | (c & 63)));
  } else if (c < 0x10000) {
    out.push_back(static_cast<char>(0xE0 | c >> 12));
    out.push_back(static_cast<char>(0x80 | (c >> 6 & 63)));
    out.push_back(static_cast<char>(0x80 | (c & 63)));
  } else {
    out.push_back(static_cast<char>(0xF0 | c >> 18));
    out.push_back(static_cast<char>(0x80 | (c >> 12 & 63)));
    out.push_back(static_cast<char>(0x80 | (c >> 6 & 63)));
    out.push_back(static_cast<char>(0x80 | (c & 63)));
  }
}

} // namespace

bool append_utf16(std::string_view text, std::string& out) {
  const unsigned char* at = bytes_of(text);
  const size_t size = text.size();
  for (size_t i = 0; i < size;) {
    const unsigned char c = at[i];
    if (c < 0x80) {
      append_unit(out, c);
      ++i;
      continue;
    }
    const unsigned more = c >= 0xF0 ? 3 : c >= 0xE0 ? 2 : 1;
    if (c < 0xC2 || c > 0xF4 || size - i <= more)
      return false;
    uint32_t value = c & (0x3Fu >> more);
    for (unsigned k = 1; k <= more; ++k) {
      if ((at[i + k] & 0xC0) != 0x80)
        return false;
      value = value << 6 | (at[i + k] & 0x3Fu);
    }
    if ((more == 2 && value < 0x800) || (more == 3 && value < 0x10000) || value > 0x10FFFF ||
        (value >= 0xD800 && value < 0xE000))
      return false;
    if (value >= 0x10000) {
      append_unit(out, 0xD800 + ((value - 0x10000) >> 10));
      append_unit(out, 0xDC00 + ((value - 0x10000) & 0x3FF));
    } else {
      append_unit(out, value);
    }
    i += more + 1;
  }
  return true;
}

std::string utf16_to_utf8(std::string_view bytes) {
  std::string out;
  const unsigned char* at = bytes_of(bytes);
  const size_t units = bytes.size() / 2;
  for (size_t i = 0; i < units; ++i) {
    uint32_t c = get16(at + 2 * i);
    if (c >= 0xD800 && c < 0xDC00 && i + 1 < units) {
      const uint32_t low = get16(at + 2 * (i + 1));
      if (low >= 0xDC00 && low < 0xE000) {
        append_utf8(out, 0x10000 + ((c - 0xD800) << 10) + (low - 0xDC00));
        ++i;
        continue;
      }
    }
    if (c >= 0xD800 && c < 0xE000)
      c = 0xFFFD;
    append_utf8(out, c);
  }
  return out;
}

void pad_to(std::string& out, size_t alignment) {
  const size_t over = out.size() % alignment;
  if (over != 0)
    out.append(alignment - over, '\0');
}

void append_stream_header(std::string& out, uint32_t id, uint16_t format_attributes, uint64_t length) {
  pad_to(out, STREAM_ALIGNMENT);
  unsigned char header[STREAM_HEADER];
  put_stream_header(header, id, format_attributes, length);
  out.append(reinterpret_cast<const char*>(header), sizeof header);
}

void append_stream(std::string& out, uint32_t id, std::string_view data) {
  append_stream_header(out, id, 0, data.size());
  out.append(data);
}

void append_spad(std::string& out, uint64_t base) {
  pad_to(out, STREAM_ALIGNMENT);
  const unsigned over = static_cast<unsigned>((base + out.size() + STREAM_HEADER) % FLB);
  const unsigned length = over == 0 ? 0 : FLB - over;
  append_stream_header(out, SPAD, 0, length);
  out.append(length, '\0');
}

uint64_t block_check(const unsigned char* at, size_t size) {
  return XXH3_64bits(at, size);
}

void append_block_check(std::string& out) {
  unsigned char check[8];
  put64(check, block_check(bytes_of(out), get16(bytes_of(out) + 8)));
  append_stream(out, OBSC, std::string_view(reinterpret_cast<const char*>(check), sizeof check));
}

Dblk_Builder::Dblk_Builder(std::string& out, uint32_t type, unsigned fixed, unsigned char string_type) : out_(out) {
  out_.append(fixed, '\0');
  put32(at(0), type);
  at(10)[0] = OS_UNIX;
  at(48)[0] = string_type;
}

void Dblk_Builder::string(unsigned offset, std::string_view bytes) {
  if (bytes.empty())
    return;
  put16(at(offset), static_cast<uint16_t>(bytes.size()));
  put16(at(offset + 2), static_cast<uint16_t>(out_.size()));
  out_.append(bytes);
}

void Dblk_Builder::finish(uint64_t fla, uint32_t control_id) {
  pad_to(out_, STREAM_ALIGNMENT);
  put16(at(8), static_cast<uint16_t>(out_.size()));
  put64(at(20), fla);
  put32(at(36), control_id);
  seal_dblk_header(at(0));
}
