#include "fuzz/driver/coverage.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>

namespace {

constexpr size_t MAP = 1u << 16;
constexpr size_t MAX_COMPARISONS = 512;

// Steps from one block of the code to the next, counted by a hash of both ends.
alignas(64) std::array<unsigned char, MAP> steps;
/// By step: the classes of counts that were seen, as bits.
std::array<unsigned char, MAP> seen;
thread_local uintptr_t last_place;
size_t places;

std::array<coverage::Comparison, MAX_COMPARISONS> compared;
std::atomic<unsigned> compared_count;
std::vector<coverage::Comparison> handed_out;

/// One bit for 1, 2, 3, 4-7, 8-15, 16-31, 32-127 and more.
unsigned char class_of(unsigned char count) {
  if (count < 4)
    return static_cast<unsigned char>(1u << (count - 1));
  return count < 8 ? 8 : count < 16 ? 16 : count < 32 ? 32 : count < 128 ? 64 : 128;
}

/// Kept with rising rarity, so that the comparisons at the end of a long run are there too.
void note(uint64_t a, uint64_t b, unsigned size) {
  if (a == b)
    return;
  const unsigned count = compared_count.fetch_add(1, std::memory_order_relaxed);
  const unsigned round = count / MAX_COMPARISONS;
  if (round == 0 || count % (round + 1) == 0)
    compared[count % MAX_COMPARISONS] = {a, b, size};
}

} // namespace

extern "C" {

void __sanitizer_cov_trace_pc() {
  const uintptr_t place = reinterpret_cast<uintptr_t>(__builtin_return_address(0));
  const uintptr_t hash = (place >> 1) * 0x9E3779B97F4A7C15ull >> 40;
  unsigned char& count = steps[(hash ^ last_place) % MAP];
  count = static_cast<unsigned char>(count + (count != 255));
  last_place = hash >> 1;
}
void __sanitizer_cov_trace_cmp1(uint8_t a, uint8_t b) {
  note(a, b, 1);
}
void __sanitizer_cov_trace_cmp2(uint16_t a, uint16_t b) {
  note(a, b, 2);
}
void __sanitizer_cov_trace_cmp4(uint32_t a, uint32_t b) {
  note(a, b, 4);
}
void __sanitizer_cov_trace_cmp8(uint64_t a, uint64_t b) {
  note(a, b, 8);
}
void __sanitizer_cov_trace_const_cmp1(uint8_t a, uint8_t b) {
  note(a, b, 1);
}
void __sanitizer_cov_trace_const_cmp2(uint16_t a, uint16_t b) {
  note(a, b, 2);
}
void __sanitizer_cov_trace_const_cmp4(uint32_t a, uint32_t b) {
  note(a, b, 4);
}
void __sanitizer_cov_trace_const_cmp8(uint64_t a, uint64_t b) {
  note(a, b, 8);
}
void __sanitizer_cov_trace_cmpf(float, float) {}
void __sanitizer_cov_trace_cmpd(double, double) {}
void __sanitizer_cov_trace_switch(uint64_t value, uint64_t* cases) {
  // cases: their number, the width in bits, then each.
  for (uint64_t i = 0; i < std::min<uint64_t>(cases[0], 8); ++i)
    note(value, cases[2 + i], static_cast<unsigned>(cases[1] / 8));
}

} // extern "C"

namespace coverage {

void begin() {
  steps.fill(0);
  last_place = 0;
  compared_count = 0;
}

bool learn() {
  bool fresh = false;
  for (size_t i = 0; i < MAP; i += 8) {
    uint64_t eight;
    std::memcpy(&eight, steps.data() + i, 8);
    if (eight == 0)
      continue;
    for (size_t k = i; k < i + 8; ++k) {
      if (steps[k] == 0)
        continue;
      const unsigned char bit = class_of(steps[k]);
      if (seen[k] & bit)
        continue;
      places += seen[k] == 0;
      seen[k] = static_cast<unsigned char>(seen[k] | bit);
      fresh = true;
    }
  }
  return fresh;
}

size_t reached() {
  return places;
}

const std::vector<Comparison>& comparisons() {
  handed_out.assign(compared.begin(), compared.begin() + std::min<size_t>(compared_count, MAX_COMPARISONS));
  return handed_out;
}

} // namespace coverage
