#pragma once

#include "fuzz/driver/coverage.h"

#include <cstdint>
#include <random>
#include <string>
#include <vector>

/// Changes inputs. The same seed and the same calls make the same changes. One thread.
class Mutator {
public:
  Mutator(uint64_t seed, const std::vector<std::string>& words, size_t max_size)
      : random_(seed), words_(words), max_size_(max_size) {}

  /// Makes one or several changes. `other` is another input to take pieces from, `comparisons` those of a run of
  /// `input` as it was.
  void mutate(std::string& input, const std::string& other, const std::vector<coverage::Comparison>& comparisons);
  /// A number below `bound`, which is not 0.
  size_t below(size_t bound) { return std::uniform_int_distribution<size_t>(0, bound - 1)(random_); }

private:
  void change(std::string& input, const std::string& other, const std::vector<coverage::Comparison>& comparisons);
  void number(std::string& input);
  void satisfy(std::string& input, const coverage::Comparison& comparison);
  void put(std::string& input, const std::string& piece);
  /// A length that is mostly small.
  size_t length(size_t bound);

  std::mt19937_64 random_;
  const std::vector<std::string>& words_;
  size_t max_size_;
};
