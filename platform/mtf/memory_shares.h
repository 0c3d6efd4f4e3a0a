#pragma once

#include <algorithm>
#include <condition_variable>
#include <cstddef>
#include <mutex>

/// Memory that several threads share by the size of what they hold. Who asks first is served first, so that a large
/// share is not put off for ever by small ones. Any thread; who holds a share must not wait for a second one.
class Memory_Shares {
public:
  /// Before the first thread comes.
  void open(size_t bytes) { bytes_ = std::max<size_t>(bytes, 1); }
  /// The most that one share can be.
  size_t bytes() const { return bytes_; }
  /// Whether somebody waits for a share.
  bool has_waiting() const {
    const std::lock_guard<std::mutex> guard(mutex_);
    return waiting_ != 0;
  }

  /// A share; given back when it ends.
  class Share {
  public:
    /// Waits until there is room for `bytes`, at most all of it.
    Share(Memory_Shares& shares, size_t bytes) : shares_(shares), bytes_(shares.take(bytes)) {}
    ~Share() { shares_.give_back(bytes_); }
    Share(const Share&) = delete;
    Share& operator=(const Share&) = delete;

  private:
    Memory_Shares& shares_;
    const size_t bytes_;
  };

private:
  size_t take(size_t bytes) {
    bytes = std::min(bytes, bytes_);
    std::unique_lock<std::mutex> lock(mutex_);
    const unsigned long long number = last_++;
    ++waiting_;
    changed_.wait(lock, [&] { return number == first_ && bytes <= bytes_ - used_; });
    --waiting_;
    ++first_;
    used_ += bytes;
    if (waiting_ != 0)
      changed_.notify_all();
    return bytes;
  }

  void give_back(size_t bytes) {
    const std::lock_guard<std::mutex> guard(mutex_);
    used_ -= bytes;
    if (waiting_ != 0)
      changed_.notify_all();
  }

  size_t bytes_ = 1;
  mutable std::mutex mutex_; ///< guards what follows
  std::condition_variable changed_;
  size_t used_ = 0;
  unsigned long long first_ = 0; ///< the number that is served next
  unsigned long long last_ = 0;  ///< the next one to be drawn
  unsigned waiting_ = 0;
};
