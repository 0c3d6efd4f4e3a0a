#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>

namespace module_testing {

/// Waits, on a condition, for what other threads do. Any thread.
class Gate {
public:
  /// Changes what the waiting look at.
  void change(const std::function<void()>& change) {
    const std::lock_guard<std::mutex> guard(lock_);
    change();
    changed_.notify_all();
  }
  /// False when `condition` has not come true within a minute.
  bool wait(const std::function<bool()>& condition) {
    std::unique_lock<std::mutex> guard(lock_);
    return changed_.wait_for(guard, std::chrono::seconds(60), condition);
  }

private:
  std::mutex lock_;
  std::condition_variable changed_;
};

} // namespace module_testing
