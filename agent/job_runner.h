#pragma once

#include "agent/agent_log.h"
#include "agent/module_loader.h"
#include "agent/outcome.h"
#include "platform/s3/service_watch.h"

/// Runs one job in the foreground: starts it, shows how it goes on standard error, hands on the signals INT and TERM
/// as a request to cancel (a second one ends the process at once), and returns its account. They are blocked
/// (cancel_signals.h) since before the first thread.
class Job_Runner {
public:
  /// Neither is owned. With `show_progress` false nothing is written while the job runs.
  Job_Runner(Module& module, Agent_Log& log, bool show_progress);

  /// Of the jobs that follow: seconds after which a service that answers nothing at all ends them.
  void service_timeout(unsigned seconds) { service_timeout_ = seconds; }
  /// `activity_id`, when given, receives the id of the job's activity.
  Outcome run(const Job_Definition_var& definition, std::string* activity_id = nullptr);

private:
  Module& module_;
  Agent_Log& log_;
  bool show_progress_;
  unsigned service_timeout_ = Service_Watch::DEFAULT_LIMIT;
};
