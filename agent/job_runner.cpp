#include "agent/job_runner.h"

#include "agent/progress.h"
#include "sdk/job/job.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

namespace {

sigset_t cancel_signals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  return set;
}

/// True when one of the signals is pending; takes it.
bool take_signal() {
  const sigset_t set = cancel_signals();
  const timespec now = {0, 0};
  return sigtimedwait(&set, nullptr, &now) > 0;
}

/// The one line that says why a job failed: what the job reported, else the first thing it logged.
std::string failure_text(Job& job, const Agent_Log& log) {
  const Error error = job.last_error();
  if (error.id.value() != 0)
    return error_text(error);
  const json_spirit::Object results = job.results();
  const std::string reported = json_spirit::optional_str(results, "failure");
  if (!reported.empty())
    return reported;
  for (const Job_Alert& alert : job.alerts())
    if (alert.error.id.level() == LV_ERROR)
      return error_text(alert.error);
  const std::string logged = log.first_error();
  return logged.empty() ? "the job ended without saying why" : logged;
}

Exit_Code exit_code(Job_State state, const Agent_Log& log) {
  switch (state) {
  case JOB_STATE_COMPLETED:
    // Whatever was logged as an error makes the run one that an operator should look at.
    return log.errors() > 0 ? EXIT_COMPLETED_WITH_ERRORS : EXIT_COMPLETED;
  case JOB_STATE_COMPLETED_WITH_ERRORS:
    return EXIT_COMPLETED_WITH_ERRORS;
  case JOB_STATE_SKIPPED:
  case JOB_STATE_IDLE:
    return EXIT_COMPLETED;
  case JOB_STATE_CANCELING:
  case JOB_STATE_CANCELED:
    return EXIT_CANCELLED;
  default:
    return EXIT_FAILED;
  }
}

} // namespace

Job_Runner::Job_Runner(Module& module, Agent_Log& log, bool show_progress)
    : module_(module), log_(log), show_progress_(show_progress) {}

void Job_Runner::block_signals() {
  const sigset_t set = cancel_signals();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

Outcome Job_Runner::run(const Job_Definition_var& definition, std::string* activity_id) {
  Outcome outcome;
  Job_var job = module_.job_creator().create(definition);
  if (job.get() == nullptr) {
    outcome.failure = "the module makes no job of this type";
    return outcome;
  }
  log_.clear_errors();
  if (job->start(nullptr) != 0) {
    outcome.failure = "the job cannot be started";
    return outcome;
  }
  if (activity_id)
    *activity_id = job->activity().id;

  Progress progress(show_progress_);
  bool asked_to_stop = false;
  const ACE_Time_Value interval(0, 200000);
  while (!job->wait(&interval)) {
    if (take_signal()) {
      if (asked_to_stop)
        _exit(EXIT_CANCELLED);
      asked_to_stop = true;
      job->stop(nullptr);
    }
    progress.show(job->activity());
  }
  progress.finish();

  const json_spirit::Object results = job->results();
  const json_spirit::Value* figures = json_spirit::find(results, "outcome");
  if (figures != nullptr && figures->type() == json_spirit::obj_type)
    outcome.figures = figures->get_obj();
  outcome.code = exit_code(job->activity().state, log_);
  // An account with something missing is never a clean one.
  if (outcome.code == EXIT_COMPLETED && outcome.figure("skipped") + outcome.figure("failed") > 0)
    outcome.code = EXIT_COMPLETED_WITH_ERRORS;
  if (outcome.code == EXIT_FAILED)
    outcome.failure = failure_text(*job, log_);
  return outcome;
}
