#include "agent/job_runner.h"

#include "agent/cancel_signals.h"
#include "agent/progress.h"
#include "agent/run_errors.h"
#include "platform/s3/ledger.h"
#include "sdk/job/job.h"

#include <unistd.h>

namespace {

constexpr unsigned LOOKS_PER_PROGRESS = 10; // five times a second

/// The one line that says why a job failed: what the job reported, else the first thing it logged.
std::string failure_text(Job& job, const Agent_Log& log) {
  const Error error = job.last_error();
  if (error.id.value() != 0)
    return error_text(error);
  const json_spirit::Object results = job.results();
  std::string reported = json_spirit::optional_str(results, "failure");
  if (reported.empty()) {
    const json_spirit::Value* const account = json_spirit::find(results, "outcome");
    if (account != nullptr && account->type() == json_spirit::obj_type)
      reported = json_spirit::optional_str(account->get_obj(), "failure");
  }
  if (!reported.empty())
    return reported;
  for (const Job_Alert& alert : job.alerts())
    if (alert.error.id.level() == LV_ERROR)
      return error_text(alert.error);
  const std::string logged = log.first_error();
  return logged.empty() ? "the job ended without saying why" : logged;
}

/// What a run that went through has to say beyond its account: error lines that the account does not explain, and for
/// one that ended with errors at least a reason.
void add_reasons(Job& job, const std::string& name, const Agent_Log& log, Outcome& outcome) {
  std::vector<std::string> lines = log.errors();
  if (name_uncovered_errors(outcome.figures, name, lines) != 0)
    outcome.code = EXIT_COMPLETED_WITH_ERRORS;
  if (outcome.code != EXIT_COMPLETED_WITH_ERRORS)
    return;
  const json_spirit::Value* const errors = json_spirit::find(outcome.figures, "errors");
  if (errors != nullptr && errors->type() == json_spirit::array_type && !errors->get_array().empty())
    return;
  lines.clear();
  for (const Job_Alert& alert : job.alerts())
    lines.push_back(error_text(alert.error));
  if (lines.empty())
    lines.push_back("The run counted problems that it did not name.");
  name_uncovered_errors(outcome.figures, name, lines);
}

Exit_Code exit_code(Job_State state) {
  switch (state) {
  case JOB_STATE_COMPLETED:
    return EXIT_COMPLETED;
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

Outcome Job_Runner::run(const Job_Definition_var& definition, std::string* activity_id) {
  Outcome outcome;
  Job_var job = module_.job_creator().create(definition);
  if (job.get() == nullptr) {
    outcome.failure = "the module makes no job of this type";
    return outcome;
  }
  job->ledger()->service.limit(service_timeout_);
  log_.clear_errors();
  if (job->start(nullptr) != 0) {
    outcome.failure = "the job cannot be started";
    return outcome;
  }
  if (activity_id)
    *activity_id = job->activity().id;

  Progress progress(show_progress_);
  bool asked_to_stop = false;
  // Often, so that a run that ends soon after a signal has still heard of it.
  const ACE_Time_Value interval(0, 20000);
  for (unsigned looks = 1; !job->wait(&interval); ++looks) {
    if (cancel_signals::take()) {
      if (asked_to_stop)
        _exit(EXIT_CANCELLED);
      // A run that is just being completed cannot be stopped any more, and ends as what it is.
      asked_to_stop = job->stop(nullptr) == 0;
    }
    if (looks % LOOKS_PER_PROGRESS == 0)
      progress.show(job->activity());
  }
  progress.finish();

  const json_spirit::Object results = job->results();
  const json_spirit::Value* figures = json_spirit::find(results, "outcome");
  if (figures != nullptr && figures->type() == json_spirit::obj_type)
    outcome.figures = figures->get_obj();
  outcome.code = exit_code(job->activity().state);
  // An account with something missing is never a clean one.
  if (outcome.code == EXIT_COMPLETED && outcome.figure("skipped") + outcome.figure("failed") > 0)
    outcome.code = EXIT_COMPLETED_WITH_ERRORS;
  const Job_State state = job->activity().state;
  if (state == JOB_STATE_COMPLETED || state == JOB_STATE_COMPLETED_WITH_ERRORS)
    add_reasons(*job, definition->name().empty() ? definition->id() : definition->name(), log_, outcome);
  if (outcome.code == EXIT_FAILED)
    outcome.failure = failure_text(*job, log_);
  return outcome;
}
