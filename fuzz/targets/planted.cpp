#include "fuzz/fuzz_target.h"

#include <cstring>
#include <stdexcept>

// Mistakes of every kind that the driver must find, each behind a few comparisons that chance alone does not pass.
// The first byte chooses one.

namespace {

uint32_t number_at(std::string_view input, size_t at) {
  uint32_t number = 0;
  if (input.size() >= at + sizeof number)
    std::memcpy(&number, input.data() + at, sizeof number);
  return number;
}

volatile unsigned sink;

} // namespace

void fuzz_one(std::string_view input) {
  if (input.size() < 9 || number_at(input, 1) != 0x4B434F4C || number_at(input, 5) < 0xFFFFFF00)
    return;
  switch (input.front()) {
  case 'r': // reads past the end
    sink = static_cast<unsigned char>(input.data()[input.size()]);
    break;
  case 'l':
    sink = *new unsigned(input.size());
    break;
  case 'h':
    for (;;)
      sink = sink + 1;
  case 't':
    throw std::runtime_error("thrown");
  case 'u': { // undefined
    const int most = 0x7FFFFF00 + static_cast<unsigned char>(input[1]);
    sink = static_cast<unsigned>(most + static_cast<int>(number_at(input, 5) & 0xFF) + 0x100);
    break;
  }
  case 'w':
    fuzz_fail("planted");
  default:
    break;
  }
}
