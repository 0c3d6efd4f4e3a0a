#include "sdk/base/clock.h"
#include "sdk/job/job.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>

namespace {

class Hand_Clock : public Clock {
public:
  time_t now() override { return at; }
  ACE_Time_Value monotonic() override { return ACE_Time_Value(at); }
  void sleep(unsigned seconds) override { at += seconds; }
  time_t at = 1000;
};

/// A job that only exists to be cancelled.
class Idle_Job : public Job {
public:
  Idle_Job() : Job(Job_Definition_var(new Job_Definition)) {}
  int start_i(const Job_Run_Options*) override { return 0; }
  int stop_i(const Job_Run_Options*) override { return state_i(JOB_STATE_CANCELING); }
};

TEST(Clock_Instance, clock_put_in_place_is_used_until_it_is_taken_out) {
  Hand_Clock hand;
  EXPECT_EQ(nullptr, Clock::instance(&hand));
  Clock::instance().sleep(5);
  EXPECT_EQ(1005, Clock::instance().now());
  EXPECT_EQ(ACE_Time_Value(1005), Clock::instance().monotonic());
  EXPECT_EQ(&hand, Clock::instance(nullptr));
  EXPECT_GT(Clock::instance().now(), 1700000000);
}

TEST(Clock_Instance, monotonic_time_never_goes_back) {
  ACE_Time_Value last = Clock::instance().monotonic();
  for (int i = 0; i < 1000; ++i) {
    const ACE_Time_Value now = Clock::instance().monotonic();
    ASSERT_GE(now, last);
    last = now;
  }
}

TEST(Clock_Instance, sleep_takes_its_time_without_a_job) {
  const auto begin = std::chrono::steady_clock::now();
  Clock::instance().sleep(1);
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1));
}

TEST(Clock_Instance, sleep_ends_early_when_the_threads_job_is_cancelled) {
  const Job_var job(new Idle_Job, false);
  ASSERT_EQ(0, job->start(nullptr));
  std::promise<void> working;
  auto slept = std::async(std::launch::async, [&] {
    Job::current(job.get());
    working.set_value();
    Clock::instance().sleep(3600);
    Job::current(nullptr);
  });
  working.get_future().wait();
  ASSERT_EQ(0, job->stop(nullptr));
  EXPECT_EQ(std::future_status::ready, slept.wait_for(std::chrono::seconds(10)));
  job->complete();
}

TEST(Clock_Instance, sleep_of_a_cancelled_job_does_not_spin) {
  const Job_var job(new Idle_Job, false);
  ASSERT_EQ(0, job->start(nullptr));
  ASSERT_EQ(0, job->stop(nullptr));
  Job::current(job.get());
  const auto begin = std::chrono::steady_clock::now();
  Clock::instance().sleep(3600);
  const auto slept = std::chrono::steady_clock::now() - begin;
  Job::current(nullptr);
  EXPECT_GE(slept, std::chrono::milliseconds(100));
  EXPECT_LT(slept, std::chrono::seconds(10));
  job->complete();
}

TEST(Clock_Instance, wait_takes_its_time_where_nobody_notifies) {
  std::mutex mutex;
  std::condition_variable changed;
  std::unique_lock<std::mutex> lock(mutex);
  const auto begin = std::chrono::steady_clock::now();
  unsigned waits = 0;
  for (; std::chrono::steady_clock::now() - begin < std::chrono::milliseconds(300); ++waits)
    Clock::instance().wait(lock, changed, ACE_Time_Value(0, 300000));
  EXPECT_TRUE(lock.owns_lock());
  EXPECT_LT(waits, 100u) << "it wakes up for no reason all the time";
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
}

TEST(Clock_Instance, wait_ends_when_it_is_notified) {
  std::mutex mutex;
  std::condition_variable changed;
  bool done = false;
  auto waited = std::async(std::launch::async, [&] {
    std::unique_lock<std::mutex> lock(mutex);
    while (!done)
      Clock::instance().wait(lock, changed, ACE_Time_Value(3600));
  });
  {
    const std::lock_guard<std::mutex> guard(mutex);
    done = true;
  }
  changed.notify_all();
  EXPECT_EQ(std::future_status::ready, waited.wait_for(std::chrono::seconds(10)));
}

TEST(Clock_Instance, wait_ends_early_when_the_threads_job_is_cancelled) {
  const Job_var job(new Idle_Job, false);
  ASSERT_EQ(0, job->start(nullptr));
  ASSERT_EQ(0, job->stop(nullptr));
  Job::current(job.get());
  std::mutex mutex;
  std::condition_variable changed;
  std::unique_lock<std::mutex> lock(mutex);
  const auto begin = std::chrono::steady_clock::now();
  Clock::instance().wait(lock, changed, ACE_Time_Value(3600));
  Job::current(nullptr);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
  job->complete();
}

} // namespace
