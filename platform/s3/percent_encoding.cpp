#include "platform/s3/percent_encoding.h"

namespace s3 {
namespace {

bool unreserved(unsigned char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '.' ||
         c == '_' || c == '~';
}

int hex_value(char c) {
  if (c >= '0' && c <= '9')
    return c - '0';
  if (c >= 'a' && c <= 'f')
    return c - 'a' + 10;
  if (c >= 'A' && c <= 'F')
    return c - 'A' + 10;
  return -1;
}

} // namespace

std::string percent_encode(std::string_view bytes, bool keep_slash) {
  static const char digits[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(bytes.size() + bytes.size() / 4);
  for (const char c : bytes) {
    const unsigned char byte = static_cast<unsigned char>(c);
    if (unreserved(byte) || (c == '/' && keep_slash)) {
      out.push_back(c);
    } else {
      out.push_back('%');
      out.push_back(digits[byte >> 4]);
      out.push_back(digits[byte & 15]);
    }
  }
  return out;
}

bool percent_decode(std::string_view text, bool plus_is_space, std::string& out) {
  // Most of a listing's keys have nothing to decode.
  size_t plain = 0;
  while (plain < text.size() && text[plain] > ' ' && text[plain] < 0x7f && text[plain] != '%' && text[plain] != '+')
    ++plain;
  out.reserve(text.size());
  out.assign(text, 0, plain);
  for (size_t i = plain; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '%') {
      const int high = i + 2 < text.size() ? hex_value(text[i + 1]) : -1;
      const int low = i + 2 < text.size() ? hex_value(text[i + 2]) : -1;
      if (high < 0 || low < 0)
        return false;
      out.push_back(static_cast<char>(high << 4 | low));
      i += 2;
    } else if (c <= ' ' || c == 0x7f || static_cast<unsigned char>(c) > 0x7f) {
      return false;
    } else {
      out.push_back(c == '+' && plus_is_space ? ' ' : c);
    }
  }
  return true;
}

} // namespace s3
