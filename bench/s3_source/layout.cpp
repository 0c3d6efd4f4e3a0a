#include "bench/s3_source/layout.h"

#include <algorithm>
#include <charconv>

namespace {

constexpr unsigned DIGITS = 6;
constexpr uint64_t MOST = 1000000;

bool read_number(std::string_view text, uint64_t& value) {
  const auto end = std::from_chars(text.data(), text.data() + text.size(), value);
  return !text.empty() && end.ec == std::errc() && end.ptr == text.data() + text.size();
}

void append_digits(uint64_t value, std::string& out) {
  char digits[DIGITS];
  for (unsigned i = DIGITS; i-- > 0; value /= 10)
    digits[i] = static_cast<char>('0' + value % 10);
  out.append(digits, DIGITS);
}

} // namespace

bool Layout::parse(const std::string& text) {
  const size_t tree = text.find(':');
  const size_t size = text.find(':', tree + 1);
  if (tree == std::string::npos || size == std::string::npos)
    return false;
  name_ = text.substr(0, tree);
  std::string_view rest = std::string_view(text).substr(size + 1);
  const size_t kind = std::min(rest.find(':'), rest.size());
  if (!Pattern::parse(std::string(rest.substr(std::min(kind + 1, rest.size()))), pattern_) ||
      !read_number(rest.substr(0, kind), size_))
    return false;
  rest = std::string_view(text).substr(tree + 1, size - tree - 1);
  objects_ = 1;
  for (;;) {
    const size_t next = rest.find('x');
    uint64_t count = 0;
    if (!read_number(rest.substr(0, next), count) || count == 0 || count > MOST)
      return false;
    counts_.push_back(count);
    objects_ *= count;
    if (next == std::string_view::npos)
      break;
    rest.remove_prefix(next + 1);
  }
  uint64_t below = objects_;
  for (const uint64_t count : counts_)
    below_.push_back(below /= count);
  return true;
}

void Layout::append_key(uint64_t number, std::string& out) const {
  for (size_t level = 0; level < counts_.size(); ++level) {
    const bool last = level + 1 == counts_.size();
    out += last ? "object-" : "folder-";
    append_digits(number / below_[level], out);
    number %= below_[level];
    out += last ? ".dat" : "/";
  }
}

uint64_t Layout::lower_bound(std::string_view text) const {
  uint64_t first = 0, count = objects_;
  std::string key;
  while (count > 0) {
    const uint64_t half = count / 2;
    key.clear();
    append_key(first + half, key);
    if (std::string_view(key) < text) {
      first += half + 1;
      count -= half + 1;
    } else {
      count = half;
    }
  }
  return first;
}

uint64_t Layout::find(std::string_view key) const {
  const uint64_t number = lower_bound(key);
  if (number == objects_)
    return objects_;
  std::string there;
  append_key(number, there);
  return there == key ? number : objects_;
}
