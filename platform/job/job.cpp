#include "sdk/job/job.h"

#include "platform/job/current_job.h"
#include "platform/job/job_log.h"
#include "platform/s3/ledger.h"
#include "sdk/base/check.h"
#include "sdk/base/clock.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <set>

namespace {

bool is_running(Job_State state) {
  switch (state) {
  case JOB_STATE_STARTING:
  case JOB_STATE_RUNNING:
  case JOB_STATE_PAUSING:
  case JOB_STATE_PAUSED:
  case JOB_STATE_COMPLETING:
  case JOB_STATE_CANCELING:
  case JOB_STATE_ABORTING:
  case JOB_STATE_SWITCHING:
  case JOB_STATE_SYNCING:
    return true;
  default:
    return false;
  }
}

/// Whether a request from outside may take a job from one state to the other.
bool may_change(Job_State from, Job_State to) {
  if (!is_running(from))
    return false;
  switch (to) {
  case JOB_STATE_CANCELING:
  case JOB_STATE_ABORTING:
    return true;
  case JOB_STATE_PAUSING:
    return from == JOB_STATE_STARTING || from == JOB_STATE_RUNNING || from == JOB_STATE_PAUSING ||
           from == JOB_STATE_SWITCHING;
  case JOB_STATE_SWITCHING:
    return from == JOB_STATE_RUNNING || from == JOB_STATE_SWITCHING;
  case JOB_STATE_RUNNING:
    return from == JOB_STATE_PAUSING || from == JOB_STATE_PAUSED;
  default:
    return false;
  }
}

/// The job that a thread works for. Holds a reference, so that the job outlives the rest of its own thread even when
/// the host lets go of it as soon as it has completed.
struct Current_Job {
  Job* job = nullptr;
  ~Current_Job() { set(nullptr); }

  Job* set(Job* next) {
    if (next != nullptr)
      Job::intrusive_add_ref(next);
    Job* before = job;
    job = next;
    if (before != nullptr)
      Job::intrusive_remove_ref(before);
    return before;
  }
};

thread_local Current_Job current_job;

/// The jobs that can no longer be stopped. Between a look at it and the change that was to be made no job comes in.
class Committing_Jobs {
public:
  static Committing_Jobs& instance() {
    static Committing_Jobs jobs;
    return jobs;
  }
  bool add(Job& job) {
    const std::lock_guard<std::mutex> guard(mutex_);
    if (job.activity().state == JOB_STATE_CANCELING)
      return false;
    jobs_.insert(&job);
    return true;
  }
  void remove(const Job* job) {
    const std::lock_guard<std::mutex> guard(mutex_);
    jobs_.erase(job);
  }
  /// Calls `change` unless the job is one of them; -1 if it is.
  int unless_in(const Job* job, const std::function<int()>& change) {
    const std::lock_guard<std::mutex> guard(mutex_);
    return jobs_.count(job) != 0 ? -1 : change();
  }

private:
  std::mutex mutex_; ///< guards `jobs_`
  std::set<const Job*> jobs_;
};

} // namespace

bool is_current_job_canceling() {
  return current_job.job != nullptr && current_job.job->activity().state == JOB_STATE_CANCELING;
}

bool begin_commit_of_current_job() {
  Job* const job = current_job.job;
  return job == nullptr || Committing_Jobs::instance().add(*job);
}

struct Job::Impl {
  std::atomic<long> references{1};
  const std::shared_ptr<Job_Log> log = std::make_shared<Job_Log>();

  std::mutex mutex; ///< guards what follows
  std::condition_variable done;
  bool started = false;
  bool completed = false;
  Error last_error;
  std::vector<Job_Alert> alerts;
  json_spirit::Object results;
};

// A new job has one reference, which a creator hands on with a pointer that adopts it.
Job::Job(Job_Definition_var definition)
    : definition_(definition), ledger_(std::make_shared<S3_Ledger>()), impl_(new Impl) {
  if (definition_.null())
    return;
  uuid_string_to_binary(definition_->uid(), activity_.uid);
  ledger_->max_retry_seconds = definition_->max_seconds_retry();
  ledger_->rate.set(definition_->rate_limit());
  ledger_->objects.policy(archived_policy_from_string(definition_->archived()).value_or(Archived_Policy::SKIP));
}

Job::~Job() {
  Committing_Jobs::instance().remove(this);
}

void Job::intrusive_add_ref(Job* job) {
  if (job != nullptr)
    job->impl_->references.fetch_add(1, std::memory_order_relaxed);
}

void Job::intrusive_remove_ref(Job* job) {
  if (job != nullptr && job->impl_->references.fetch_sub(1, std::memory_order_acq_rel) == 1)
    delete job;
}

int Job::start(const Job_Run_Options* opts) {
  const Job_State before = activity_.state;
  {
    const std::lock_guard<std::mutex> guard(impl_->mutex);
    if (impl_->started)
      return -1;
    impl_->started = true;
    if (activity_.id.empty())
      activity_.id = make_uuid();
    activity_.state = JOB_STATE_STARTING;
  }
  // The run keeps the job until `complete`.
  intrusive_add_ref(this);
  const int result = start_i(opts);
  if (result == 0)
    return 0;
  {
    const std::lock_guard<std::mutex> guard(impl_->mutex);
    impl_->started = false;
    activity_.state = before;
  }
  intrusive_remove_ref(this);
  return result;
}

int Job::stop(const Job_Run_Options* opts) {
  return stop_i(opts);
}
int Job::pause(const Job_Run_Options* opts) {
  return pause_i(opts);
}
int Job::resume(const Job_Run_Options* opts) {
  return resume_i(opts);
}
int Job::abort(const Job_Run_Options* opts) {
  return abort_i(opts);
}
int Job::remove(bool flag, const Job_Run_Options* opts) {
  return remove_i(flag, opts);
}
int Job::rollback() {
  return rollback_i();
}

int Job::update(Job_Definition_var definition) {
  if (definition.null() || !can_update_i(activity_.state))
    return -1;
  const int result = update_i(definition);
  if (result == 0)
    definition_ = definition;
  return result;
}

bool Job::wait(const ACE_Time_Value* timeout) {
  std::unique_lock<std::mutex> lock(impl_->mutex);
  const auto completed = [this] { return impl_->completed; };
  if (timeout == nullptr) {
    impl_->done.wait(lock, completed);
    return true;
  }
  const auto bound = std::chrono::seconds(timeout->sec()) + std::chrono::microseconds(timeout->usec());
  return impl_->done.wait_for(lock, bound, completed);
}

bool Job::completed() const {
  const std::lock_guard<std::mutex> guard(impl_->mutex);
  return impl_->completed;
}

Error Job::last_error() const {
  const std::lock_guard<std::mutex> guard(impl_->mutex);
  return impl_->last_error;
}

std::vector<Job_Alert> Job::alerts() const {
  const std::lock_guard<std::mutex> guard(impl_->mutex);
  return impl_->alerts;
}

json_spirit::Object Job::results() const {
  const std::lock_guard<std::mutex> guard(impl_->mutex);
  return impl_->results;
}

void Job::log_sink(std::shared_ptr<ACE_Log_Msg_Callback> sink) {
  impl_->log->sink(std::move(sink));
}

void Job::set_job_thread() {
  current(this);
}

Job* Job::current() {
  return current_job.job;
}

Job* Job::current(Job* job) {
  return current_job.set(job);
}

int Job::state_i(Job_State state) {
  const std::lock_guard<std::mutex> guard(impl_->mutex);
  if (impl_->completed)
    return -1;
  return Committing_Jobs::instance().unless_in(this, [&] {
    // The work writes the state without the lock.
    Job_State present = activity_.state;
    do {
      if (!may_change(present, state))
        return -1;
    } while (!activity_.state.compare_exchange_weak(present, state));
    return 0;
  });
}

int Job::state(Job_State state) {
  activity_.state = state;
  return 0;
}

int Job::sync(const Job_Run_Options*) {
  if (is_debug_enabled())
    ACE_DEBUG((LM_DEBUG, ACE_TEXT("Job %C is %C: %Q objects, %Q bytes.\n"), activity_.id.c_str(),
               job_state_to_string(activity_.state), static_cast<ACE_UINT64>(activity_.objects),
               static_cast<ACE_UINT64>(activity_.size)));
  return 0;
}

void Job::complete() {
  bool release = false;
  {
    const std::lock_guard<std::mutex> guard(impl_->mutex);
    if (impl_->completed)
      return;
    // Work that ended without an outcome must not look as if it went on.
    const Job_State state = activity_.state;
    if (state == JOB_STATE_CANCELING || state == JOB_STATE_ABORTING)
      activity_.state = JOB_STATE_CANCELED;
    else if (is_running(state) && state != JOB_STATE_PAUSED)
      activity_.state = JOB_STATE_ERROR;
    if (activity_.end_time == 0)
      activity_.end_time = Clock::instance().now();
    impl_->completed = true;
    release = impl_->started;
    impl_->done.notify_all();
  }
  if (release)
    intrusive_remove_ref(this);
}

std::shared_ptr<ACE_Log_Msg_Callback> Job::log_msg_callback() {
  return impl_->log;
}

void Job::set_result(const std::string& name, const json_spirit::Value& value) {
  const std::lock_guard<std::mutex> guard(impl_->mutex);
  impl_->results[name] = value;
}

void Job::set_last_error(const Error& error) {
  const std::lock_guard<std::mutex> guard(impl_->mutex);
  impl_->last_error = error;
}

void Job::add_alert(const Job_Alert& alert) {
  const std::lock_guard<std::mutex> guard(impl_->mutex);
  impl_->alerts.push_back(alert);
}

int Job::handle_exception(ACE_HANDLE) {
  return 0;
}
int Job::handle_timeout(const ACE_Time_Value&, const void*) {
  return 0;
}
int Job::setup_ondemand_by_job() {
  return 0;
}
int Job::start_i(const Job_Run_Options*) {
  return -1;
}
int Job::stop_i(const Job_Run_Options*) {
  return -1;
}
int Job::enable_i(const Job_Run_Options*) {
  return 0;
}
int Job::disable_i(const Job_Run_Options*) {
  return 0;
}
int Job::pause_i(const Job_Run_Options*) {
  return 0;
}
int Job::resume_i(const Job_Run_Options*) {
  return -1;
}
int Job::abort_i(const Job_Run_Options*) {
  return 0;
}
int Job::switch_i(const Job_Run_Options*) {
  return 0;
}
int Job::remove_i(bool, const Job_Run_Options*) {
  return 0;
}
int Job::update_i(Job_Definition_var) {
  return 0;
}
int Job::rollback_i() {
  return 0;
}
bool Job::can_update_i(Job_State state) {
  return !is_running(state);
}
int Job::setup_ondemand_i() {
  return 0;
}
void* Job::run_i(const Job_Run_Options*) {
  return nullptr;
}
int Job::abort_i() {
  return 0;
}

Job_Creator::~Job_Creator() = default;
int Job_Creator::init(int, char**) {
  return 0;
}
int Job_Creator::fini() {
  return 0;
}
