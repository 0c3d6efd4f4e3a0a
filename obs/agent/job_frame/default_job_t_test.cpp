#include "obs/agent/job_frame/default_job_t.h"

#include "obs/agent/job_frame/default_job_creator_t.h"
#include "obs/agent/job_frame/failing_spawn.h"
#include "obs/agent/job_frame/fake_executor.h"
#include "obs/agent/job_frame/watched_spawn.h"
#include "testing/module/log_sink.h"

#include <ace/Manual_Event.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>

MODULE_TESTING_DEFINE_FAILING_SPAWN()
MODULE_TESTING_DEFINE_WATCHED_SPAWN()

using namespace frame_testing;

namespace {

typedef Default_Job_T<Executor> Plain_Job;
typedef Controllable_Job_T<Executor> Controlled_Job;

/// The groups of the threads that called.
struct Work_Group {
  void add() {
    int group = -1;
    ACE_Thread_Manager::instance()->get_grp(ACE_OS::thr_self(), group);
    const std::lock_guard<std::mutex> guard(lock);
    found.push_back(group);
  }
  std::mutex lock;
  std::vector<int> found;
};

struct default_job : testing::Test {
  /// Run threads are detached: what they use has to be there until the last of them has ended.
  void TearDown() override { ACE_Thread_Manager::instance()->wait(); }

  Plan plan;
  Job_var job{new Controlled_Job(definition()), false};
  Job_var plain{new Plain_Job(definition()), false};
};

TEST_F(default_job, new_job_has_no_run_thread) {
  EXPECT_EQ(0u, static_cast<Controlled_Job&>(*job).thr_id());
  EXPECT_EQ(0, job->handle_exception(ACE_INVALID_HANDLE));
}

TEST_F(default_job, started_job_works_on_a_thread_of_its_own_and_completes) {
  pthread_t worker = pthread_self();
  Job* current = nullptr;
  plan.work = [&](Job&) {
    worker = pthread_self();
    current = Job::current();
  };
  ASSERT_EQ(0, job->start(nullptr));
  ASSERT_TRUE(job->wait());
  EXPECT_EQ("start execute success", plan.story());
  EXPECT_EQ(JOB_STATE_COMPLETED, job->activity().state);
  EXPECT_FALSE(pthread_equal(worker, pthread_self()));
  EXPECT_EQ(job.get(), current);
  EXPECT_NE(0u, static_cast<Controlled_Job&>(*job).thr_id());
  EXPECT_EQ(nullptr, Job::current());
}

TEST_F(default_job, job_completes_when_its_executor_is_gone) {
  plan.completed_at_its_end = true;
  ASSERT_EQ(0, job->start(nullptr));
  ASSERT_TRUE(job->wait());
  EXPECT_FALSE(plan.completed_at_its_end);
  EXPECT_TRUE(job->completed());
}

// Detached, in a group that the manager makes, at the priority that it gives by itself.
TEST_F(default_job, threads_of_run_and_rollback_are_asked_for_as_documented) {
  const std::vector<module_testing::Asked_Spawn> expected = {{0x400042, -2147483647L - 1, -1}};
  module_testing::Watched_Spawns& spawns = module_testing::Watched_Spawns::instance();
  spawns.clear();
  ASSERT_EQ(0, job->start(nullptr));
  ASSERT_TRUE(job->wait());
  EXPECT_TRUE(expected == spawns.asked());
  spawns.clear();
  ASSERT_EQ(0, job->rollback());
  ACE_Thread_Manager::instance()->wait();
  EXPECT_TRUE(expected == spawns.asked());
}

TEST_F(default_job, threads_have_groups_of_their_own) {
  Work_Group groups;
  plan.work = [&](Job&) { groups.add(); };
  Job_var other(new Controlled_Job(definition()), false);
  ASSERT_EQ(0, job->start(nullptr));
  ASSERT_EQ(0, other->start(nullptr));
  ASSERT_TRUE(job->wait());
  ASSERT_TRUE(other->wait());
  ASSERT_EQ(2u, groups.found.size());
  EXPECT_NE(groups.found[0], groups.found[1]);
}

// A job whose id was stored after the spawn began without it in one start of ten.
TEST_F(default_job, run_thread_finds_its_own_id_in_every_start) {
  int wrong = 0;
  plan.work = [&](Job& running) {
    wrong += !ACE_OS::thr_equal(static_cast<Controlled_Job&>(running).thr_id(), ACE_OS::thr_self());
  };
  for (int i = 0; i < 500; ++i) {
    job = Job_var(new Controlled_Job(definition()), false);
    ASSERT_EQ(0, job->start(nullptr));
    ASSERT_TRUE(job->wait());
  }
  EXPECT_EQ(0, wrong);
}

TEST_F(default_job, run_thread_stores_the_definitions_uuid) {
  std::fill(std::begin(job->activity().uid), std::end(job->activity().uid), 0);
  ASSERT_EQ(0, job->start(nullptr));
  job->wait();
  const unsigned char expected[16] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77,
                                      0x88, 0x99, 0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff};
  EXPECT_TRUE(std::equal(std::begin(expected), std::end(expected), job->activity().uid));
}

TEST_F(default_job, options_of_the_request_are_copied_for_the_work) {
  {
    const Job_Run_Options opts{{"full", true}};
    ASSERT_EQ(0, job->start(&opts));
  }
  ASSERT_TRUE(job->wait());
  EXPECT_EQ("start execute:{\"full\":true} success", plan.story());
}

TEST_F(default_job, empty_options_reach_the_work_as_none) {
  const Job_Run_Options none;
  ASSERT_EQ(0, job->start(&none));
  job->wait();
  EXPECT_EQ("start execute success", plan.story());
}

TEST_F(default_job, job_whose_thread_cannot_be_started_is_refused_and_can_be_started_later) {
  {
    const module_testing::Failing_Spawn failing;
    EXPECT_EQ(-1, job->start(nullptr));
  }
  EXPECT_EQ("", plan.story());
  EXPECT_EQ(0u, static_cast<Controlled_Job&>(*job).thr_id());
  EXPECT_EQ(0, job->start(nullptr));
  EXPECT_TRUE(job->wait());
}

TEST_F(default_job, job_runs_on_when_the_host_lets_go_of_it) {
  ACE_Manual_Event go_on;
  plan.work = [&](Job&) { go_on.wait(); };
  ASSERT_EQ(0, job->start(nullptr));
  job = Job_var();
  go_on.signal();
  ACE_Thread_Manager::instance()->wait();
  EXPECT_EQ("start execute success", plan.story());
}

TEST_F(default_job, exception_in_the_work_fails_the_job_with_its_text) {
  plan.work = [](Job&) { throw std::runtime_error("broken 100%s"); };
  ASSERT_EQ(0, job->start(nullptr));
  ASSERT_TRUE(job->wait());
  EXPECT_EQ(JOB_STATE_ERROR, job->activity().state);
  EXPECT_EQ("broken 100%s", json_spirit::optional_str(job->results(), "failure"));
}

/// The states that a job takes on its way out, and what its executor's handler is told then.
TEST_F(default_job, exception_in_the_work_ends_the_job_as_it_was_told_to_end) {
  const std::pair<int (Job::*)(const Job_Run_Options*), const char*> ends[] = {{&Job::stop, "start execute canceled"},
                                                                               {&Job::pause, "start execute paused"}};
  for (const auto& [request, story] : ends) {
    plan.events.clear();
    job = Job_var(new Controlled_Job(definition()), false);
    plan.work = [request = request](Job& running) {
      (running.*request)(nullptr);
      throw std::runtime_error("broken");
    };
    ASSERT_EQ(0, job->start(nullptr));
    ASSERT_TRUE(job->wait());
    EXPECT_EQ(story, plan.story());
    EXPECT_EQ("", json_spirit::optional_str(job->results(), "failure"));
  }
}

TEST_F(default_job, exception_in_the_work_is_reported_by_the_executors_handler) {
  plan.work = [](Job&) { throw 7; };
  ASSERT_EQ(0, job->start(nullptr));
  ASSERT_TRUE(job->wait());
  EXPECT_EQ("start execute failure:-1", plan.story());
  EXPECT_EQ("unknown exception", json_spirit::optional_str(job->results(), "failure"));
}

TEST_F(default_job, post_action_that_always_runs_does_so_after_an_exception) {
  struct Keeper : ACE_Log_Msg_Callback {
    void log(ACE_Log_Record& record) override { text += record.msg_data(); }
    std::string text;
  };
  const auto log = std::make_shared<Keeper>();
  job = Job_var(new Controlled_Job(definition([](Job_Definition::Settings& s) {
                  s.post_action = "echo after all";
                  s.run_post_action_always = true;
                })),
                false);
  job->log_sink(log);
  plan.work = [](Job&) { throw std::runtime_error("broken"); };
  ASSERT_EQ(0, job->start(nullptr));
  ASSERT_TRUE(job->wait());
  EXPECT_NE(std::string::npos, log->text.find("after all")) << log->text;
  EXPECT_EQ("start execute failure:-1", plan.story());
}

TEST_F(default_job, exception_before_the_work_fails_the_job) {
  plan.before_work = [] { throw std::runtime_error("broken"); };
  ASSERT_EQ(0, job->start(nullptr));
  ASSERT_TRUE(job->wait());
  EXPECT_EQ("failure:-1", plan.story());
  EXPECT_EQ(JOB_STATE_ERROR, job->activity().state);
}

TEST_F(default_job, executor_that_cannot_be_made_fails_the_job_or_ends_it_as_told) {
  for (const bool cancel : {false, true}) {
    plan.make = [&] {
      if (cancel)
        job->stop(nullptr);
      throw std::bad_alloc();
    };
    job = Job_var(new Controlled_Job(definition()), false);
    ASSERT_EQ(0, job->start(nullptr));
    ASSERT_TRUE(job->wait());
    EXPECT_EQ("", plan.story());
    EXPECT_EQ(cancel ? JOB_STATE_CANCELED : JOB_STATE_ERROR, job->activity().state);
  }
}

TEST_F(default_job, requests_without_memory_are_refused_and_throw_nothing) {
  const Job_Definition_var def = definition();
  def->schedules = {std::make_shared<Job_Schedule>(JOB_DEFINITION_SUBTYPE_ONDEMAND)};
  job = Job_var(new Controlled_Job(def), false);
  plan.make = [] { throw std::bad_alloc(); };
  const std::function<int()> requests[] = {[&] { return job->remove_i(true, nullptr); },
                                           [&] { return job->update_i(definition()); },
                                           [&] { return job->setup_ondemand_i(); }};
  for (const auto& request : requests) {
    errno = 0;
    EXPECT_EQ(-1, request());
    EXPECT_EQ(ENOMEM, errno);
  }
  plan.make = [] { throw std::runtime_error("broken"); };
  for (const auto& request : requests)
    EXPECT_EQ(-1, request());
}

TEST_F(default_job, plain_job_refuses_to_stop_and_to_resume) {
  plain->state(JOB_STATE_RUNNING);
  EXPECT_EQ(-1, plain->stop_i(nullptr));
  EXPECT_EQ(-1, plain->resume_i(nullptr));
  EXPECT_EQ(JOB_STATE_RUNNING, plain->activity().state);
}

TEST_F(default_job, control_requests_mark_the_state) {
  job->state(JOB_STATE_RUNNING);
  EXPECT_EQ(0, job->pause_i(nullptr));
  EXPECT_EQ(JOB_STATE_PAUSING, job->activity().state);
  EXPECT_EQ(0, job->resume_i(nullptr));
  EXPECT_EQ(JOB_STATE_RUNNING, job->activity().state);
  EXPECT_EQ(0, job->switch_i(nullptr));
  EXPECT_EQ(JOB_STATE_SWITCHING, job->activity().state);
  EXPECT_EQ(0, job->stop_i(nullptr));
  EXPECT_EQ(JOB_STATE_CANCELING, job->activity().state);
  job->state(JOB_STATE_RUNNING);
  EXPECT_EQ(0, job->abort_i());
  EXPECT_EQ(JOB_STATE_ABORTING, job->activity().state);
}

TEST_F(default_job, control_requests_answer_what_the_state_change_answers) {
  job->state(JOB_STATE_COMPLETED);
  EXPECT_EQ(-1, job->stop_i(nullptr));
  EXPECT_EQ(-1, job->pause_i(nullptr));
  EXPECT_EQ(-1, job->resume_i(nullptr));
  EXPECT_EQ(-1, job->switch_i(nullptr));
  EXPECT_EQ(-1, job->abort_i());
  EXPECT_EQ(-1, job->abort_i(nullptr));
}

TEST_F(default_job, abort_with_options_cancels_the_job_and_flags_its_thread) {
  ACE_Manual_Event began;
  ACE_Manual_Event go_on;
  int flagged = -1;
  plan.done = false;
  plan.work = [&](Job&) {
    began.signal();
    go_on.wait();
    flagged = ACE_Thread_Manager::instance()->testcancel(ACE_OS::thr_self());
  };
  ASSERT_EQ(0, job->start(nullptr));
  began.wait();
  EXPECT_EQ(0, job->abort(nullptr));
  EXPECT_EQ(JOB_STATE_CANCELING, job->activity().state);
  go_on.signal();
  ASSERT_TRUE(job->wait());
  EXPECT_EQ(1, flagged);
  EXPECT_EQ("start execute canceled", plan.story());
}

TEST_F(default_job, removal_undoes_each_ondemand_schedule_and_then_the_job) {
  const Job_Definition_var def = definition();
  def->schedules = {std::make_shared<Job_Schedule>(JOB_DEFINITION_SUBTYPE_ONDEMAND), nullptr,
                    std::make_shared<Job_Schedule>(JOB_DEFINITION_SUBTYPE_FULL),
                    std::make_shared<Job_Schedule>(JOB_DEFINITION_SUBTYPE_ONDEMAND)};
  job = Job_var(new Controlled_Job(def), false);
  EXPECT_EQ(0, job->remove(true, nullptr));
  EXPECT_EQ("remove_ondemand remove_ondemand remove", plan.story());
}

TEST_F(default_job, update_answers_0_whatever_the_executor_answers) {
  EXPECT_EQ(0, job->update_i(definition([](Job_Definition::Settings& s) { s.name = "new"; })));
  EXPECT_EQ("update:new", plan.story());
}

TEST_F(default_job, ondemand_setup_answers_what_the_executor_answers) {
  EXPECT_EQ(0, job->setup_ondemand_i());
  plan.setup = false;
  EXPECT_EQ(-1, job->setup_ondemand_i());
}

TEST_F(default_job, rollback_is_not_waited_for_and_keeps_the_job) {
  ACE_Manual_Event go_on;
  pthread_t worker = pthread_self();
  plan.rollback_work = [&] {
    worker = pthread_self();
    go_on.wait();
  };
  EXPECT_EQ(0, job->rollback());
  EXPECT_EQ("", plan.story());
  job = Job_var();
  go_on.signal();
  ACE_Thread_Manager::instance()->wait();
  EXPECT_EQ("rollback", plan.story());
  EXPECT_FALSE(pthread_equal(worker, pthread_self()));
}

TEST_F(default_job, rollback_without_a_thread_fails) {
  const module_testing::Failing_Spawn failing;
  EXPECT_EQ(-1, job->rollback());
  EXPECT_EQ("", plan.story());
}

TEST_F(default_job, rollback_without_a_thread_does_not_keep_the_job) {
  struct Watched : Plain_Job {
    explicit Watched(bool& flag) : Plain_Job(frame_testing::definition()), gone(flag) {}
    ~Watched() override { gone = true; }
    bool& gone;
  };
  bool gone = false;
  Job_var watched(new Watched(gone), false);
  const module_testing::Failing_Spawn failing;
  EXPECT_EQ(-1, watched->rollback());
  EXPECT_FALSE(gone);
  watched = Job_var();
  EXPECT_TRUE(gone);
}

typedef Default_Job_Creator_T<Controlled_Job, Plain_Job> Creator;

TEST(default_job_creator, type_decides_which_job_is_made) {
  Creator creator;
  const Job_var backup = creator.create(definition());
  ASSERT_NE(nullptr, backup.get());
  EXPECT_NE(nullptr, dynamic_cast<Controlled_Job*>(backup.get()));
  const Job_var restore =
      creator.create(definition([](Job_Definition::Settings& s) { s.type = JOB_DEFINITION_RESTORE; }));
  ASSERT_NE(nullptr, restore.get());
  EXPECT_EQ(nullptr, dynamic_cast<Controlled_Job*>(restore.get()));
}

TEST(default_job_creator, job_shares_its_definition) {
  const Job_Definition_var def = definition();
  EXPECT_EQ(def.get(), &Creator().create(def)->definition());
}

TEST(default_job_creator, other_types_have_no_job_and_leave_errno_alone) {
  for (const Job_Definition_Type type : {JOB_DEFINITION_NONE, JOB_DEFINITION_STANDBY, JOB_DEFINITION_STORAGE}) {
    errno = 7;
    EXPECT_EQ(nullptr, Creator().create(definition([type](Job_Definition::Settings& s) { s.type = type; })).get());
    EXPECT_EQ(7, errno);
  }
}

} // namespace
