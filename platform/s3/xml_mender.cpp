#include "platform/s3/xml_mender.h"

namespace s3 {
namespace {

constexpr char MARK = '\x7f';
/// "&#x10FFFF;" is the longest reference, leading zeros apart.
constexpr size_t MAX_REFERENCE = 24;

void put(char c, std::string& out) {
  const unsigned char byte = static_cast<unsigned char>(c);
  const bool plain = (byte >= 0x20 && byte < 0x7f) || c == '\t' || c == '\n' || c == '\r';
  if (plain) {
    out.push_back(c);
    return;
  }
  out.push_back(MARK);
  out.push_back(static_cast<char>('a' + (byte >> 4)));
  out.push_back(static_cast<char>('a' + (byte & 15)));
}

std::string utf8(unsigned long code) {
  std::string bytes;
  if (code < 0x80) {
    bytes.push_back(static_cast<char>(code));
  } else if (code < 0x800) {
    bytes.push_back(static_cast<char>(0xc0 | code >> 6));
    bytes.push_back(static_cast<char>(0x80 | (code & 63)));
  } else if (code < 0x10000) {
    bytes.push_back(static_cast<char>(0xe0 | code >> 12));
    bytes.push_back(static_cast<char>(0x80 | (code >> 6 & 63)));
    bytes.push_back(static_cast<char>(0x80 | (code & 63)));
  } else {
    bytes.push_back(static_cast<char>(0xf0 | code >> 18));
    bytes.push_back(static_cast<char>(0x80 | (code >> 12 & 63)));
    bytes.push_back(static_cast<char>(0x80 | (code >> 6 & 63)));
    bytes.push_back(static_cast<char>(0x80 | (code & 63)));
  }
  return bytes;
}

/// The number of "&#65;" or "&#x41;"; false where it is none.
bool read_reference(const std::string& text, unsigned long& code) {
  const bool hex = text.size() > 3 && (text[2] == 'x' || text[2] == 'X');
  const unsigned base = hex ? 16 : 10;
  const size_t first = hex ? 3 : 2;
  code = 0;
  for (size_t i = first; i + 1 < text.size(); ++i) {
    const char c = text[i];
    unsigned digit;
    if (c >= '0' && c <= '9')
      digit = static_cast<unsigned>(c - '0');
    else if (hex && c >= 'a' && c <= 'f')
      digit = static_cast<unsigned>(c - 'a') + 10;
    else if (hex && c >= 'A' && c <= 'F')
      digit = static_cast<unsigned>(c - 'A') + 10;
    else
      return false;
    code = code * base + digit;
    if (code > 0x10ffff)
      return false;
  }
  return text.size() > first + 1 && code != 0;
}

} // namespace

void XML_Mender::reference(std::string& out) {
  unsigned long code = 0;
  // What the parser itself understands, markup above all, stays a reference.
  if (!read_reference(pending_, code) || (code >= 0x20 && code < 0x7f) || code == '\t' || code == '\n' || code == '\r')
    out += pending_;
  else
    for (const char c : utf8(code))
      put(c, out);
  pending_.clear();
}

void XML_Mender::feed(const char* data, size_t size, std::string& out) {
  for (size_t i = 0; i < size; ++i) {
    const char c = data[i];
    if (pending_.empty() && c != '&') {
      put(c, out);
      continue;
    }
    if (pending_.size() == 1 && c != '#') {
      finish(out);
      --i;
      continue;
    }
    const bool part = c == '&' ? pending_.empty() : (c > ' ' && c < MARK && pending_.size() < MAX_REFERENCE);
    if (!part) {
      finish(out);
      --i;
      continue;
    }
    pending_.push_back(c);
    if (c == ';')
      reference(out);
  }
}

void XML_Mender::finish(std::string& out) {
  out += pending_;
  pending_.clear();
}

std::string XML_Mender::restore(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == MARK && i + 2 < text.size()) {
      out.push_back(static_cast<char>((text[i + 1] - 'a') << 4 | (text[i + 2] - 'a')));
      i += 2;
    } else {
      out.push_back(text[i]);
    }
  }
  return out;
}

} // namespace s3
