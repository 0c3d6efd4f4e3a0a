#include "platform/mtf/dblk_name.h"

#include "platform/mtf/dblk.h"

#include <openssl/sha.h>

#include <vector>

using namespace MTF_Format;

namespace {

constexpr size_t MAX_COMPONENT = 255; // bytes of a name in the file systems that readers extract into
constexpr size_t MARK = 17;           // "~" and 16 digits
constexpr char DIGITS[] = "0123456789abcdef";

bool ends_like_substitute(std::string_view name) {
  if (name.size() < MARK || name[name.size() - MARK] != '~')
    return false;
  return name.substr(name.size() - MARK + 1).find_first_not_of(DIGITS) == std::string_view::npos;
}

/// Strict UTF-8 characters stay, all else becomes "%XX".
std::string readable(std::string_view name, size_t max_bytes) {
  std::string out;
  std::string scratch;
  for (size_t i = 0; i < name.size();) {
    const unsigned char c = static_cast<unsigned char>(name[i]);
    const size_t length = c < 0x80 ? 1 : c >= 0xF0 ? 4 : c >= 0xE0 ? 3 : 2;
    const std::string_view piece = name.substr(i, length);
    scratch.clear();
    if (c != 0 && c != '/' && piece.size() == length && append_utf16(piece, scratch)) {
      if (out.size() + length > max_bytes)
        break;
      out.append(piece);
      i += length;
    } else {
      if (out.size() + 3 > max_bytes)
        break;
      out.push_back('%');
      out.push_back("0123456789ABCDEF"[c >> 4]);
      out.push_back("0123456789ABCDEF"[c & 15]);
      ++i;
    }
  }
  return out;
}

std::string substitute(std::string_view shown, std::string_view whole, size_t max_bytes) {
  std::string out = readable(shown, max_bytes - MARK);
  unsigned char digest[SHA256_DIGEST_LENGTH];
  SHA256(bytes_of(whole), whole.size(), digest);
  out.push_back('~');
  for (int i = 0; i < 8; ++i) {
    out.push_back(DIGITS[digest[i] >> 4]);
    out.push_back(DIGITS[digest[i] & 15]);
  }
  return out;
}

/// Appends the component's UTF-16; true when it is the component itself.
bool append_component(std::string_view name, std::string& utf16) {
  const size_t begin = utf16.size();
  const bool plain = !name.empty() && name.size() <= MAX_COMPONENT && name != "." && name != ".." &&
                     name.find('\0') == std::string_view::npos && name.find('/') == std::string_view::npos &&
                     !ends_like_substitute(name);
  if (plain && append_utf16(name, utf16))
    return true;
  utf16.resize(begin);
  append_utf16(substitute(name, name, 200), utf16);
  return false;
}

} // namespace

Dblk_Name file_name_field(std::string_view name) {
  Dblk_Name field;
  field.exact = append_component(name, field.utf16);
  return field;
}

Dblk_Name directory_name_field(std::string_view path) {
  Dblk_Name field;
  if (path.empty()) {
    field.utf16.assign(2, '\0');
    return field;
  }
  std::vector<size_t> ends;
  for (size_t begin = 0; begin < path.size();) {
    size_t end = path.find('\0', begin);
    if (end == std::string_view::npos)
      end = path.size();
    if (!append_component(path.substr(begin, end - begin), field.utf16))
      field.exact = false;
    field.utf16.append(2, '\0');
    ends.push_back(field.utf16.size());
    begin = end + 1;
  }
  if (field.utf16.size() <= MAX_DIRECTORY_NAME)
    return field;

  std::string last;
  std::string_view shown = path;
  if (shown.back() == '\0')
    shown.remove_suffix(1);
  shown = shown.substr(shown.rfind('\0') == std::string_view::npos ? 0 : shown.rfind('\0') + 1);
  append_utf16(substitute(shown, path, 64), last);
  last.append(2, '\0');
  while (!ends.empty() && ends.back() + last.size() > MAX_DIRECTORY_NAME)
    ends.pop_back();
  field.utf16.resize(ends.empty() ? 0 : ends.back());
  field.utf16 += last;
  field.exact = false;
  return field;
}

std::string text_field(std::string_view text, size_t max_units) {
  std::string utf16;
  append_utf16(readable(text, 3 * max_units), utf16);
  if (utf16.size() > 2 * max_units) {
    utf16.resize(2 * max_units);
    const unsigned last = get16(bytes_of(utf16) + utf16.size() - 2);
    if (last >= 0xD800 && last < 0xDC00)
      utf16.resize(utf16.size() - 2);
  }
  return utf16;
}
