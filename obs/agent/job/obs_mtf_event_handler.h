#pragma once

#include "sdk/mtf/event_handler.h"

class Job_Event_Handler;
struct Job_Activity;

/// Connects an engine to the job that it works for: progress goes to the job's event handler, and the engine learns
/// from the job's activity whether it shall stop. Owns neither; both outlive it. Called from all of the engine's
/// threads.
class OBS_MTF_Event_Handler : public MTF::Event_Handler {
public:
  /// `handler` may be null: progress is then dropped.
  OBS_MTF_Event_Handler(Job_Event_Handler* handler, Job_Activity& activity);
  ~OBS_MTF_Event_Handler() override;

  /// Forwards the code alone: the host takes its figures from the activity.
  int handle_progress(int code, unsigned long long a, unsigned long long b, unsigned long long c) override;
  /// True while the job is being cancelled; a job that pauses or aborts is not.
  bool canceling() override;

private:
  Job_Event_Handler* handler_;
  Job_Activity& act_;
};
