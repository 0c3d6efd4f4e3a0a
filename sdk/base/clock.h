#pragma once

#include <ace/Time_Value.h>

#include <ctime>

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

  /// The clock in force; the machine's own unless a test has put another in place. Never fails.
  static Clock& instance();
  /// Puts `clock` in place (null: the machine's own again) and returns the one that was in place before, or null for
  /// the machine's own. The caller keeps ownership and keeps it alive while it is in place.
  static Clock* instance(Clock* clock);
};
