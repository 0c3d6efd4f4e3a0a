#include "sdk/job/job.h"

#include "platform/job/current_job.h"
#include "platform/s3/ledger.h"
#include "sdk/base/clock.h"

#include <ace/Log_Record.h>

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

namespace {

/// The threads of all jobs: no test waits for them, but the program joins each before it ends.
class Job_Threads : public ::testing::Environment {
public:
  void add(std::thread thread) {
    const std::lock_guard<std::mutex> guard(mutex_);
    threads_.push_back(std::move(thread));
  }
  void TearDown() override {
    for (std::thread& thread : threads_)
      thread.join();
    threads_.clear();
  }

private:
  std::mutex mutex_;
  std::vector<std::thread> threads_;
};

Job_Threads& job_threads() {
  static auto* const threads = new Job_Threads; // the test framework's own
  return *threads;
}
[[maybe_unused]] const auto* const registered = ::testing::AddGlobalTestEnvironment(&job_threads());

/// A job whose work is a function, run on a thread for which the job does not wait, as a resource's jobs do it.
class Work_Job : public Job {
public:
  explicit Work_Job(std::function<void(Work_Job&)> work, std::promise<void>* gone = nullptr)
      : Job(definition_of_test()), work_(std::move(work)), gone_(gone) {}
  ~Work_Job() override {
    if (gone_ != nullptr)
      gone_->set_value();
  }

  static Job_Definition_var definition_of_test() {
    Job_Definition::Settings settings;
    settings.type = JOB_DEFINITION_BACKUP;
    settings.uid = "00112233-4455-6677-8899-aabbccddeeff";
    return Job_Definition_var(new Job_Definition(settings));
  }

  int start_i(const Job_Run_Options*) override {
    if (refuse)
      return -1;
    job_threads().add(std::thread([this] {
      set_job_thread();
      work_(*this);
      complete();
    }));
    return 0;
  }
  int stop_i(const Job_Run_Options*) override { return state_i(JOB_STATE_CANCELING); }
  int pause_i(const Job_Run_Options*) override { return state_i(JOB_STATE_PAUSING); }
  int resume_i(const Job_Run_Options*) override { return state_i(JOB_STATE_RUNNING); }

  bool refuse = false;

private:
  std::function<void(Work_Job&)> work_;
  std::promise<void>* gone_;
};

ACE_Intrusive_Auto_Ptr<Work_Job> make(std::function<void(Work_Job&)> work = [](Work_Job&) {}) {
  return ACE_Intrusive_Auto_Ptr<Work_Job>(new Work_Job(std::move(work)), false);
}

class Lines : public ACE_Log_Msg_Callback {
public:
  void log(ACE_Log_Record& record) override { text += std::string(record.msg_data()) + "|"; }
  std::string text;
};

TEST(Job_Life, new_job_waits_to_be_started) {
  const auto job = make();
  EXPECT_EQ(JOB_STATE_CREATED, job->activity().state);
  EXPECT_FALSE(job->completed());
  EXPECT_EQ(0x00, job->activity().uid[0]);
  EXPECT_EQ(0xFF, job->activity().uid[15]);
  const ACE_Time_Value no_time(0, 1000);
  EXPECT_FALSE(job->wait(&no_time));
  EXPECT_NE(nullptr, job->ledger().get());
  EXPECT_EQ(0u, job->ledger()->requests);
}

TEST(Job_Life, started_job_ends_with_what_its_work_reports) {
  const auto job = make([](Work_Job& self) {
    Job_Event_Handler handler(self);
    handler.handle_start_job();
    EXPECT_EQ(JOB_STATE_RUNNING, self.activity().state);
    EXPECT_EQ(&self, Job::current());
    self.set_result("answer", 42);
    handler.handle_success();
  });
  ASSERT_EQ(0, job->start(nullptr));
  ASSERT_TRUE(job->wait());
  EXPECT_TRUE(job->completed());
  EXPECT_EQ(JOB_STATE_COMPLETED, job->activity().state);
  EXPECT_EQ(job->activity().start_time, job->activity().last_run_time);
  EXPECT_GE(job->activity().end_time, job->activity().start_time);
  EXPECT_EQ(36u, job->activity().id.size());
  EXPECT_EQ(42, json_spirit::find(job->results(), "answer")->get_int());
  EXPECT_EQ(-1, job->start(nullptr));
}

TEST(Job_Life, id_given_before_the_start_is_kept) {
  const auto job = make();
  job->activity().id = "given";
  ASSERT_EQ(0, job->start(nullptr));
  ASSERT_TRUE(job->wait());
  EXPECT_EQ("given", job->activity().id);
}

TEST(Job_Life, start_that_fails_leaves_the_job_as_it_was) {
  const auto job = make();
  job->refuse = true;
  EXPECT_EQ(-1, job->start(nullptr));
  EXPECT_EQ(JOB_STATE_CREATED, job->activity().state);
  job->refuse = false;
  EXPECT_EQ(0, job->start(nullptr));
  EXPECT_TRUE(job->wait());
}

TEST(Job_Life, host_may_let_go_of_a_running_job) {
  std::promise<void> gone;
  std::promise<void> released;
  {
    const ACE_Intrusive_Auto_Ptr<Work_Job> job(new Work_Job([&](Work_Job&) { released.get_future().wait(); }, &gone),
                                               false);
    ASSERT_EQ(0, job->start(nullptr));
  }
  std::future<void> ended = gone.get_future();
  EXPECT_EQ(std::future_status::timeout, ended.wait_for(std::chrono::seconds(0)));
  released.set_value();
  EXPECT_EQ(std::future_status::ready, ended.wait_for(std::chrono::seconds(30)));
}

TEST(Job_Life, adopted_reference_is_the_only_one) {
  std::promise<void> gone;
  {
    const Job_var job(new Work_Job([](Work_Job&) {}, &gone), false);
    const Job_var other(job);
  }
  EXPECT_EQ(std::future_status::ready, gone.get_future().wait_for(std::chrono::seconds(0)));
}

TEST(Job_Life, thread_keeps_the_job_that_it_works_for) {
  std::promise<void> gone;
  std::future<void> ended = gone.get_future();
  Job* const before = Job::current();
  {
    const Job_var job(new Work_Job([](Work_Job&) {}, &gone), false);
    EXPECT_EQ(before, Job::current(job.get()));
    EXPECT_EQ(job.get(), Job::current(job.get()));
  }
  EXPECT_EQ(std::future_status::timeout, ended.wait_for(std::chrono::seconds(0)));
  Job::current(nullptr);
  EXPECT_EQ(std::future_status::ready, ended.wait_for(std::chrono::seconds(0)));
}

TEST(Job_Life, other_threads_work_for_no_job) {
  const auto job = make();
  Job::current(job.get());
  Job* seen = job.get();
  std::thread([&] { seen = Job::current(); }).join();
  EXPECT_EQ(nullptr, seen);
  Job::current(nullptr);
}

TEST(Job_Life, work_without_an_outcome_is_an_error_and_a_cancelled_one_is_cancelled) {
  const auto silent = make();
  silent->start(nullptr);
  silent->wait();
  EXPECT_EQ(JOB_STATE_ERROR, silent->activity().state);

  const auto cancelled = make([](Work_Job& self) { EXPECT_EQ(0, self.stop(nullptr)); });
  cancelled->start(nullptr);
  cancelled->wait();
  EXPECT_EQ(JOB_STATE_CANCELED, cancelled->activity().state);

  const auto skipped = make([](Work_Job& self) { self.activity().state = JOB_STATE_SKIPPED; });
  skipped->start(nullptr);
  skipped->wait();
  EXPECT_EQ(JOB_STATE_SKIPPED, skipped->activity().state);

  const auto idle = make([](Work_Job& self) { self.activity().state = JOB_STATE_IDLE; });
  idle->start(nullptr);
  idle->wait();
  EXPECT_EQ(JOB_STATE_IDLE, idle->activity().state);
}

TEST(Job_Life, stop_before_the_work_reports_its_start_is_not_lost) {
  std::promise<void> stopped;
  const auto job = make([&](Work_Job& self) {
    stopped.get_future().wait();
    Job_Event_Handler(self).handle_start_job();
    EXPECT_EQ(JOB_STATE_CANCELING, self.activity().state);
    Job_Event_Handler(self).handle_canceled();
  });
  ASSERT_EQ(0, job->start(nullptr));
  ASSERT_EQ(0, job->stop(nullptr));
  stopped.set_value();
  ASSERT_TRUE(job->wait());
  EXPECT_EQ(JOB_STATE_CANCELED, job->activity().state);
}

struct Change {
  Job_State from;
  Job_State to;
  bool allowed;
};

class Job_State_Change : public ::testing::TestWithParam<Change> {};

TEST_P(Job_State_Change, follows_the_rules) {
  const auto job = make();
  job->activity().state = GetParam().from;
  EXPECT_EQ(GetParam().allowed ? 0 : -1, job->state_i(GetParam().to))
      << job_state_to_string(GetParam().from) << " -> " << job_state_to_string(GetParam().to);
  EXPECT_EQ(GetParam().allowed ? GetParam().to : GetParam().from, job->activity().state);
}

INSTANTIATE_TEST_SUITE_P(
    pairs, Job_State_Change,
    ::testing::Values(
        Change{JOB_STATE_RUNNING, JOB_STATE_PAUSING, true}, Change{JOB_STATE_RUNNING, JOB_STATE_CANCELING, true},
        Change{JOB_STATE_RUNNING, JOB_STATE_ABORTING, true}, Change{JOB_STATE_RUNNING, JOB_STATE_SWITCHING, true},
        Change{JOB_STATE_RUNNING, JOB_STATE_RUNNING, false}, Change{JOB_STATE_RUNNING, JOB_STATE_COMPLETED, false},
        Change{JOB_STATE_STARTING, JOB_STATE_CANCELING, true}, Change{JOB_STATE_STARTING, JOB_STATE_PAUSING, true},
        Change{JOB_STATE_PAUSING, JOB_STATE_RUNNING, true}, Change{JOB_STATE_PAUSED, JOB_STATE_RUNNING, true},
        Change{JOB_STATE_PAUSING, JOB_STATE_CANCELING, true}, Change{JOB_STATE_CANCELING, JOB_STATE_CANCELING, true},
        Change{JOB_STATE_CANCELING, JOB_STATE_PAUSING, false}, Change{JOB_STATE_CANCELING, JOB_STATE_RUNNING, false},
        Change{JOB_STATE_COMPLETING, JOB_STATE_PAUSING, false}, Change{JOB_STATE_CREATED, JOB_STATE_CANCELING, false},
        Change{JOB_STATE_CREATED, JOB_STATE_PAUSING, false}, Change{JOB_STATE_IDLE, JOB_STATE_RUNNING, false},
        Change{JOB_STATE_COMPLETED, JOB_STATE_CANCELING, false},
        Change{JOB_STATE_COMPLETED_WITH_ERRORS, JOB_STATE_CANCELING, false},
        Change{JOB_STATE_ERROR, JOB_STATE_RUNNING, false}, Change{JOB_STATE_CANCELED, JOB_STATE_RUNNING, false},
        Change{JOB_STATE_SKIPPED, JOB_STATE_ABORTING, false}));

TEST(Job_Commit, goes_to_its_end_once_it_has_begun) {
  int stopped = 0, paused = 0;
  bool begun = false;
  const auto job = make([&](Work_Job& self) {
    self.set_job_thread();
    Job_Event_Handler(self).handle_start_job();
    begun = begin_commit_of_current_job() && begin_commit_of_current_job();
    stopped = self.state_i(JOB_STATE_CANCELING);
    paused = self.state_i(JOB_STATE_PAUSING);
    Job_Event_Handler(self).handle_success();
  });
  job->start(nullptr);
  job->wait();
  EXPECT_TRUE(begun);
  EXPECT_EQ(-1, stopped);
  EXPECT_EQ(-1, paused);
  EXPECT_EQ(JOB_STATE_COMPLETED, job->activity().state);
}

TEST(Job_Commit, does_not_begin_when_a_cancel_came_before) {
  bool begun = true;
  const auto job = make([&](Work_Job& self) {
    self.set_job_thread();
    Job_Event_Handler(self).handle_start_job();
    self.state_i(JOB_STATE_CANCELING);
    begun = begin_commit_of_current_job();
    Job_Event_Handler(self).handle_canceled();
  });
  job->start(nullptr);
  job->wait();
  EXPECT_FALSE(begun);
}

TEST(Job_State_After_The_End, changes_no_more_even_when_paused) {
  const auto job = make([](Work_Job& self) { Job_Event_Handler(self).handle_paused(); });
  job->start(nullptr);
  job->wait();
  EXPECT_EQ(JOB_STATE_PAUSED, job->activity().state);
  EXPECT_EQ(-1, job->resume(nullptr));
  EXPECT_EQ(-1, job->stop(nullptr));
  EXPECT_EQ(JOB_STATE_PAUSED, job->activity().state);
}

TEST(Job_Outcome, alert_or_problem_turns_success_into_completed_with_errors) {
  const auto alerted = make();
  write_job_alert(*alerted, LV_ERROR, COMMON_CODE_FAILED_TO_GET_POOL, MASK_FLAGS, {"pool"}, 3);
  Job_Event_Handler(*alerted).handle_success();
  EXPECT_EQ(JOB_STATE_COMPLETED_WITH_ERRORS, alerted->activity().state);
  ASSERT_EQ(1u, alerted->alerts().size());
  EXPECT_EQ(3, alerted->alerts()[0].count);

  const auto troubled = make();
  troubled->activity().problems = 1;
  Job_Event_Handler(*troubled).handle_success();
  EXPECT_EQ(JOB_STATE_COMPLETED_WITH_ERRORS, troubled->activity().state);
}

TEST(Job_Outcome, failure_keeps_its_text_and_code) {
  const auto job = make();
  const std::string name(5000, 'x');
  Job_Event_Handler(*job).handle_failure(7, "object %s, part %d", name.c_str(), 3);
  EXPECT_EQ(JOB_STATE_ERROR, job->activity().state);
  EXPECT_EQ("object " + name + ", part 3", json_spirit::require_str(job->results(), "failure"));
  EXPECT_EQ(7, json_spirit::find(job->results(), "failure_code")->get_int());

  const auto plain = make();
  Job_Event_Handler(*plain).handle_failure(-1, nullptr);
  EXPECT_TRUE(plain->results().empty());
}

TEST(Job_Outcome, progress_is_accepted) {
  const auto job = make();
  EXPECT_EQ(0, Job_Event_Handler(*job).handle_progress(1, 2, 3, 4));
}

TEST(Job_Base, refuses_start_stop_and_resume_and_answers_0_to_the_rest) {
  const Job_var job(new Job(Work_Job::definition_of_test()), false);
  EXPECT_EQ(-1, job->start(nullptr));
  EXPECT_EQ(-1, job->stop(nullptr));
  EXPECT_EQ(-1, job->resume(nullptr));
  EXPECT_EQ(0, job->pause(nullptr));
  EXPECT_EQ(0, job->abort(nullptr));
  EXPECT_EQ(0, job->remove(true, nullptr));
  EXPECT_EQ(0, job->rollback());
  EXPECT_EQ(0, job->sync(nullptr));
  EXPECT_EQ(0, job->handle_exception(ACE_INVALID_HANDLE));
}

TEST(Job_Base, definition_is_exchanged_only_while_nothing_runs) {
  const auto job = make();
  Job_Definition::Settings settings;
  settings.name = "second";
  const Job_Definition_var second(new Job_Definition(settings));
  job->activity().state = JOB_STATE_RUNNING;
  EXPECT_EQ(-1, job->update(second));
  job->activity().state = JOB_STATE_CREATED;
  EXPECT_EQ(-1, job->update(Job_Definition_var()));
  EXPECT_EQ(0, job->update(second));
  EXPECT_EQ("second", job->definition().name());
}

TEST(Job_Log_Lines, reach_the_sink_and_outlive_the_job) {
  const std::shared_ptr<Lines> lines = std::make_shared<Lines>();
  std::shared_ptr<ACE_Log_Msg_Callback> log;
  {
    const auto job = make();
    EXPECT_NE(nullptr, job->log_msg_callback().get());
    job->log_sink(lines);
    log = job->log_msg_callback();
  }
  ACE_Log_Record record(LM_INFO, 0, 1);
  record.msg_data("a line");
  log->log(record);
  EXPECT_EQ("a line|", lines->text);
}

TEST(Last_Error, belongs_to_the_threads_job_or_to_the_thread) {
  Error_Manager& manager = *Error_Manager::instance();
  manager.clear();
  Error found;
  EXPECT_FALSE(manager.last_error(found));

  const auto job = make();
  Job::current(job.get());
  manager.set_last_error(Error(Error_ID(5), 10, {"why"}));
  Job::current(nullptr);
  EXPECT_FALSE(manager.last_error(found));
  EXPECT_EQ(5u, job->last_error().id.value());
  EXPECT_EQ("why", job->last_error().params[0].get_str());

  manager.set_last_error(Error(Error_ID(6), 10));
  ASSERT_TRUE(manager.last_error(found));
  EXPECT_EQ(6u, found.id.value());
  std::thread([&] {
    Error other;
    EXPECT_FALSE(manager.last_error(other));
  }).join();
  manager.clear();
}

} // namespace
