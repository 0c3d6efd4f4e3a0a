#pragma once

#include "agent/agent_log.h"
#include "agent/module_loader.h"
#include "agent/outcome.h"

/// Runs one job in the foreground: starts it, shows how it goes on standard error, hands on the signals INT and TERM
/// as a request to cancel (a second one ends the process at once), and returns its account.
class Job_Runner {
public:
  /// Neither is owned. With `show_progress` false nothing is written while the job runs.
  Job_Runner(Module& module, Agent_Log& log, bool show_progress);

  /// `activity_id`, when given, receives the id of the job's activity.
  Outcome run(const Job_Definition_var& definition, std::string* activity_id = nullptr);

  /// Blocks INT and TERM for the calling thread and all that it starts afterwards, so that `run` can take them. Call it
  /// once, before the first thread.
  static void block_signals();

private:
  Module& module_;
  Agent_Log& log_;
  bool show_progress_;
};
