#pragma once

#include "obs/agent/job_frame/default_job_t.h"
#include "obs/agent/job_frame/job_executor_t.h"

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

/// An executor for the tests of the frame: does what the test said and keeps what was done.
namespace frame_testing {

/// What every executor of the present test does, and what happened. One per test, in place while it lives.
struct Plan {
  Plan() { current() = this; }
  ~Plan() { current() = nullptr; }
  static Plan*& current() {
    static Plan* plan = nullptr;
    return plan;
  }

  void happened(const std::string& event) {
    const std::lock_guard<std::mutex> guard(lock);
    events.push_back(event);
  }
  /// Everything that happened, with spaces between.
  std::string story() const {
    const std::lock_guard<std::mutex> guard(lock);
    std::string text;
    for (const std::string& event : events)
      text += (text.empty() ? "" : " ") + event;
    return text;
  }

  bool active = true;
  bool condition = true;
  int password_code = 0;
  bool done = true;
  bool setup = true;
  std::function<void(Job&)> work;    ///< called by execute_i
  std::function<void()> before_work; ///< called where the executor is asked whether it is active
  std::function<void()> make;        ///< called when an executor is made
  std::function<void()> rollback_work;
  std::atomic<bool> completed_at_its_end{false}; ///< whether the job was completed when the executor was destroyed
  std::atomic<int> conditions{0};                ///< how often `check_condition` was asked

  mutable std::mutex lock; ///< guards what follows
  std::vector<std::string> events;
};

struct Source : Job_Source {};
struct Options : Job_Options {};

class Recording_Handler : public Job_Event_Handler {
public:
  explicit Recording_Handler(Job& job) : Job_Event_Handler(job) {}
  void handle_start_job() override {
    Plan::current()->happened("start");
    Job_Event_Handler::handle_start_job();
  }
  void handle_success() override {
    Plan::current()->happened("success");
    Job_Event_Handler::handle_success();
  }
  void handle_paused() override {
    Plan::current()->happened("paused");
    Job_Event_Handler::handle_paused();
  }
  void handle_canceled() override {
    Plan::current()->happened("canceled");
    Job_Event_Handler::handle_canceled();
  }
  void handle_failure(int code, const char* format, ...) override {
    Plan::current()->happened("failure:" + std::to_string(code) + (format ? ":text" : ""));
    Job_Event_Handler::handle_failure(code, nullptr);
  }
};

class Executor : public Job_Executor_T<Source, Options, Recording_Handler> {
public:
  explicit Executor(Job& job) : Job_Executor_T(job) {
    if (Plan::current()->make)
      Plan::current()->make();
  }
  ~Executor() override {
    if (Plan* const plan = Plan::current())
      plan->completed_at_its_end = job_.completed();
  }

  bool remove() override { return tell("remove", false); }
  bool setup_ondemand() override { return tell("setup_ondemand", Plan::current()->setup); }
  bool remove_ondemand() override { return tell("remove_ondemand", false); }
  bool update(Job_Definition_var definition) override { return tell("update:" + definition->name(), false); }
  bool rollback() override {
    if (Plan::current()->rollback_work)
      Plan::current()->rollback_work();
    return tell("rollback", false);
  }

  Source* source() const { return src_; }
  Options* options() const { return opts_; }
  const Job_Target& target() const { return tgt_; }

protected:
  bool execute_i(const Job_Run_Options* opts) override {
    Plan& plan = *Plan::current();
    plan.happened(opts ? "execute:" + json_spirit::write(*opts) : "execute");
    if (plan.work)
      plan.work(job_);
    return plan.done;
  }
  bool check_condition() override {
    ++Plan::current()->conditions;
    return Plan::current()->condition;
  }
  bool is_active(const Job_Run_Options*) override {
    if (Plan::current()->before_work)
      Plan::current()->before_work();
    return Plan::current()->active;
  }
  int check_password() override {
    Plan::current()->happened("password");
    return Plan::current()->password_code;
  }

private:
  static bool tell(const std::string& event, bool answer) {
    Plan::current()->happened(event);
    return answer;
  }
};

/// A definition of a backup with a source and options, and what `change` makes of its settings.
inline Job_Definition_var definition(const std::function<void(Job_Definition::Settings&)>& change = nullptr) {
  Job_Definition::Settings settings;
  settings.type = JOB_DEFINITION_BACKUP;
  settings.uid = "00112233-4455-6677-8899-aabbccddeeff";
  settings.name = "nightly";
  if (change)
    change(settings);
  Job_Definition_var result(new Job_Definition(settings));
  result->source = Job_Source_var(new Source);
  result->options = Job_Options_var(new Options);
  return result;
}

} // namespace frame_testing
