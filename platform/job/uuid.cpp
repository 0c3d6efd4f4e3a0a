#include "sdk/job/job_definition.h"

#include <cstring>
#include <random>

#include <sys/random.h>

namespace {

int hex_digit(char c) {
  if (c >= '0' && c <= '9')
    return c - '0';
  if (c >= 'a' && c <= 'f')
    return c - 'a' + 10;
  return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

bool is_dash_place(size_t at) {
  return at == 8 || at == 13 || at == 18 || at == 23;
}

} // namespace

bool uuid_string_to_binary(const std::string& text, unsigned char out[16]) {
  unsigned char bytes[16] = {};
  bool good = text.size() == 36;
  size_t digits = 0;
  for (size_t at = 0; good && at < text.size(); ++at) {
    if (is_dash_place(at)) {
      good = text[at] == '-';
      continue;
    }
    const int digit = hex_digit(text[at]);
    good = digit >= 0;
    if (good) {
      bytes[digits / 2] = static_cast<unsigned char>(bytes[digits / 2] << 4 | digit);
      ++digits;
    }
  }
  if (good)
    std::memcpy(out, bytes, sizeof bytes);
  else
    std::memset(out, 0, sizeof bytes);
  return good;
}

std::string make_uuid() {
  unsigned char bytes[16];
  // Up to 256 bytes come whole; kernels without the call leave the work to the library's own source.
  if (getrandom(bytes, sizeof bytes, 0) != static_cast<ssize_t>(sizeof bytes)) {
    std::random_device device;
    for (unsigned char& byte : bytes)
      byte = static_cast<unsigned char>(device());
  }
  bytes[6] = static_cast<unsigned char>((bytes[6] & 0x0F) | 0x40);
  bytes[8] = static_cast<unsigned char>((bytes[8] & 0x3F) | 0x80);

  static const char hex[] = "0123456789abcdef";
  std::string text;
  for (const unsigned char byte : bytes) {
    if (is_dash_place(text.size()))
      text += '-';
    text += hex[byte >> 4];
    text += hex[byte & 15];
  }
  return text;
}
