#pragma once

#include "obs/agent/job_frame/thread_helper.h"
#include "sdk/base/check.h"
#include "sdk/job/job.h"

#include <ace/Thread_Manager.h>

#include <atomic>
#include <cerrno>
#include <exception>
#include <memory>
#include <new>

/// A job whose work is done by an EXECUTOR, made over the job on the stack for each request.
///
/// A start spawns one detached thread, which runs the executor and ends with `Job::complete`. The job can be started,
/// aborted, updated, removed and rolled back; it refuses to stop and to resume. A request that cannot be done for want
/// of memory answers -1 with `errno` ENOMEM; nothing is thrown.
template <typename EXECUTOR>
class Default_Job_T : public Job {
public:
  explicit Default_Job_T(Job_Definition_var definition) : Job(definition) {}

  int handle_exception(ACE_HANDLE) override { return 0; }
  int start_i(const Job_Run_Options* opts) override;
  int stop_i(const Job_Run_Options*) override { return -1; }
  int resume_i(const Job_Run_Options*) override { return -1; }
  int abort_i(const Job_Run_Options* opts) override;
  int remove_i(bool flag, const Job_Run_Options* opts) override;
  int update_i(Job_Definition_var definition) override;
  int rollback_i() override;
  int setup_ondemand_i() override;
  void* run_i(const Job_Run_Options* opts) override;
  using Job::abort_i;

  /// Thread id of the run thread; 0 until one was spawned.
  ACE_thread_t thr_id() const { return std::atomic_ref<ACE_thread_t>(thr_id_).load(); }

private:
  /// What the starting thread hands over to the run thread.
  struct Run_Options {
    Default_Job_T* job = nullptr;
    Job_Run_Options opts; ///< empty when the request had none
  };

  static constexpr long THREAD_FLAGS = THR_NEW_LWP | THR_DETACHED | THR_INHERIT_SCHED;

  static ACE_THR_FUNC_RETURN run(void* argument);
  void* run_rollback();
  void report_no_executor();
  /// What `request` answers; -1, after a line, when it throws, with `errno` ENOMEM where memory is short.
  template <typename REQUEST>
  int answer_host(REQUEST request);

  // Written by the spawn itself, before the new thread begins: the thread finds its own id here, and a control request
  // that the work has called for finds the thread. Read from any thread.
  mutable ACE_thread_t thr_id_ = 0;
};

/// The same, but it can also be paused, resumed, stopped and switched: each such request marks the job's state, which
/// the work watches.
template <typename EXECUTOR>
class Controllable_Job_T : public Default_Job_T<EXECUTOR> {
public:
  explicit Controllable_Job_T(Job_Definition_var definition) : Default_Job_T<EXECUTOR>(definition) {}

  int stop_i(const Job_Run_Options*) override { return this->state_i(JOB_STATE_CANCELING); }
  int pause_i(const Job_Run_Options*) override { return this->state_i(JOB_STATE_PAUSING); }
  int resume_i(const Job_Run_Options*) override { return this->state_i(JOB_STATE_RUNNING); }
  int switch_i(const Job_Run_Options*) override { return this->state_i(JOB_STATE_SWITCHING); }
  using Default_Job_T<EXECUTOR>::abort_i;
  int abort_i() override { return this->state_i(JOB_STATE_ABORTING); }
};

template <typename EXECUTOR>
int Default_Job_T<EXECUTOR>::start_i(const Job_Run_Options* opts) {
  std::unique_ptr<Run_Options> opt;
  try {
    opt.reset(new Run_Options);
    opt->job = this;
    if (opts)
      opt->opts = *opts;
  } catch (const std::bad_alloc&) {
    opt.reset();
  }
  if (!opt) {
    LOG_UNEXPECTED_NULL("opt");
    errno = ENOMEM;
    return -1;
  }

  const int spawned = ACE_Thread_Manager::instance()->spawn(&Default_Job_T::run, opt.get(), THREAD_FLAGS, &thr_id_,
                                                            nullptr, ACE_DEFAULT_THREAD_PRIORITY, -1);
  if (spawned == -1) {
    std::atomic_ref<ACE_thread_t>(thr_id_).store(0);
    return -1;
  }
  opt.release();
  return 0;
}

template <typename EXECUTOR>
ACE_THR_FUNC_RETURN Default_Job_T<EXECUTOR>::run(void* argument) {
  const std::unique_ptr<Run_Options> opt(static_cast<Run_Options*>(argument));
  return opt->job->run_i(opt->opts.empty() ? nullptr : &opt->opts);
}

template <typename EXECUTOR>
void* Default_Job_T<EXECUTOR>::run_i(const Job_Run_Options* opts) {
  this->set_job_thread();
  uuid_string_to_binary(this->definition().uid(), this->activity().uid);
  // The host waits for `complete`, whatever becomes of the work.
  const int answer = answer_host([this, opts] {
    EXECUTOR(*this).execute(opts);
    return 0;
  });
  // An executor that could not be made has no handler of its own; once made, it reports its end itself.
  if (answer == -1)
    answer_host([this] {
      report_no_executor();
      return 0;
    });
  this->complete();
  return nullptr;
}

template <typename EXECUTOR>
void Default_Job_T<EXECUTOR>::report_no_executor() {
  Job_Event_Handler handler(*this);
  switch (this->activity().state.load()) {
  case JOB_STATE_PAUSING:
    handler.handle_paused();
    break;
  case JOB_STATE_CANCELING:
    handler.handle_canceled();
    break;
  default:
    handler.handle_failure(-1, nullptr);
  }
}

template <typename EXECUTOR>
template <typename REQUEST>
int Default_Job_T<EXECUTOR>::answer_host(REQUEST request) {
  try {
    return request();
  } catch (const std::bad_alloc&) {
    ACE_ERROR((LM_ERROR, ACE_TEXT("Job '%C' is out of memory.\n"), this->definition().name().c_str()));
    errno = ENOMEM;
  } catch (const std::exception& error) {
    ACE_ERROR((LM_ERROR, ACE_TEXT("Request to job '%C' ended by an exception: %C.\n"),
               this->definition().name().c_str(), error.what()));
  } catch (...) {
    ACE_ERROR((LM_ERROR, ACE_TEXT("Request to job '%C' ended by an unknown exception.\n"),
               this->definition().name().c_str()));
  }
  return -1;
}

template <typename EXECUTOR>
int Default_Job_T<EXECUTOR>::abort_i(const Job_Run_Options*) {
  const int result = this->state_i(JOB_STATE_CANCELING);
  ACE_Thread_Manager::instance()->cancel(thr_id());
  return result;
}

template <typename EXECUTOR>
int Default_Job_T<EXECUTOR>::remove_i(bool, const Job_Run_Options*) {
  return answer_host([this] {
    for (const std::shared_ptr<Job_Schedule>& schedule : this->definition().schedules)
      if (schedule && schedule->type() == JOB_DEFINITION_SUBTYPE_ONDEMAND)
        EXECUTOR(*this).remove_ondemand();
    EXECUTOR(*this).remove();
    return 0;
  });
}

template <typename EXECUTOR>
int Default_Job_T<EXECUTOR>::update_i(Job_Definition_var definition) {
  return answer_host([this, &definition] {
    EXECUTOR(*this).update(definition);
    return 0;
  });
}

template <typename EXECUTOR>
int Default_Job_T<EXECUTOR>::setup_ondemand_i() {
  return answer_host([this] { return EXECUTOR(*this).setup_ondemand() ? 0 : -1; });
}

template <typename EXECUTOR>
int Default_Job_T<EXECUTOR>::rollback_i() {
  Thread_Helper helper(THREAD_FLAGS, ACE_DEFAULT_THREAD_PRIORITY);
  // The thread is not waited for: it keeps the job by itself.
  Job::intrusive_add_ref(this);
  if (helper.spawn(&Default_Job_T::run_rollback, this) == -1) {
    Job::intrusive_remove_ref(this);
    return -1;
  }
  return 0;
}

template <typename EXECUTOR>
void* Default_Job_T<EXECUTOR>::run_rollback() {
  const Job_var self(this, false);
  EXECUTOR(*this).rollback();
  return nullptr;
}
