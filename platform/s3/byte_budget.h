#pragma once

#include <algorithm>
#include <cstddef>
#include <mutex>

/// Bytes of memory that several users share. Nobody waits for it: who gets none does with what it has. Any thread.
class Byte_Budget {
public:
  explicit Byte_Budget(size_t limit) : limit_(limit) {}

  bool take(size_t bytes) {
    const std::lock_guard<std::mutex> guard(mutex_);
    if (bytes > limit_ - used_)
      return false;
    used_ += bytes;
    peak_ = std::max(peak_, used_);
    return true;
  }
  void give_back(size_t bytes) {
    const std::lock_guard<std::mutex> guard(mutex_);
    used_ -= bytes;
  }
  size_t used() const {
    const std::lock_guard<std::mutex> guard(mutex_);
    return used_;
  }
  size_t peak() const { ///< the most that was taken at one time
    const std::lock_guard<std::mutex> guard(mutex_);
    return peak_;
  }

private:
  const size_t limit_;
  mutable std::mutex mutex_; ///< guards what follows
  size_t used_ = 0;
  size_t peak_ = 0;
};
