#pragma once

#include "sdk/mtf/filter.h"

#include <atomic>
#include <cstring>

namespace module_testing {

/// Leaves out what it is told to be a folder without a "/" at the end, or an object with one. Any thread.
class Slash_Filter : public MTF::IFilter {
public:
  bool is_included(const char* path, bool is_dir) const override {
    ++asked;
    const size_t length = std::strlen(path);
    return is_dir == (length > 0 && path[length - 1] == '/');
  }
  mutable std::atomic<unsigned> asked{0};
};

} // namespace module_testing
