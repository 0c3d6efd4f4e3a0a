#include "platform/base/printable.h"

#include "platform/base/utf8.h"

#include <algorithm>
#include <iterator>

namespace {

struct Range {
  char32_t first;
  char32_t last;
};

/// Ascending.
constexpr Range UNPRINTABLE[] = {
    {0x00, 0x1F},       // C0
    {0x7F, 0x9F},       // DEL, C1
    {0xAD, 0xAD},       // soft hyphen
    {0x061C, 0x061C},   // Arabic letter mark
    {0x180E, 0x180E},   // Mongolian vowel separator
    {0x200B, 0x200B},   // zero width space
    {0x200E, 0x200F},   // left-to-right and right-to-left mark
    {0x2028, 0x202E},   // line and paragraph separator, embeddings and overrides
    {0x2060, 0x206F},   // word joiner, invisible operators, isolates, deprecated format characters
    {0xFEFF, 0xFEFF},   // byte order mark
    {0xFFF0, 0xFFFB},   // unassigned, interlinear annotation
    {0xFFFE, 0xFFFF},   // not characters
    {0xE0000, 0xE0FFF}, // tags
};

char32_t decoded(const unsigned char* at, size_t length) {
  if (length == 1)
    return *at;
  char32_t code = *at & (0x7Fu >> length);
  for (size_t i = 1; i < length; ++i)
    code = code << 6 | (at[i] & 0x3Fu);
  return code;
}

bool is_printable(char32_t code) {
  return std::none_of(std::begin(UNPRINTABLE), std::end(UNPRINTABLE),
                      [code](const Range& range) { return code >= range.first && code <= range.last; });
}

void put_escaped(std::string& out, unsigned char byte) {
  switch (byte) {
  case '\n':
    out += "\\n";
    break;
  case '\t':
    out += "\\t";
    break;
  case '\r':
    out += "\\r";
    break;
  default:
    out += "\\x";
    out += "0123456789abcdef"[byte >> 4];
    out += "0123456789abcdef"[byte & 15];
  }
}

} // namespace

std::string printable(std::string_view text) {
  const auto* at = reinterpret_cast<const unsigned char*>(text.data());
  const auto* const end = at + text.size();
  std::string out;
  out.reserve(text.size());
  while (at != end) {
    const size_t length = utf8_length(at, end);
    const size_t taken = std::max<size_t>(length, 1);
    if (*at == '\\')
      out += "\\\\";
    else if (length != 0 && is_printable(decoded(at, length)))
      out.append(reinterpret_cast<const char*>(at), length);
    else
      for (size_t i = 0; i < taken; ++i)
        put_escaped(out, at[i]);
    at += taken;
  }
  return out;
}
