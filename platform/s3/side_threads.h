#pragma once

#include "platform/http/cancellation.h"

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace s3 {

/// Threads that do parts of the work of the thread that makes this, for that one's job, until they are told to stop.
/// What they work on is guarded by the owner's lock, and they wait for more at the owner's condition; both outlive
/// this.
///
/// `start`, `count` and `stop` are for the owner's one thread; the others are for any.
class Side_Threads {
public:
  /// `name`: of the threads, at most 15 characters.
  Side_Threads(const char* name, std::mutex& mutex, std::condition_variable& wake)
      : name_(name), mutex_(mutex), wake_(wake) {}
  ~Side_Threads() { stop(); }
  Side_Threads(const Side_Threads&) = delete;
  Side_Threads& operator=(const Side_Threads&) = delete;

  /// One more, which runs `body` once. False when the system has no more.
  bool start(std::function<void()> body);
  size_t count() const { return threads_.size(); }

  /// Whether they shall stop. Every wait of theirs is to end then; transfers can be told by this flag.
  const std::atomic<bool>& stopping() const { return stopping_; }
  /// Tells them to stop and wakes them. Under the owner's lock.
  void tell_to_stop();
  /// The same without that lock, and waits until they have ended. Idempotent.
  void stop();
  /// A wait of theirs for so long, by the clock in force, that ends when they shall stop or the job is being cancelled.
  void pause(unsigned seconds);

private:
  const char* const name_;
  std::mutex& mutex_;
  std::condition_variable& wake_;
  const Callers_Job job_;
  std::vector<std::thread> threads_;
  std::atomic<bool> stopping_{false};
};

} // namespace s3
