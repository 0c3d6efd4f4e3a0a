#pragma once

#include "platform/mtf/source_watch.h"
#include "sdk/mtf/filter.h"

#include <atomic>

/// Passes on what a filter says and counts the objects that it leaves out. What lies below a folder that is left out is
/// never listed, so it needs no counting. Any thread; the filter outlives it.
class Counting_Filter : public MTF::IFilter {
public:
  /// What is left out is there: `watch` hears of it, and outlives the filter.
  Counting_Filter(const MTF::IFilter& filter, Source_Watch& watch) : filter_(filter), watch_(watch) {}

  bool is_included(const char* path, bool is_dir) const override {
    const bool included = filter_.is_included(path, is_dir);
    if (included)
      return true;
    if (!is_dir)
      excluded_.fetch_add(1, std::memory_order_relaxed);
    else
      folders_.store(true, std::memory_order_relaxed);
    watch_.saw(path + (*path == '/'));
    return false;
  }
  unsigned long long excluded_objects() const { return excluded_; }
  /// Whether an object, or a whole folder, was left out.
  bool excluded_anything() const { return excluded_ != 0 || folders_; }

private:
  const MTF::IFilter& filter_;
  Source_Watch& watch_;
  mutable std::atomic<unsigned long long> excluded_{0};
  mutable std::atomic<bool> folders_{false};
};
