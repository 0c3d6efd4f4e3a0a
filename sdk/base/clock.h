#pragma once

#include <ace/Time_Value.h>

#include <condition_variable>
#include <ctime>
#include <mutex>

/// Time as the whole system sees it. Everything that waits or reads a clock does it through the one instance, so a
/// test can put its own in place and no test has to wait.
///
/// All operations may be called from any thread.
class Clock {
public:
  virtual ~Clock();

  /// Wall-clock time in seconds since the epoch.
  virtual time_t now() = 0;
  /// Time since an arbitrary start that never goes back.
  virtual ACE_Time_Value monotonic() = 0;
  /// Blocks the calling thread for `seconds`. Returns early when the job that the calling thread works for is being
  /// cancelled (see Job::set_job_thread).
  virtual void sleep(unsigned seconds) = 0;
  /// A sleep that also ends when `changed` is notified, and now and then for no reason. `lock` is held by the caller
  /// and released meanwhile. The machine's time passes unless a clock of a test lets its own pass.
  virtual void wait(std::unique_lock<std::mutex>& lock, std::condition_variable& changed, const ACE_Time_Value& time);

  /// The clock in force; the machine's own unless a test has put another in place. Never fails.
  static Clock& instance();
  /// Puts `clock` in place (null: the machine's own again) and returns the one that was in place before, or null for
  /// the machine's own. The caller keeps ownership and keeps it alive while it is in place.
  static Clock* instance(Clock* clock);
};
