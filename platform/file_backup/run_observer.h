#pragma once

#include "sdk/job/job.h"
#include "sdk/mtf/event_handler.h"

#include <mutex>

/// What the event handlers of a backup and of a restore share: the activity's figures, the list of item errors, and the
/// account that is published at the end. Any thread.
class Run_Observer {
public:
  static constexpr size_t MAX_ERRORS = 1000;

  Run_Observer(Job_Activity& activity, Job_Event_Handler& handler, Job& job)
      : activity_(activity), handler_(handler), job_(job) {}

  /// Takes an event; `skipped` is what the engine counted as skipped so far.
  void event(unsigned code, const json_spirit::Object& options, unsigned long long skipped);
  int progress(int code, unsigned long long objects, unsigned long long size, unsigned long long set_size,
               unsigned long long skipped);
  bool canceling() const { return activity_.state == JOB_STATE_CANCELING; }
  bool pausing() const { return activity_.state == JOB_STATE_PAUSING; }

private:
  void item_error(const json_spirit::Object& options);
  void outcome(const json_spirit::Object& figures);
  void count_problems(unsigned long long skipped);

  Job_Activity& activity_;
  Job_Event_Handler& handler_;
  Job& job_;
  std::mutex mutex_; ///< guards what follows
  unsigned long long errors_seen_ = 0;
  json_spirit::Array errors_;
};
