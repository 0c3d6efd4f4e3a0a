#pragma once

#include "sdk/base/clock.h"

#include <functional>
#include <mutex>
#include <vector>

namespace module_testing {

/// The clock of a test: stands still but for `sleep`, `wait` and `advance`, and keeps what was slept. In place while it
/// lives. All operations may be called from any thread.
class Fake_Clock : public Clock {
public:
  explicit Fake_Clock(time_t now = 1700000000) : now_(now), previous_(Clock::instance(this)) {}
  ~Fake_Clock() override { Clock::instance(previous_); }

  time_t now() override {
    const std::lock_guard<std::mutex> guard(lock_);
    return now_;
  }
  ACE_Time_Value monotonic() override {
    const std::lock_guard<std::mutex> guard(lock_);
    return ACE_Time_Value(now_) + waited_;
  }
  /// Returns at once, `seconds` later by this clock, after `on_sleep`.
  void sleep(unsigned seconds) override {
    std::function<void(unsigned)> hook;
    {
      const std::lock_guard<std::mutex> guard(lock_);
      now_ += seconds;
      sleeps_.push_back(seconds);
      hook = on_sleep_;
    }
    if (hook)
      hook(seconds);
  }
  /// Returns at once, so much later by its monotonic time.
  void wait(std::unique_lock<std::mutex>&, std::condition_variable&, const ACE_Time_Value& time) override {
    const std::lock_guard<std::mutex> guard(lock_);
    waited_ += time;
  }

  void advance(time_t seconds) {
    const std::lock_guard<std::mutex> guard(lock_);
    now_ += seconds;
  }
  /// Every sleep so far, in seconds.
  std::vector<unsigned> sleeps() const {
    const std::lock_guard<std::mutex> guard(lock_);
    return sleeps_;
  }
  /// Called during each sleep, without the clock's lock.
  void on_sleep(std::function<void(unsigned)> hook) {
    const std::lock_guard<std::mutex> guard(lock_);
    on_sleep_ = std::move(hook);
  }

private:
  mutable std::mutex lock_;
  time_t now_;
  ACE_Time_Value waited_;
  std::vector<unsigned> sleeps_;
  std::function<void(unsigned)> on_sleep_;
  Clock* previous_;
};

} // namespace module_testing
