#include "platform/s3/side_threads.h"

#include "sdk/job/job.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>

namespace {

class Idle_Job : public Job {
public:
  Idle_Job() : Job(Job_Definition_var()) { activity().state = JOB_STATE_RUNNING; }
};

class Side_Threads_Test : public testing::Test {
protected:
  /// Has a thread pause for an hour, waits until it is about to, and ends that by `end`.
  template <typename End>
  double seconds_of_an_hour(End end) {
    std::promise<void> pausing, paused;
    EXPECT_TRUE(threads.start([&] {
      pausing.set_value();
      threads.pause(3600);
      paused.set_value();
    }));
    pausing.get_future().wait();
    const auto before = std::chrono::steady_clock::now();
    end();
    EXPECT_EQ(std::future_status::ready, paused.get_future().wait_for(std::chrono::seconds(20)));
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - before).count();
  }

  std::mutex mutex;
  std::condition_variable wake;
  Idle_Job* const one = new Idle_Job;
  const Job_var job{one, false};
  struct Works_For {
    explicit Works_For(Job* job) { Job::current(job); }
    ~Works_For() { Job::current(nullptr); }
  } works_for{one};
  s3::Side_Threads threads{"Side", mutex, wake};
};

TEST_F(Side_Threads_Test, pause_ends_at_once_when_they_shall_stop) {
  EXPECT_GT(5, seconds_of_an_hour([&] { threads.stop(); }));
  EXPECT_TRUE(threads.stopping());
  EXPECT_EQ(0u, threads.count());
  threads.stop();
}

TEST_F(Side_Threads_Test, pause_ends_soon_when_the_job_is_cancelled) {
  EXPECT_GT(5, seconds_of_an_hour([&] { one->activity().state = JOB_STATE_CANCELING; }));
  EXPECT_FALSE(threads.stopping());
}

TEST_F(Side_Threads_Test, they_work_for_the_job_of_who_made_them) {
  std::promise<Job*> worked_for;
  EXPECT_TRUE(threads.start([&] { worked_for.set_value(Job::current()); }));
  EXPECT_EQ(one, worked_for.get_future().get());
}

} // namespace
