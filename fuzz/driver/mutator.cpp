#include "fuzz/driver/mutator.h"

#include <algorithm>
#include <cstring>

namespace {

std::string bytes_of(uint64_t value, unsigned size, bool reversed) {
  std::string bytes(size, '\0');
  std::memcpy(bytes.data(), &value, size);
  if (reversed)
    std::reverse(bytes.begin(), bytes.end());
  return bytes;
}

constexpr uint64_t EDGES[] = {0,          1,           2,          0x7F,       0x80,       0xFF,
                              0x100,      0x3FF,       0x400,      0x7FFF,     0x8000,     0xFFFF,
                              0x10000,    0x100000,    0x7FFFFFFF, 0x80000000, 0xFFFFFFFF, 0x100000000,
                              ~0ull >> 1, ~0ull << 63, ~0ull - 21, ~0ull};

} // namespace

size_t Mutator::length(size_t bound) {
  const size_t upper = below(8) == 0 ? bound : std::min<size_t>(bound, 16);
  return 1 + below(std::max<size_t>(upper, 1));
}

void Mutator::mutate(std::string& input, const std::string& other,
                     const std::vector<coverage::Comparison>& comparisons) {
  size_t changes = 1;
  while (changes < 16 && below(2) == 0)
    changes *= 2;
  for (size_t i = 0; i < changes; ++i)
    change(input, other, comparisons);
  if (input.size() > max_size_)
    input.resize(max_size_);
}

void Mutator::change(std::string& input, const std::string& other,
                     const std::vector<coverage::Comparison>& comparisons) {
  if (input.empty()) {
    input = other.empty() ? std::string(1, static_cast<char>(below(256))) : other;
    return;
  }
  const size_t at = below(input.size());
  switch (below(12)) {
  case 0:
    input[at] = static_cast<char>(input[at] ^ 1 << below(8));
    break;
  case 1:
    input[at] = static_cast<char>(below(256));
    break;
  case 2:
    number(input);
    break;
  case 3:
    input.erase(at, length(input.size() - at));
    break;
  case 4:
    input.resize(at);
    break;
  case 5: { // a piece again, elsewhere
    const std::string piece = input.substr(at, length(input.size() - at));
    input.insert(below(input.size() + 1), piece);
    break;
  }
  case 6: // a piece over another
    put(input, input.substr(at, length(input.size() - at)));
    break;
  case 7:
  case 8:
    if (!other.empty()) {
      const size_t from = below(other.size());
      const std::string piece = other.substr(from, length(other.size() - from));
      if (below(2) == 0)
        input.insert(at, piece);
      else
        put(input, piece);
    }
    break;
  case 9:
    if (!words_.empty()) {
      const std::string& word = words_[below(words_.size())];
      if (below(3) == 0)
        put(input, word);
      else
        input.insert(at, word);
    }
    break;
  default:
    if (!comparisons.empty())
      satisfy(input, comparisons[below(comparisons.size())]);
  }
}

void Mutator::number(std::string& input) {
  const unsigned size = 1u << below(4);
  if (input.size() < size)
    return;
  const size_t at = below(input.size() - size + 1);
  uint64_t value = EDGES[below(std::size(EDGES))];
  if (below(2) == 0) {
    value = 0;
    std::memcpy(&value, input.data() + at, size);
    value += below(2) == 0 ? 1 + below(32) : 0 - (1 + below(32));
  }
  input.replace(at, size, bytes_of(value, size, below(4) == 0));
}

// One side of a comparison often stands in the input as it is: the other side takes its place.
void Mutator::satisfy(std::string& input, const coverage::Comparison& comparison) {
  const bool swapped = below(2) == 0;
  uint64_t from = swapped ? comparison.b : comparison.a;
  uint64_t to = swapped ? comparison.a : comparison.b;
  if (below(4) == 0)
    to += below(2) == 0 ? 1 : ~0ull;
  unsigned size = comparison.size;
  // What was widened for the comparison is narrower in the input.
  while (size > 1 && below(2) == 0 && (from >> (size * 4)) == 0)
    size /= 2;
  const bool reversed = below(4) == 0;
  const std::string old_bytes = bytes_of(from, size, reversed);
  const size_t start = below(input.size());
  size_t at = input.find(old_bytes, start);
  if (at == std::string::npos)
    at = input.find(old_bytes);
  if (at != std::string::npos)
    input.replace(at, size, bytes_of(to, size, reversed));
}

void Mutator::put(std::string& input, const std::string& piece) {
  const size_t at = below(input.size());
  input.replace(at, piece.size(), piece);
}
