#include "fuzz/fuzz_target.h"

#include "platform/pool/set_roll.h"

// A pool's roll of sets: what is accepted must come back from its own text as it was, and what is checked must be what
// was written. Without a key nothing is checked, so mutations get behind the check.

const std::vector<std::string>& fuzz_words() {
  static const std::vector<std::string> words = {
      "{",           "}",          ":",           ",",         "\"",         "true",      "1e9",
      "-1",          "\"check\":", "\"format\":", "\"pool\":", "\"doubt\":", "\"sets\":", "\"generation\":",
      "\"record\":", "\"next\":",  "\"going\":",  "\"seq\":",  "\"uri\":",   "\"pool\"",  "18446744073709551615"};
  return words;
}

void fuzz_one(std::string_view input) {
  Set_Roll roll, again;
  std::string error;
  const std::string text(input);
  if (!Set_Roll::parse(text, "pool", true, nullptr, roll, error)) {
    if (error.empty())
      fuzz_fail("a roll is refused without a reason");
    return;
  }
  const std::string written = roll.text("pool", nullptr);
  if (!Set_Roll::parse(written, "pool", false, nullptr, again, error))
    fuzz_fail("a roll that was written cannot be read: " + error);
  if (again.text("pool", nullptr) != written)
    fuzz_fail("a roll changes by being written and read");
}
