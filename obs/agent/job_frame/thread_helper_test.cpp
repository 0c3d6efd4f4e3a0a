#include "obs/agent/job_frame/thread_helper.h"

#include "obs/agent/job_frame/failing_spawn.h"
#include "obs/agent/job_frame/watched_spawn.h"
#include "testing/module/failing_allocator.h"
#include "testing/module/log_sink.h"

#include <ace/Manual_Event.h>
#include <ace/Thread_Manager.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <stdexcept>
#include <string>

#include <pthread.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

/// What a thread of the tests works on; stays until every thread has ended.
struct Work {
  ~Work() { ACE_Thread_Manager::instance()->wait(); }
  void run() {
    thread = pthread_self();
    began.signal();
    go_on.wait();
    finished = true;
    ended.signal();
  }
  /// Is at work for a while after it has begun; nobody can end it earlier.
  void linger() {
    began.signal();
    ACE_Time_Value limit(0, 100000);
    go_on.wait(&limit, 0);
    finished = true;
  }
  void run_through() { finished = true; }
  int answer() {
    finished = true;
    return 42;
  }
  void fail() { throw std::runtime_error("broken"); }

  ACE_Manual_Event began;
  ACE_Manual_Event go_on;
  ACE_Manual_Event ended;
  std::atomic<bool> finished{false};
  pthread_t thread{};
};

constexpr long DETACHED = THR_NEW_LWP | THR_DETACHED | THR_INHERIT_SCHED;
constexpr long JOINABLE = THR_NEW_LWP | THR_JOINABLE | THR_INHERIT_SCHED;

TEST(thread_helper, flags_of_detached_threads_have_their_documented_value) {
  EXPECT_EQ(0x400042, DETACHED);
}

TEST(thread_helper, new_helper_has_no_thread) {
  Thread_Helper helper(JOINABLE, ACE_DEFAULT_THREAD_PRIORITY);
  EXPECT_FALSE(helper.exists());
  EXPECT_FALSE(helper.running());
  helper.join();
}

TEST(thread_helper, joinable_thread_runs_until_its_function_ends) {
  Work work;
  Thread_Helper helper(JOINABLE, ACE_DEFAULT_THREAD_PRIORITY);
  ASSERT_NE(-1, helper.spawn(&Work::run, &work));
  work.began.wait();
  EXPECT_TRUE(helper.exists());
  EXPECT_TRUE(helper.running());
  EXPECT_FALSE(pthread_equal(work.thread, pthread_self()));
  work.go_on.signal();
  helper.join();
  EXPECT_TRUE(work.finished);
  EXPECT_FALSE(helper.exists());
  EXPECT_FALSE(helper.running());
}

TEST(thread_helper, second_spawn_while_a_thread_runs_is_refused) {
  Work work;
  Work other;
  Thread_Helper helper(JOINABLE, ACE_DEFAULT_THREAD_PRIORITY);
  ASSERT_NE(-1, helper.spawn(&Work::run, &work));
  work.began.wait();
  EXPECT_EQ(-1, helper.spawn(&Work::run_through, &other));
  work.go_on.signal();
  helper.join();
  EXPECT_FALSE(other.finished);
}

TEST(thread_helper, helper_can_be_used_again_when_its_thread_has_ended) {
  Work work;
  Work other;
  work.go_on.signal();
  Thread_Helper helper(JOINABLE, ACE_DEFAULT_THREAD_PRIORITY);
  ASSERT_NE(-1, helper.spawn(&Work::run, &work));
  helper.join();
  ASSERT_NE(-1, helper.spawn(&Work::answer, &other));
  helper.join();
  EXPECT_TRUE(other.finished);
}

TEST(thread_helper, destructor_joins) {
  Work work;
  {
    Thread_Helper helper(JOINABLE, ACE_DEFAULT_THREAD_PRIORITY);
    ASSERT_NE(-1, helper.spawn(&Work::linger, &work));
    work.began.wait();
  }
  EXPECT_TRUE(work.finished);
}

TEST(thread_helper, detached_thread_outlives_its_helper_and_is_never_waited_for) {
  Work work;
  {
    Thread_Helper helper(DETACHED, ACE_DEFAULT_THREAD_PRIORITY);
    ASSERT_NE(-1, helper.spawn(&Work::run, &work));
    EXPECT_FALSE(helper.exists());
    EXPECT_FALSE(helper.running());
    helper.join();
  }
  EXPECT_FALSE(work.finished);
  work.go_on.signal();
  work.ended.wait();
  EXPECT_TRUE(work.finished);
}

TEST(thread_helper, detached_helper_starts_several_threads) {
  Work first;
  Work second;
  Thread_Helper helper(DETACHED, ACE_DEFAULT_THREAD_PRIORITY);
  EXPECT_NE(-1, helper.spawn(&Work::run, &first));
  EXPECT_NE(-1, helper.spawn(&Work::run, &second));
  first.go_on.signal();
  second.go_on.signal();
  first.ended.wait();
  second.ended.wait();
}

TEST(thread_helper, failed_spawn_leaves_the_helper_ready) {
  Work work;
  for (const long flags : {JOINABLE, DETACHED}) {
    Thread_Helper helper(flags, ACE_DEFAULT_THREAD_PRIORITY);
    const module_testing::Failing_Spawn failing;
    EXPECT_EQ(-1, helper.spawn(&Work::run_through, &work));
    EXPECT_FALSE(helper.exists());
    EXPECT_FALSE(helper.running());
  }
  EXPECT_FALSE(work.finished);
  Thread_Helper helper(JOINABLE, ACE_DEFAULT_THREAD_PRIORITY);
  {
    const module_testing::Failing_Spawn failing;
    EXPECT_EQ(-1, helper.spawn(&Work::run_through, &work));
  }
  EXPECT_NE(-1, helper.spawn(&Work::run_through, &work));
  helper.join();
  EXPECT_TRUE(work.finished);
}

TEST(thread_helper, helper_without_memory_starts_nothing) {
  Work work;
  for (int nth = 1; nth <= 2; ++nth) {
    module_testing::Log_Sink log;
    errno = 0;
    const module_testing::Short_Memory short_memory(nth);
    Thread_Helper helper(JOINABLE, ACE_DEFAULT_THREAD_PRIORITY);
    EXPECT_EQ(-1, helper.spawn(&Work::run_through, &work)) << nth;
    EXPECT_EQ(ENOMEM, errno) << nth;
    EXPECT_FALSE(helper.running());
    // Without its flag the helper is broken for good and says so.
    EXPECT_EQ(nth == 1 ? 1u : 0u,
              log.count(LM_EMERGENCY, "Unexpected error in obs/agent/job_frame/thread_helper.cpp:"));
    EXPECT_EQ(nth == 1 ? 1u : 0u, log.count(", _running is NULL:\n"));
  }
  EXPECT_FALSE(work.finished);
}

TEST(thread_helper, starting_hook_runs_on_the_new_thread_before_spawn_returns) {
  struct Helper : Thread_Helper {
    using Thread_Helper::Thread_Helper;
    // The destructor of the base joins when this part is gone already.
    ~Helper() override { join(); }
    void handle_starting() override { started_by = pthread_self(); }
    pthread_t started_by{};
  };
  Work work;
  Helper helper(JOINABLE, ACE_DEFAULT_THREAD_PRIORITY);
  ASSERT_NE(-1, helper.spawn(&Work::run, &work));
  work.began.wait();
  EXPECT_TRUE(pthread_equal(helper.started_by, work.thread));
  work.go_on.signal();
}

TEST(thread_helper, spawn_waits_for_the_starting_hook) {
  struct Helper : Thread_Helper {
    using Thread_Helper::Thread_Helper;
    ~Helper() override { join(); }
    // Waits for what is signalled when `spawn` has returned: in vain.
    void handle_starting() override {
      ACE_Time_Value limit(0, 100000);
      returned_before = returned.wait(&limit, 0) == 0;
    }
    ACE_Manual_Event returned;
    std::atomic<bool> returned_before{false};
  };
  Work work;
  Helper helper(JOINABLE, ACE_DEFAULT_THREAD_PRIORITY);
  ASSERT_NE(-1, helper.spawn(&Work::run_through, &work));
  helper.returned.signal();
  helper.join();
  EXPECT_FALSE(helper.returned_before);
  EXPECT_TRUE(work.finished);
}

TEST(thread_helper, flags_and_priority_reach_the_thread_manager) {
  Work work;
  module_testing::Watched_Spawns& spawns = module_testing::Watched_Spawns::instance();
  for (const long flags : {JOINABLE, DETACHED}) {
    spawns.clear();
    Thread_Helper helper(flags, 0);
    ASSERT_NE(-1, helper.spawn(&Work::run_through, &work));
    helper.join();
    ACE_Thread_Manager::instance()->wait();
    const std::vector<module_testing::Asked_Spawn> expected = {{flags, 0, -1}};
    EXPECT_TRUE(expected == spawns.asked());
  }
}

// Its starter has been answered 0 by then: it runs, or nobody ever learns that it did not.
TEST(thread_helper, thread_that_starts_without_memory_runs_its_function) {
  struct Helper : Thread_Helper {
    using Thread_Helper::Thread_Helper;
    ~Helper() override { join(); }
    void handle_starting() override { module_testing::allocations_left = 0; }
  };
  for (const long flags : {JOINABLE, DETACHED}) {
    Work work;
    work.go_on.signal();
    Helper helper(flags, ACE_DEFAULT_THREAD_PRIORITY);
    ASSERT_NE(-1, helper.spawn(&Work::run, &work));
    helper.join();
    ACE_Thread_Manager::instance()->wait();
    EXPECT_TRUE(work.finished) << flags;
  }
}

TEST(thread_helper, exception_ends_the_thread_and_no_more) {
  Work work;
  Thread_Helper helper(JOINABLE, ACE_DEFAULT_THREAD_PRIORITY);
  ASSERT_NE(-1, helper.spawn(&Work::fail, &work));
  helper.join();
  EXPECT_FALSE(helper.running());
}

std::string name_of_this_thread() {
  char name[64] = {};
  pthread_getname_np(pthread_self(), name, sizeof(name));
  return name;
}

/// Sets a name and gives this thread its old one back.
struct Named {
  explicit Named(const std::string& name) {
    set_thread_name(name.c_str(), pthread_self());
    now = name_of_this_thread();
  }
  ~Named() { pthread_setname_np(pthread_self(), before.c_str()); }
  std::string before = name_of_this_thread();
  std::string now;
};

TEST(thread_name, fifteen_characters_fit) {
  module_testing::Log_Sink log;
  EXPECT_EQ("123456789012345", Named("123456789012345").now);
  EXPECT_EQ("AsyncObsLister", Named("AsyncObsLister").now);
  EXPECT_TRUE(log.empty());
}

TEST(thread_name, longer_name_is_cut_with_one_warning) {
  for (const char* name : {"1234567890123456", "12345678901234567"}) {
    module_testing::Log_Sink log;
    EXPECT_EQ("123456789012345", Named(name).now);
    ASSERT_EQ(1u, log.lines().size());
    EXPECT_EQ(LM_WARNING, log.lines()[0].priority);
    EXPECT_EQ("Thread name(" + std::string(name) + ") is too long, truncate to 15 chars.\n", log.lines()[0].text);
  }
}

/// A thread that has ended and waits for its join: there is nobody left who could be named.
class Ended_Thread {
public:
  Ended_Thread() {
    started_ = pthread_create(&thread, nullptr, &tell_task, this) == 0;
    if (!started_)
      return;
    task_.wait(0);
    // Its end in the system comes behind all that the thread can tell by itself.
    while (::syscall(SYS_tgkill, ::getpid(), task_.load(), 0) == 0)
      ::sched_yield();
  }
  ~Ended_Thread() {
    if (started_)
      pthread_join(thread, nullptr);
  }
  Ended_Thread(const Ended_Thread&) = delete;
  Ended_Thread& operator=(const Ended_Thread&) = delete;
  bool started() const { return started_; }

  pthread_t thread{};

private:
  static void* tell_task(void* self) {
    std::atomic<long>& task = static_cast<Ended_Thread*>(self)->task_;
    task = ::syscall(SYS_gettid);
    task.notify_all();
    return nullptr;
  }

  bool started_ = false;
  std::atomic<long> task_{0};
};

TEST(thread_name, thread_that_has_ended_is_an_error_with_its_code) {
  const Ended_Thread ended;
  ASSERT_TRUE(ended.started());
  module_testing::Log_Sink log;
  set_thread_name("123456789012345", ended.thread);
  const std::vector<module_testing::Log_Line> lines = log.lines();
  ASSERT_EQ(1u, lines.size());
  EXPECT_EQ(LM_ERROR, lines[0].priority);
  EXPECT_EQ("Failed to set thread name(123456789012345): " + std::to_string(ENOENT) + "\n", lines[0].text);
}

TEST(thread_name, error_behind_the_cut_shows_the_whole_name) {
  const Ended_Thread ended;
  ASSERT_TRUE(ended.started());
  module_testing::Log_Sink log;
  set_thread_name("1234567890123456", ended.thread);
  const std::vector<module_testing::Log_Line> lines = log.lines();
  ASSERT_EQ(2u, lines.size());
  EXPECT_EQ(LM_WARNING, lines[0].priority);
  EXPECT_EQ("Thread name(1234567890123456) is too long, truncate to 15 chars.\n", lines[0].text);
  EXPECT_EQ(LM_ERROR, lines[1].priority);
  EXPECT_EQ("Failed to set thread name(1234567890123456): " + std::to_string(ENOENT) + "\n", lines[1].text);
}

} // namespace
