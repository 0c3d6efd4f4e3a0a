#pragma once

#include "sdk/error/error.h"
#include "sdk/job/job_definition.h"

#include <ace/Event_Handler.h>
#include <ace/Intrusive_Auto_Ptr.h>
#include <ace/Log_Msg_Callback.h>

#include <memory>

class S3_Ledger;

/// An alert that a job raised.
struct Job_Alert {
  Error error;
  int count = 1;
};

/// One run of a job definition. A resource derives its jobs from it; the host holds it by Job_var and asks for work
/// with `start`, `stop` and so on, each of which calls the operation of the same name with `_i`.
///
/// Control requests may come from any thread. The work runs on a thread that the derived class starts in `start_i`
/// and that ends with `complete()`.
class Job : public ACE_Event_Handler {
public:
  explicit Job(Job_Definition_var definition);
  ~Job() override;

  // For the host.
  int start(const Job_Run_Options* opts); ///< -1 when the job runs already or cannot be started
  int stop(const Job_Run_Options* opts);  ///< asks a running job to cancel; 0, or -1 when it cannot
  // These answer 0, or -1 when the job refuses. `opts` may be null and is not kept.
  int pause(const Job_Run_Options* opts); ///< nothing new is begun until `resume`
  int resume(const Job_Run_Options* opts);
  int abort(const Job_Run_Options* opts);             ///< as `stop`, and cancels the thread of the job
  int remove(bool flag, const Job_Run_Options* opts); ///< the definition goes; `flag` has no effect here
  int update(Job_Definition_var definition);          ///< takes the place of the definition, where the state allows it
  int rollback();
  /// Blocks until a started job has called `complete()`, at most `timeout` when one is given. False on time-out.
  bool wait(const ACE_Time_Value* timeout = nullptr);
  bool completed() const;
  Error last_error() const; ///< id 0 when there is none
  std::vector<Job_Alert> alerts() const;
  json_spirit::Object results() const; ///< what the work published with `set_result`
  /// Where the job's log lines go; null: nowhere but the program's log. Before `start`.
  void log_sink(std::shared_ptr<ACE_Log_Msg_Callback> sink);

  // For the work.
  Job_Definition& definition() { return *definition_; } ///< the job's, as long as it lives
  const Job_Definition_var& definition_var() const { return definition_; }
  /// Where the run stands; the job's. Any thread.
  Job_Activity& activity() { return activity_; }
  /// Tells that the calling thread works for this job from now on, until it ends or works for another. Threads that
  /// it starts through the platform's engines work for the same job.
  void set_job_thread();
  /// The job that the calling thread works for, or null.
  static Job* current();
  /// Makes the calling thread work for `job` (null: for none). Returns the one before.
  static Job* current(Job* job);
  /// Changes the state from outside. 0, or -1 when the present state does not allow it: a job that is not running
  /// can be neither paused nor cancelled, an ended one changes no more.
  int state_i(Job_State state);
  /// Changes the state from the work itself; always 0.
  int state(Job_State state);
  /// Publishes the activity record to whoever observes the job. 0. Here the host looks at `activity()` itself.
  int sync(const Job_Run_Options* opts);
  /// Ends the job: wakes everyone in `wait`. The last thing that its thread does with it.
  void complete();
  /// Forwards to the job's log; never null.
  std::shared_ptr<ACE_Log_Msg_Callback> log_msg_callback();
  // What the host asks for by `results`, `last_error` and `alerts`. Any thread.
  void set_result(const std::string& name, const json_spirit::Value& value);
  void set_last_error(const Error& error);
  void add_alert(const Job_Alert& alert);

  /// What the S3 layer sees while it works for this job; never null.
  const std::shared_ptr<S3_Ledger>& ledger() const { return ledger_; }

  // For Job_var: a new job has one reference, the last one that goes deletes it. Null is allowed.
  static void intrusive_add_ref(Job* job);
  static void intrusive_remove_ref(Job* job);

  // What a resource overrides, in the order of the table of operations. The base answers 0 and does nothing but for
  // `start_i`, `stop_i` and `resume_i`, which it refuses with -1.
  int handle_exception(ACE_HANDLE handle) override;
  int handle_timeout(const ACE_Time_Value& now, const void* argument) override;
  virtual int setup_ondemand_by_job();
  virtual int start_i(const Job_Run_Options* opts);
  virtual int stop_i(const Job_Run_Options* opts);
  virtual int enable_i(const Job_Run_Options* opts);
  virtual int disable_i(const Job_Run_Options* opts);
  virtual int pause_i(const Job_Run_Options* opts);
  virtual int resume_i(const Job_Run_Options* opts);
  virtual int abort_i(const Job_Run_Options* opts);
  virtual int switch_i(const Job_Run_Options* opts);
  virtual int remove_i(bool flag, const Job_Run_Options* opts);
  virtual int update_i(Job_Definition_var definition);
  virtual int rollback_i();
  virtual bool can_update_i(Job_State state);
  virtual int setup_ondemand_i();
  virtual void* run_i(const Job_Run_Options* opts);
  virtual int abort_i();

private:
  struct Impl;
  Job_Definition_var definition_;
  Job_Activity activity_;
  std::shared_ptr<S3_Ledger> ledger_;
  std::unique_ptr<Impl> impl_;
};

typedef ACE_Intrusive_Auto_Ptr<Job> Job_var;

/// Reports a job's start and outcome to the host. One per executor; the job outlives it.
class Job_Event_Handler {
public:
  explicit Job_Event_Handler(Job& job);
  virtual ~Job_Event_Handler();

  virtual void handle_start_job(); ///< state RUNNING, start and last-run time now
  /// State COMPLETED, or COMPLETED_WITH_ERRORS when the job raised alerts or counted problems.
  virtual void handle_success();
  virtual void handle_paused();   ///< state PAUSED
  virtual void handle_canceled(); ///< state CANCELED
  /// State ERROR. `format` (printf's) may be null; else its text becomes the job's result "failure".
  virtual void handle_failure(int code, const char* format, ...);
  /// Progress of the work; always 0.
  virtual int handle_progress(int code, unsigned long long a, unsigned long long b, unsigned long long c);

private:
  Job& job_;
};

/// Makes the jobs of one resource type.
class Job_Creator {
public:
  virtual ~Job_Creator();
  virtual int init(int argc, char** argv); ///< 0
  virtual int fini();                      ///< 0
  /// A new job for `definition`, or null when the type is not the resource's or memory is short (`errno` ENOMEM).
  virtual Job_var create(Job_Definition_var definition) = 0;
};
