#pragma once

#include "sdk/job/job_types.h"

#include <chrono>

/// Shows how a job goes on standard error: one line that is written over on a terminal, else a line every 10 seconds.
class Progress {
public:
  explicit Progress(bool enabled);
  void show(const Job_Activity& activity);
  /// Takes the line off a terminal.
  void finish();

private:
  typedef std::chrono::steady_clock Steady;
  bool enabled_;
  bool terminal_;
  bool line_open_ = false;
  Steady::time_point started_;
  Steady::time_point last_shown_;
};
