// MUTANT in the environment is the number of the mutant that is on. MUTANTS_REACHED names a file that gets a line for
// each test: its name, its milliseconds, and the numbers of the mutants that it reached; "*" for before and between.

#include "mutant_switch.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <fstream>

namespace {

constexpr unsigned MOST = 1u << 18;

std::atomic<unsigned char> reached[MOST];

unsigned number_in_environment() {
  const char* const text = std::getenv("MUTANT");
  return text ? static_cast<unsigned>(std::strtoul(text, nullptr, 10)) : 0;
}

class Reached_Listener : public testing::EmptyTestEventListener {
  void OnTestStart(const testing::TestInfo&) override { write("*", 0); }

  void OnTestEnd(const testing::TestInfo& info) override {
    write(std::string(info.test_suite_name()) + "." + info.name(), info.result()->elapsed_time());
  }

  void OnTestProgramEnd(const testing::UnitTest&) override { write("*", 0); }

  void write(const std::string& name, long long milliseconds) {
    std::ofstream out(std::getenv("MUTANTS_REACHED"), std::ios::app);
    out << name << ' ' << milliseconds;
    for (unsigned number = 0; number < MOST; ++number) {
      if (reached[number].load(std::memory_order_relaxed) != 0 && reached[number].exchange(0) != 0)
        out << ' ' << number;
    }
    out << '\n';
  }
};

bool note_reached() {
  if (std::getenv("MUTANTS_REACHED") == nullptr)
    return false;
  testing::UnitTest::GetInstance()->listeners().Append(new Reached_Listener);
  return true;
}

} // namespace

unsigned mutant_on = number_in_environment();
bool mutants_noted = note_reached();

void note_mutant(unsigned number) {
  if (number < MOST)
    reached[number].store(1, std::memory_order_relaxed);
}
