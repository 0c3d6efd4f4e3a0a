#include "obs/agent/job_frame/job_executor_t.h"

#include "obs/agent/job_frame/fake_executor.h"
#include "testing/module/fake_clock.h"
#include "testing/module/log_sink.h"

#include <gtest/gtest.h>

#include <functional>

using namespace frame_testing;

namespace {

typedef Job_Definition::Settings Settings;
typedef std::function<void(Settings&)> Change;

/// A job whose executor is called on the test's own thread, as a host would that has just started it.
struct job_executor : testing::Test {
  bool execute(const Change& change = nullptr, const Job_Run_Options* opts = nullptr) {
    return execute(definition(change), opts);
  }
  bool execute(Job_Definition_var def, const Job_Run_Options* opts = nullptr) {
    job = Job_var(new Controllable_Job_T<Executor>(def), false);
    if (on_line)
      job->log_sink(std::make_shared<Line_Hook>(on_line));
    job->state(JOB_STATE_STARTING);
    return Executor(*job).execute(opts);
  }
  Job_State state() const { return job->activity().state; }

  struct Line_Hook : ACE_Log_Msg_Callback {
    explicit Line_Hook(std::function<void(const std::string&)> hook) : hook(hook) {}
    void log(ACE_Log_Record& record) override { hook(record.msg_data()); }
    std::function<void(const std::string&)> hook;
  };

  module_testing::Log_Sink log;
  module_testing::Fake_Clock clock{1234567};
  Plan plan;
  Job_var job;
  std::function<void(const std::string&)> on_line; ///< called for each line of a script, while it runs
};

TEST_F(job_executor, records_and_target_come_from_the_definition) {
  const Job_Definition_var def = definition([](Settings& s) { s.target = Job_Target("pool", "device", "/r"); });
  job = Job_var(new Controllable_Job_T<Executor>(def), false);
  Executor executor(*job);
  EXPECT_EQ(def->source.get(), executor.source());
  EXPECT_EQ(def->options.get(), executor.options());
  EXPECT_EQ(&def->target(), &executor.target());
}

TEST_F(job_executor, job_that_works_reports_start_and_success) {
  EXPECT_TRUE(execute());
  EXPECT_EQ("start execute success", plan.story());
  EXPECT_EQ(JOB_STATE_COMPLETED, state());
  EXPECT_EQ(0u, log.count(LM_ERROR, "") + log.count(LM_EMERGENCY, ""));
}

TEST_F(job_executor, run_options_reach_the_work) {
  const Job_Run_Options opts{{"a", 1}};
  EXPECT_TRUE(execute(nullptr, &opts));
  EXPECT_EQ("start execute:{\"a\":1} success", plan.story());
}

TEST_F(job_executor, missing_source_is_an_emergency_and_reports_nothing) {
  const Job_Definition_var def = definition();
  def->source = Job_Source_var();
  EXPECT_FALSE(execute(def));
  EXPECT_EQ("", plan.story());
  EXPECT_EQ(JOB_STATE_STARTING, state());
  ASSERT_EQ(1u, log.count(LM_EMERGENCY, "Unexpected error in obs/agent/job_frame/job_executor_t.h:"));
  EXPECT_EQ(1u, log.count(", src_ is NULL:\n"));
}

TEST_F(job_executor, missing_options_do_not_hinder) {
  const Job_Definition_var def = definition();
  def->options = Job_Options_var();
  EXPECT_TRUE(execute(def));
}

TEST_F(job_executor, refused_password_fails_with_its_code) {
  plan.password_code = 77;
  EXPECT_FALSE(execute([](Settings& s) { s.backup_protection_password = "secret"; }));
  EXPECT_EQ("password failure:77", plan.story());
}

TEST_F(job_executor, negative_refusal_of_a_password_is_one_too) {
  plan.password_code = -1;
  EXPECT_FALSE(execute([](Settings& s) { s.backup_protection_password = "secret"; }));
  EXPECT_EQ("password failure:-1", plan.story());
}

TEST_F(job_executor, accepted_password_lets_the_job_run) {
  EXPECT_TRUE(execute([](Settings& s) { s.backup_protection_password = "secret"; }));
  EXPECT_EQ("password start execute success", plan.story());
}

TEST_F(job_executor, password_is_not_checked_where_there_is_none) {
  plan.password_code = 77;
  EXPECT_TRUE(execute());
  EXPECT_EQ("start execute success", plan.story());
}

TEST_F(job_executor, inactive_job_is_skipped_without_a_report) {
  plan.active = false;
  EXPECT_TRUE(execute());
  EXPECT_EQ("", plan.story());
  EXPECT_EQ(JOB_STATE_SKIPPED, state());
  EXPECT_EQ(1234567, job->activity().last_run_time);
  EXPECT_EQ(0, job->activity().start_time);
}

TEST_F(job_executor, failed_precondition_leaves_the_job_idle_without_a_report) {
  EXPECT_TRUE(execute([](Settings& s) { s.precondition = "exit 1"; }));
  EXPECT_EQ("", plan.story());
  EXPECT_EQ(JOB_STATE_IDLE, state());
  EXPECT_EQ(1234567, job->activity().start_time);
  EXPECT_EQ(1234567, job->activity().last_run_time);
  if (is_debug_enabled()) {
    EXPECT_EQ(1u, log.count(" is idle: 0 objects, 0 bytes.")) << "the host is told";
  }
}

TEST_F(job_executor, unmet_condition_leaves_the_job_idle_without_a_report) {
  plan.condition = false;
  EXPECT_TRUE(execute());
  EXPECT_EQ("", plan.story());
  EXPECT_EQ(JOB_STATE_IDLE, state());
}

TEST_F(job_executor, met_precondition_lets_the_job_run) {
  EXPECT_TRUE(execute([](Settings& s) { s.precondition = "exit 0"; }));
  EXPECT_EQ("start execute success", plan.story());
}

TEST_F(job_executor, missing_source_is_seen_before_the_password) {
  plan.password_code = 77;
  const Job_Definition_var def = definition([](Settings& s) { s.backup_protection_password = "secret"; });
  def->source = Job_Source_var();
  EXPECT_FALSE(execute(def));
  EXPECT_EQ("", plan.story());
  EXPECT_EQ(1u, log.count(", src_ is NULL:\n"));
}

TEST_F(job_executor, refused_password_is_told_before_the_job_could_be_skipped) {
  plan.password_code = 77;
  plan.active = false;
  EXPECT_FALSE(execute([](Settings& s) { s.backup_protection_password = "secret"; }));
  EXPECT_EQ("password failure:77", plan.story());
  EXPECT_EQ(JOB_STATE_ERROR, state());
}

TEST_F(job_executor, refused_password_is_told_before_the_precondition_runs) {
  plan.password_code = 77;
  EXPECT_FALSE(execute([](Settings& s) {
    s.backup_protection_password = "secret";
    s.precondition = "echo asked; exit 1";
  }));
  EXPECT_EQ("password failure:77", plan.story());
  EXPECT_EQ(JOB_STATE_ERROR, state());
  EXPECT_EQ(0u, log.count("asked"));
  EXPECT_EQ(0, plan.conditions);
}

TEST_F(job_executor, inactive_job_is_skipped_before_the_precondition_runs) {
  plan.active = false;
  EXPECT_TRUE(execute([](Settings& s) { s.precondition = "echo asked; exit 1"; }));
  EXPECT_EQ("", plan.story());
  EXPECT_EQ(JOB_STATE_SKIPPED, state());
  EXPECT_EQ(0u, log.count("asked"));
  EXPECT_EQ(0, plan.conditions);
}

TEST_F(job_executor, condition_is_asked_behind_a_precondition_that_succeeds_only) {
  EXPECT_TRUE(execute([](Settings& s) { s.precondition = "exit 1"; }));
  EXPECT_EQ(0, plan.conditions);
  EXPECT_EQ(JOB_STATE_IDLE, state());
  EXPECT_TRUE(execute([](Settings& s) { s.precondition = "exit 0"; }));
  EXPECT_EQ(1, plan.conditions);
}

TEST_F(job_executor, output_of_the_precondition_goes_to_the_programs_log_alone) {
  std::vector<std::string> lines;
  on_line = [&](const std::string& line) { lines.push_back(line); };
  EXPECT_TRUE(execute([](Settings& s) { s.precondition = "echo asked"; }));
  EXPECT_EQ("start execute success", plan.story());
  EXPECT_TRUE(lines.empty());
  EXPECT_EQ(1u, log.count("asked"));
}

TEST_F(job_executor, scripts_get_the_environment_that_the_agent_was_started_with) {
  std::vector<std::string> lines;
  on_line = [&](const std::string& line) { lines.push_back(line); };
  setenv("JOB_EXECUTOR_TEST_ADDED", "added", 1);
  EXPECT_TRUE(execute([](Settings& s) {
    s.precondition = "echo \"condition [$JOB_EXECUTOR_TEST_ADDED]\"";
    s.pre_action = "echo \"before [$JOB_EXECUTOR_TEST_ADDED]\"";
    s.post_action = "echo \"after [$JOB_EXECUTOR_TEST_ADDED]\"";
  }));
  unsetenv("JOB_EXECUTOR_TEST_ADDED");
  EXPECT_EQ(1u, log.count("condition []"));
  EXPECT_EQ((std::vector<std::string>{"before []", "after []"}), lines);
}

TEST_F(job_executor, failed_work_fails_the_job) {
  plan.done = false;
  EXPECT_FALSE(execute());
  EXPECT_EQ("start execute failure:-1", plan.story());
  EXPECT_EQ(JOB_STATE_ERROR, state());
}

TEST_F(job_executor, failed_pre_action_fails_the_job_before_its_work) {
  EXPECT_FALSE(execute([](Settings& s) { s.pre_action = "exit 3"; }));
  EXPECT_EQ("start failure:-1", plan.story());
}

TEST_F(job_executor, ignored_failure_of_the_pre_action_lets_the_job_run) {
  EXPECT_TRUE(execute([](Settings& s) {
    s.pre_action = "exit 3";
    s.ignore_pre_action_failure = true;
  }));
  EXPECT_EQ("start execute success", plan.story());
}

TEST_F(job_executor, output_of_the_actions_goes_to_the_jobs_log) {
  std::vector<std::string> lines;
  on_line = [&](const std::string& line) { lines.push_back(line); };
  EXPECT_TRUE(execute([](Settings& s) {
    s.pre_action = "echo before";
    s.post_action = "echo after";
  }));
  EXPECT_EQ((std::vector<std::string>{"before", "after"}), lines);
}

TEST_F(job_executor, pause_during_the_pre_action_ends_the_job_paused_before_its_work) {
  on_line = [this](const std::string&) { EXPECT_EQ(0, job->pause(nullptr)); };
  EXPECT_FALSE(execute([](Settings& s) {
    s.pre_action = "echo now";
    s.post_action = "echo never";
  }));
  EXPECT_EQ("start paused", plan.story());
  EXPECT_EQ(JOB_STATE_PAUSED, state());
}

TEST_F(job_executor, cancel_during_an_ignored_pre_action_ends_the_job_canceled) {
  on_line = [this](const std::string&) { EXPECT_EQ(0, job->stop(nullptr)); };
  EXPECT_FALSE(execute([](Settings& s) {
    s.pre_action = "echo now; exit 1";
    s.ignore_pre_action_failure = true;
  }));
  EXPECT_EQ("start canceled", plan.story());
}

TEST_F(job_executor, cancel_during_the_work_is_reported_when_the_work_fails) {
  plan.done = false;
  plan.work = [](Job& j) { EXPECT_EQ(0, j.stop(nullptr)); };
  EXPECT_FALSE(execute());
  EXPECT_EQ("start execute canceled", plan.story());
}

TEST_F(job_executor, pause_during_the_work_is_reported_when_the_work_fails) {
  plan.done = false;
  plan.work = [](Job& j) { EXPECT_EQ(0, j.pause(nullptr)); };
  EXPECT_FALSE(execute());
  EXPECT_EQ("start execute paused", plan.story());
}

TEST_F(job_executor, abort_during_the_work_is_a_failure) {
  plan.done = false;
  plan.work = [](Job& j) { EXPECT_EQ(0, j.abort_i()); };
  EXPECT_FALSE(execute());
  EXPECT_EQ("start execute failure:-1", plan.story());
}

/// Counts the lines of the post-action.
struct post_action : job_executor {
  post_action() {
    on_line = [this](const std::string&) {
      ++runs;
      seen = state();
    };
  }
  int runs = 0;
  Job_State seen = JOB_STATE_NONE;
};

TEST_F(post_action, runs_after_success_in_state_completing) {
  EXPECT_TRUE(execute([](Settings& s) { s.post_action = "echo x"; }));
  EXPECT_EQ(1, runs);
  EXPECT_EQ(JOB_STATE_COMPLETING, seen);
  EXPECT_EQ(JOB_STATE_COMPLETED, state());
}

TEST_F(post_action, does_not_run_after_failed_work) {
  plan.done = false;
  EXPECT_FALSE(execute([](Settings& s) { s.post_action = "echo x"; }));
  EXPECT_EQ(0, runs);
}

TEST_F(post_action, runs_after_failed_work_when_it_always_does) {
  plan.done = false;
  EXPECT_FALSE(execute([](Settings& s) {
    s.post_action = "echo x";
    s.run_post_action_always = true;
  }));
  EXPECT_EQ(1, runs);
  EXPECT_EQ("start execute failure:-1", plan.story());
}

TEST_F(post_action, runs_after_a_failed_pre_action_when_it_always_does) {
  EXPECT_FALSE(execute([](Settings& s) {
    s.pre_action = "exit 1";
    s.post_action = "echo x";
    s.run_post_action_always = true;
  }));
  EXPECT_EQ(1, runs);
  EXPECT_EQ("start failure:-1", plan.story());
}

// It takes a paused or cancelled job to completing: what was asked for is not seen any more when the outcome is told.
TEST_F(post_action, that_always_runs_makes_a_failure_of_a_pause_during_the_work) {
  plan.done = false;
  plan.work = [](Job& j) { EXPECT_EQ(0, j.pause(nullptr)); };
  EXPECT_FALSE(execute([](Settings& s) {
    s.post_action = "echo x";
    s.run_post_action_always = true;
  }));
  EXPECT_EQ(1, runs);
  EXPECT_EQ(JOB_STATE_COMPLETING, seen);
  EXPECT_EQ("start execute failure:-1", plan.story());
  EXPECT_EQ(JOB_STATE_ERROR, state());
}

TEST_F(post_action, that_always_runs_makes_a_failure_of_a_cancel_during_the_work) {
  plan.done = false;
  plan.work = [](Job& j) { EXPECT_EQ(0, j.stop(nullptr)); };
  EXPECT_FALSE(execute([](Settings& s) {
    s.post_action = "echo x";
    s.run_post_action_always = true;
  }));
  EXPECT_EQ(1, runs);
  EXPECT_EQ(JOB_STATE_COMPLETING, seen);
  EXPECT_EQ("start execute failure:-1", plan.story());
}

TEST_F(post_action, that_always_runs_makes_a_failure_of_a_pause_during_the_pre_action) {
  std::vector<Job_State> states;
  on_line = [&](const std::string& line) {
    states.push_back(state());
    if (line == "before") {
      EXPECT_EQ(0, job->pause(nullptr));
    }
  };
  EXPECT_FALSE(execute([](Settings& s) {
    s.pre_action = "echo before";
    s.post_action = "echo after";
    s.run_post_action_always = true;
  }));
  EXPECT_EQ((std::vector<Job_State>{JOB_STATE_RUNNING, JOB_STATE_COMPLETING}), states);
  EXPECT_EQ("start failure:-1", plan.story());
}

TEST_F(post_action, cancel_during_one_that_fails_is_reported) {
  on_line = [this](const std::string&) { EXPECT_EQ(0, job->stop(nullptr)); };
  EXPECT_FALSE(execute([](Settings& s) { s.post_action = "echo x; exit 1"; }));
  EXPECT_EQ("start execute canceled", plan.story());
}

TEST_F(post_action, failure_fails_a_job_whose_work_succeeded) {
  EXPECT_FALSE(execute([](Settings& s) { s.post_action = "exit 1"; }));
  EXPECT_EQ("start execute failure:-1", plan.story());
}

TEST_F(post_action, ignored_failure_does_not) {
  EXPECT_TRUE(execute([](Settings& s) {
    s.post_action = "exit 1";
    s.ignore_post_action_failure = true;
  }));
  EXPECT_EQ("start execute success", plan.story());
}

TEST_F(post_action, empty_one_leaves_the_state_alone) {
  plan.done = false;
  plan.work = [](Job& j) { j.stop(nullptr); };
  EXPECT_FALSE(execute([](Settings& s) { s.run_post_action_always = true; }));
  EXPECT_EQ("start execute canceled", plan.story());
}

TEST(job_executor_defaults, hooks_answer_true_and_zero) {
  struct Bare : Job_Executor_T<Source, Options, Job_Event_Handler> {
    explicit Bare(Job& job) : Job_Executor_T(job) {}
    bool execute_i(const Job_Run_Options*) override { return true; }
    using Job_Executor_T::check_condition;
    using Job_Executor_T::check_password;
    using Job_Executor_T::is_active;
  };
  Job job(definition());
  Bare executor(job);
  EXPECT_TRUE(executor.remove());
  EXPECT_TRUE(executor.setup_ondemand());
  EXPECT_TRUE(executor.remove_ondemand());
  EXPECT_TRUE(executor.update(definition()));
  EXPECT_TRUE(executor.rollback());
  EXPECT_TRUE(executor.check_condition());
  EXPECT_TRUE(executor.is_active(nullptr));
  EXPECT_EQ(0, executor.check_password());
}

} // namespace
