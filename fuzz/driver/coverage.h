#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

/// What the instrumented code reports while a target runs. The compiler's calls (-fsanitize-coverage) come from any
/// thread and are only ever counted, so a lost count does no harm; the rest is for the driver's thread.
namespace coverage {

/// A comparison of two values that differed, of `size` bytes.
struct Comparison {
  uint64_t a = 0;
  uint64_t b = 0;
  unsigned size = 0;
};

/// Before an input is run.
void begin();
/// Behind it: true when the input went where none went before, or how often none did.
bool learn();
/// Places of the code that were reached so far, as far as they can be told apart.
size_t reached();
/// Some comparisons of the last run.
const std::vector<Comparison>& comparisons();

} // namespace coverage
