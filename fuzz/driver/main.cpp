#include "fuzz/driver/coverage.h"
#include "fuzz/driver/guard.h"
#include "fuzz/driver/mutator.h"
#include "fuzz/fuzz_target.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>

namespace fs = std::filesystem;

namespace {

constexpr size_t MAX_INPUT = 256 * 1024;
const char* const USAGE =
    "usage: fuzz_TARGET [--seconds N] [--seed N] [--findings DIR] [--keep DIR] [--limit N] CORPUS...\n"
    "  CORPUS: folders and files to begin with. Without --seconds they are only run.\n"
    "  --keep: where inputs that reach something new are put, and taken from\n"
    "  --limit: seconds of the processor that one input may take (20)\n";

struct Settings {
  double seconds = 0;
  unsigned limit = 20;
  uint64_t seed = std::random_device{}();
  std::string findings = ".";
  std::string keep;
  std::vector<std::string> corpus;
};

struct Input {
  std::string bytes;
  std::vector<coverage::Comparison> comparisons;
};

double clock_seconds() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

class Fuzzer {
public:
  Fuzzer(const Settings& settings, std::string name)
      : settings_(settings), name_(std::move(name)), mutator_(settings.seed, fuzz_words(), MAX_INPUT) {}

  int run() {
    for (const std::string& path : settings_.corpus)
      take(path);
    if (!settings_.keep.empty()) {
      fs::create_directories(settings_.keep);
      take(settings_.keep);
    }
    if (runs_ == 0) {
      std::fprintf(stderr, "fuzz: %s: there is nothing to begin with\n", name_.c_str());
      return 2;
    }
    if (coverage::reached() == 0) {
      std::fprintf(stderr, "fuzz: %s: the target was built without coverage\n", name_.c_str());
      return 2;
    }
    const size_t at_first = coverage::reached();
    const double begin = clock_seconds();
    while (clock_seconds() - begin < settings_.seconds)
      for (int i = 0; i < 16; ++i)
        mutated();
    std::printf("fuzz: %s: seed %llu, %llu runs in %.0f s, %zu inputs, %zu places (%zu with the corpus alone)\n",
                name_.c_str(), static_cast<unsigned long long>(settings_.seed), runs_, clock_seconds() - begin,
                inputs_.size(), coverage::reached(), at_first);
    return 0;
  }

private:
  void take(const std::string& path) {
    if (!fs::is_directory(path)) {
      std::ifstream in(path, std::ios::binary);
      if (!in) {
        std::fprintf(stderr, "fuzz: cannot read %s\n", path.c_str());
        std::exit(2);
      }
      try_input(std::string(std::istreambuf_iterator<char>(in), {}), true);
      return;
    }
    std::vector<std::string> files;
    for (const fs::directory_entry& entry : fs::directory_iterator(path))
      files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    for (const std::string& file : files)
      take(file);
  }

  void mutated() {
    // What was found last leads on most often.
    const size_t recent = std::min<size_t>(inputs_.size(), 32);
    const size_t which =
        mutator_.below(2) == 0 ? inputs_.size() - 1 - mutator_.below(recent) : mutator_.below(inputs_.size());
    std::string bytes = inputs_[which].bytes;
    mutator_.mutate(bytes, inputs_[mutator_.below(inputs_.size())].bytes, inputs_[which].comparisons);
    if (mutator_.below(2) == 0)
      fuzz_mend(bytes);
    if (try_input(std::move(bytes), false) && !settings_.keep.empty())
      keep(inputs_.back().bytes);
  }

  /// True when the input was kept, as one that reached something new or `always`.
  bool try_input(std::string bytes, bool always) {
    // Bytes behind the end are poisoned: what reads past an input is seen.
    const std::vector<char> exact(bytes.begin(), bytes.end());
    const std::string_view input(exact.data(), exact.size());
    guard::enter(input);
    coverage::begin();
    fuzz_one(input);
    guard::leave();
    const bool fresh = coverage::learn();
    guard::check_leaks();
    ++runs_;
    if (!fresh && !always)
      return false;
    inputs_.push_back({std::move(bytes), coverage::comparisons()});
    return true;
  }

  void keep(const std::string& bytes) {
    char file[32];
    std::snprintf(file, sizeof file, "%016zx", std::hash<std::string>()(bytes));
    std::ofstream(settings_.keep + "/" + file, std::ios::binary) << bytes;
  }

  const Settings& settings_;
  std::string name_;
  Mutator mutator_;
  std::vector<Input> inputs_;
  unsigned long long runs_ = 0;
};

bool read_arguments(int argc, char** argv, Settings& settings) {
  for (int i = 1; i < argc; ++i) {
    const std::string argument = argv[i];
    if (argument.compare(0, 2, "--") != 0) {
      settings.corpus.push_back(argument);
      continue;
    }
    if (++i == argc)
      return false;
    char* end = argv[i];
    if (argument == "--seconds")
      settings.seconds = std::strtod(argv[i], &end);
    else if (argument == "--seed")
      settings.seed = std::strtoull(argv[i], &end, 10);
    else if (argument == "--limit")
      settings.limit = static_cast<unsigned>(std::strtoul(argv[i], &end, 10));
    else if (argument == "--findings")
      settings.findings = argv[i], end = argv[i] + std::strlen(argv[i]);
    else if (argument == "--keep")
      settings.keep = argv[i], end = argv[i] + std::strlen(argv[i]);
    else
      return false;
    if (end == argv[i] || *end != '\0')
      return false;
  }
  return !settings.corpus.empty();
}

} // namespace

int main(int argc, char** argv) {
  Settings settings;
  if (!read_arguments(argc, argv, settings)) {
    std::fputs(USAGE, stderr);
    return 2;
  }
  const std::string name = fs::path(argv[0]).filename().string();
  fs::create_directories(settings.findings);
  guard::start(settings.findings, name, settings.limit);
  return Fuzzer(settings, name).run();
}
