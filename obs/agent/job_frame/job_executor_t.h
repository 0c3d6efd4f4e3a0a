#pragma once

#include "sdk/base/check.h"
#include "sdk/base/clock.h"
#include "sdk/job/action_handler.h"
#include "sdk/job/job.h"

#include <exception>
#include <new>

/// Runs one job: its precondition, its pre-action, the work itself, its post-action, and the report of the outcome to
/// the host. A resource derives its executors from it and overrides the steps.
///
/// An executor is made on the stack for one request and destroyed after it; the job, which it only refers to, outlives
/// it. One thread at a time. Control requests from other threads change the job's state, which the work watches.
///
/// SOURCE and OPTIONS are the records that the resource's own parsers put into the definition; EVENT_HANDLER is made
/// over the job.
template <typename SOURCE, typename OPTIONS, typename EVENT_HANDLER>
class Job_Executor_T {
public:
  explicit Job_Executor_T(Job& job)
      : job_(job), def_(&job.definition()), tgt_(def_->target()), act_(&job.activity()), evt_handler_(job),
        src_(static_cast<SOURCE*>(def_->source.get())), opts_(static_cast<OPTIONS*>(def_->options.get())) {}
  Job_Executor_T(const Job_Executor_T&) = delete;
  Job_Executor_T& operator=(const Job_Executor_T&) = delete;
  virtual ~Job_Executor_T() = default;

  /// Runs the job and reports its outcome. `opts` may be null. True when the job succeeded or had nothing to do. A step
  /// that throws has failed, and its text becomes the job's result "failure" unless the job is being paused or
  /// cancelled.
  bool execute(const Job_Run_Options* opts);

  virtual bool remove() { return true; }
  virtual bool setup_ondemand() { return true; }
  virtual bool remove_ondemand() { return true; }
  virtual bool update(Job_Definition_var) { return true; }
  virtual bool rollback() { return true; }

protected:
  /// The work. True when it succeeded.
  virtual bool execute_i(const Job_Run_Options* opts) = 0;
  /// True when the work may begin.
  virtual bool execute_pre_action();
  /// False makes a job fail whose work has succeeded.
  virtual bool execute_post_action();
  /// False: there is nothing to do now; the job goes back to idle.
  virtual bool check_condition() { return true; }
  /// False: the job is skipped.
  virtual bool is_active(const Job_Run_Options*) { return true; }
  /// Judges the definition's protection password, when it has one: 0, or the code of the refusal.
  virtual int check_password() { return 0; }

  bool execute_precondition() { return execute_script(def_->precondition(), false, nullptr); }

  Job& job_;
  Job_Definition* def_;
  const Job_Target& tgt_;
  Job_Activity* act_;
  EVENT_HANDLER evt_handler_;
  SOURCE* src_;   ///< null when the definition has none
  OPTIONS* opts_; ///< null when the definition has none

private:
  bool execute_all(const Job_Run_Options* opts);
  bool run_steps(const Job_Run_Options* opts);
  bool report_failure();
  template <typename STEP>
  bool attempt(STEP step);
  void ended_by(const char* exception);
};

/// Runs a step of the job. An exception is a step that failed.
template <typename SOURCE, typename OPTIONS, typename EVENT_HANDLER>
template <typename STEP>
bool Job_Executor_T<SOURCE, OPTIONS, EVENT_HANDLER>::attempt(STEP step) {
  try {
    return step();
  } catch (const std::exception& error) {
    ended_by(error.what());
  } catch (...) {
    ended_by("unknown exception");
  }
  return false;
}

template <typename SOURCE, typename OPTIONS, typename EVENT_HANDLER>
void Job_Executor_T<SOURCE, OPTIONS, EVENT_HANDLER>::ended_by(const char* exception) {
  ACE_ERROR((LM_ERROR, ACE_TEXT("Job '%C' ended by an exception: %C.\n"), def_->name().c_str(), exception));
  // A job that was to end anyway does so as it was told.
  if (act_->state == JOB_STATE_PAUSING || act_->state == JOB_STATE_CANCELING)
    return;
  try {
    job_.set_result("failure", exception);
  } catch (const std::bad_alloc&) {
    // The line above has it.
  }
}

template <typename SOURCE, typename OPTIONS, typename EVENT_HANDLER>
bool Job_Executor_T<SOURCE, OPTIONS, EVENT_HANDLER>::execute(const Job_Run_Options* opts) {
  CHECK_NULL_RETURN(src_, false);

  bool answered = false;
  bool result = false;
  attempt([&] {
    result = execute_all(opts);
    return answered = true;
  });
  return answered ? result : report_failure();
}

template <typename SOURCE, typename OPTIONS, typename EVENT_HANDLER>
bool Job_Executor_T<SOURCE, OPTIONS, EVENT_HANDLER>::execute_all(const Job_Run_Options* opts) {
  if (!def_->backup_protection_password().empty()) {
    const int code = check_password();
    if (code != 0) {
      evt_handler_.handle_failure(code, nullptr);
      return false;
    }
  }
  if (!is_active(opts)) {
    act_->last_run_time = Clock::instance().now();
    act_->state = JOB_STATE_SKIPPED;
    return true;
  }
  if (!execute_precondition() || !check_condition()) {
    const time_t now = Clock::instance().now();
    act_->start_time = now;
    act_->last_run_time = now;
    act_->state = JOB_STATE_IDLE;
    job_.sync(nullptr);
    return true;
  }
  return run_steps(opts);
}

template <typename SOURCE, typename OPTIONS, typename EVENT_HANDLER>
bool Job_Executor_T<SOURCE, OPTIONS, EVENT_HANDLER>::run_steps(const Job_Run_Options* opts) {
  evt_handler_.handle_start_job();

  const bool pre = attempt([this] { return execute_pre_action(); });
  const bool done = pre ? attempt([this, opts] { return execute_i(opts); }) : false;
  bool post = true;
  if (done || def_->run_post_action_always())
    post = attempt([this] { return execute_post_action(); });

  if (pre && done && post) {
    evt_handler_.handle_success();
    return true;
  }
  return report_failure();
}

template <typename SOURCE, typename OPTIONS, typename EVENT_HANDLER>
bool Job_Executor_T<SOURCE, OPTIONS, EVENT_HANDLER>::report_failure() {
  switch (act_->state.load()) {
  case JOB_STATE_PAUSING:
    evt_handler_.handle_paused();
    break;
  case JOB_STATE_CANCELING:
    evt_handler_.handle_canceled();
    break;
  default:
    evt_handler_.handle_failure(-1, nullptr);
  }
  return false;
}

template <typename SOURCE, typename OPTIONS, typename EVENT_HANDLER>
bool Job_Executor_T<SOURCE, OPTIONS, EVENT_HANDLER>::execute_pre_action() {
  const bool passed =
      execute_script(def_->pre_action(), false, job_.log_msg_callback()) || def_->ignore_pre_action_failure();
  return passed && act_->state == JOB_STATE_RUNNING;
}

template <typename SOURCE, typename OPTIONS, typename EVENT_HANDLER>
bool Job_Executor_T<SOURCE, OPTIONS, EVENT_HANDLER>::execute_post_action() {
  if (def_->post_action().empty())
    return true;
  if (act_->state != JOB_STATE_COMPLETING)
    job_.state(JOB_STATE_COMPLETING);
  return execute_script(def_->post_action(), false, job_.log_msg_callback()) || def_->ignore_post_action_failure();
}
