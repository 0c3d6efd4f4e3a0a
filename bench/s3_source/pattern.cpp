#include "bench/s3_source/pattern.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <sys/mman.h>
#include <unistd.h>

namespace {

/// The same numbers in every run.
class Numbers {
public:
  uint64_t next() {
    x_ ^= x_ << 13;
    x_ ^= x_ >> 7;
    x_ ^= x_ << 17;
    return x_;
  }
  /// Small ones are more frequent, as with addresses and pages.
  uint64_t below(uint64_t end) {
    const uint64_t a = next() % end, b = next() % end;
    return std::min(a, b);
  }

private:
  uint64_t x_ = 0x9E3779B97F4A7C15ull;
};

std::string words(Numbers& numbers) {
  static const char* const list[] = {"object ",     "storage ", "backup ",  "2026-01-01 ", "information ", "of ",
                                     "the ",        "failed\n", "request ", "10.0.0.1 ",   "and ",         "GET /",
                                     "status=200 ", "user ",    "latency ", "\n"};
  const uint64_t x = numbers.next();
  if ((x >> 40 & 7) != 0)
    return list[x >> 60];
  char number[9];
  std::snprintf(number, sizeof number, "%07u ", static_cast<unsigned>(x & 0xFFFFF));
  return number;
}

std::string line(Numbers& numbers, uint64_t& millisecond) {
  static const char* const agents[] = {
      "Mozilla/5.0 (X11; Linux x86_64; rv:128.0) Gecko/20100101 Firefox/128.0",
      "Mozilla/5.0 (Windows NT 10.0; Win64; x64) AppleWebKit/537.36 (KHTML, like Gecko) Chrome/126.0 Safari/537.36",
      "Mozilla/5.0 (iPhone; CPU iPhone OS 17_5 like Mac OS X) AppleWebKit/605.1.15 (KHTML, like Gecko) Mobile/15E148",
      "python-requests/2.32", "curl/7.88.1"};
  static const char* const statuses[] = {"200", "200", "200", "304", "404", "206", "500"};
  millisecond += numbers.next() % 40;
  char text[512];
  std::snprintf(
      text, sizeof text,
      "10.%u.%u.%u - - [21/Nov/2026:%02u:%02u:%02u +0000] \"GET /%s/item-%05u HTTP/1.1\" %s %u \"-\" \"%s\"\n",
      unsigned(numbers.below(4)), unsigned(numbers.below(32)), unsigned(numbers.below(256)),
      unsigned(millisecond / 3600000 % 24), unsigned(millisecond / 60000 % 60), unsigned(millisecond / 1000 % 60),
      numbers.next() % 3 != 0 ? "shop/articles" : "static/images", unsigned(numbers.below(20000)),
      statuses[numbers.below(7)], unsigned(numbers.below(60000)), agents[numbers.below(5)]);
  return text;
}

} // namespace

bool Pattern::parse(const std::string& name, Kind& kind) {
  static const char* const names[KINDS] = {"", "text", "log"};
  const auto found = std::find(std::begin(names), std::end(names), name);
  kind = static_cast<Kind>(found - std::begin(names));
  return kind != KINDS;
}

Pattern Pattern::make(Kind kind) {
  Pattern pattern;
  pattern.fd = ::memfd_create("pattern", MFD_CLOEXEC);
  if (pattern.fd < 0 || ::ftruncate(pattern.fd, SIZE) != 0)
    return pattern;
  void* const at = ::mmap(nullptr, SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, pattern.fd, 0);
  if (at == MAP_FAILED)
    return pattern;
  char* const bytes = static_cast<char*>(at);
  Numbers numbers;
  uint64_t millisecond = 0;
  for (uint64_t i = 0; i < SIZE;) {
    std::string piece;
    if (kind == NOISE) {
      const uint64_t x = numbers.next();
      piece.assign(reinterpret_cast<const char*>(&x), sizeof x);
    } else {
      piece = kind == TEXT ? words(numbers) : line(numbers, millisecond);
    }
    const uint64_t size = std::min<uint64_t>(piece.size(), SIZE - i);
    std::memcpy(bytes + i, piece.data(), size);
    i += size;
  }
  pattern.bytes = bytes;
  return pattern;
}
