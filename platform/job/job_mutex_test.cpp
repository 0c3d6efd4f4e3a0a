#include "sdk/job/job_mutex.h"

#include "platform/job/state_folder.h"
#include "sdk/job/job.h"

#include <ace/Guard_T.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <future>
#include <thread>
#include <vector>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

class Idle_Job : public Job {
public:
  Idle_Job() : Job(Job_Definition_var(new Job_Definition)) { activity().state = JOB_STATE_RUNNING; }
};

TEST(Job_Mutex_In_Process, one_name_is_one_mutex_while_anybody_holds_it) {
  const std::shared_ptr<Job_Mutex> a = Job_Mutex::get("x");
  EXPECT_EQ(a, Job_Mutex::get("x"));
  EXPECT_NE(a, Job_Mutex::get("y"));
}

TEST(Job_Mutex_In_Process, held_mutex_is_busy_for_everybody_else) {
  const std::shared_ptr<Job_Mutex> mutex = Job_Mutex::get("x");
  ASSERT_EQ(0, mutex->acquire());
  errno = 0;
  EXPECT_EQ(-1, mutex->tryacquire());
  EXPECT_EQ(EBUSY, errno);
  std::thread([] { EXPECT_EQ(-1, Job_Mutex::get("x")->tryacquire()); }).join();
  EXPECT_EQ(0, Job_Mutex::get("y")->tryacquire());
  EXPECT_EQ(0, mutex->release());
  EXPECT_EQ(0, mutex->tryacquire());
  EXPECT_EQ(0, mutex->release());
}

TEST(Job_Mutex_In_Process, release_of_a_free_mutex_is_an_error) {
  EXPECT_EQ(-1, Job_Mutex::get("x")->release());
}

TEST(Job_Mutex_In_Process, waiting_thread_gets_it_when_it_is_released) {
  const std::shared_ptr<Job_Mutex> mutex = Job_Mutex::get("x");
  ASSERT_EQ(0, mutex->acquire());
  std::atomic<bool> released{false};
  auto waiting = std::async(std::launch::async, [&] {
    ACE_Guard<Job_Mutex> guard(*Job_Mutex::get("x"));
    EXPECT_TRUE(guard.locked());
    return released.load();
  });
  released = true;
  EXPECT_EQ(0, mutex->release());
  EXPECT_TRUE(waiting.get());
}

TEST(Job_Mutex_In_Process, threads_never_work_at_once) {
  int inside = 0;
  int worst = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i)
    threads.emplace_back([&] {
      for (int round = 0; round < 200; ++round) {
        const std::shared_ptr<Job_Mutex> mutex = Job_Mutex::get("shared");
        ASSERT_EQ(0, mutex->acquire());
        worst = std::max(worst, ++inside);
        --inside;
        ASSERT_EQ(0, mutex->release());
      }
    });
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(1, worst);
}

TEST(Job_Mutex_In_Process, waiting_ends_when_the_job_is_cancelled) {
  const std::shared_ptr<Job_Mutex> mutex = Job_Mutex::get("x");
  ASSERT_EQ(0, mutex->acquire());
  const Job_var job(new Idle_Job, false);
  auto waiting = std::async(std::launch::async, [&] {
    Job::current(job.get());
    const int result = Job_Mutex::get("x")->acquire();
    const int error = errno;
    Job::current(nullptr);
    return result == -1 ? error : 0;
  });
  EXPECT_EQ(0, job->state_i(JOB_STATE_CANCELING));
  EXPECT_EQ(ECANCELED, waiting.get());
  EXPECT_EQ(0, mutex->release());
}

class Job_Mutex_Across_Processes : public ::testing::Test {
protected:
  void SetUp() override {
    char name[] = "/tmp/job_mutex_XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(name));
    folder = name;
    set_state_folder(folder);
  }
  void TearDown() override {
    set_state_folder("");
    const std::string command = "rm -rf '" + folder + "'";
    EXPECT_EQ(0, system(command.c_str()));
  }

  /// Runs `body` in another process and answers its exit code.
  template <typename BODY>
  static int elsewhere(BODY body) {
    const pid_t pid = fork();
    if (pid == 0)
      _exit(body());
    int status = 0;
    EXPECT_EQ(pid, waitpid(pid, &status, 0));
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  static int try_it(const char* name) {
    return elsewhere([name] {
      const std::shared_ptr<Job_Mutex> mutex = Job_Mutex::get(name);
      if (mutex->tryacquire() != 0)
        return errno == EBUSY ? 1 : 2;
      return mutex->release() == 0 ? 0 : 3;
    });
  }

  std::string folder;
};

TEST_F(Job_Mutex_Across_Processes, lock_held_by_another_process_is_busy_until_that_ends) {
  int ready[2];
  int finish[2];
  ASSERT_EQ(0, pipe(ready));
  ASSERT_EQ(0, pipe(finish));
  const pid_t pid = fork();
  if (pid == 0) {
    close(finish[1]);
    const std::shared_ptr<Job_Mutex> mutex = Job_Mutex::get("source/1");
    char byte = static_cast<char>(mutex->acquire());
    if (write(ready[1], &byte, 1) != 1)
      _exit(1);
    // Ends without releasing, as a process that was killed.
    _exit(read(finish[0], &byte, 1) == 0 ? 0 : 1);
  }
  close(finish[0]);
  char byte = 1;
  ASSERT_EQ(1, read(ready[0], &byte, 1));
  ASSERT_EQ(0, byte);

  const std::shared_ptr<Job_Mutex> mutex = Job_Mutex::get("source/1");
  ASSERT_EQ(-1, mutex->tryacquire());
  ASSERT_EQ(EBUSY, errno);
  EXPECT_EQ(0, Job_Mutex::get("source/2")->tryacquire());

  auto waiting = std::async(std::launch::async, [&] { return mutex->acquire(); });
  close(finish[1]);
  int status = 0;
  EXPECT_EQ(pid, waitpid(pid, &status, 0));
  EXPECT_EQ(0, status);
  EXPECT_EQ(0, waiting.get());
  EXPECT_EQ(0, mutex->release());
  close(ready[0]);
  close(ready[1]);
}

TEST_F(Job_Mutex_Across_Processes, released_lock_is_free_for_others) {
  EXPECT_EQ(0, try_it("a"));
  EXPECT_EQ(0, try_it("a"));
}

TEST_F(Job_Mutex_Across_Processes, names_of_any_bytes_and_any_length_work) {
  const std::string odd("../a/b\0\xFF", 8);
  const std::string long_one(5000, 'x');
  const std::shared_ptr<Job_Mutex> a = Job_Mutex::get(odd);
  const std::shared_ptr<Job_Mutex> b = Job_Mutex::get(long_one + "1");
  const std::shared_ptr<Job_Mutex> c = Job_Mutex::get(long_one + "2");
  EXPECT_EQ(0, a->tryacquire());
  EXPECT_EQ(0, b->tryacquire());
  EXPECT_EQ(0, c->tryacquire());
  struct stat status;
  EXPECT_EQ(0, stat((folder + "/locks/%2E%2E%2Fa%2Fb%00%FF.lock").c_str(), &status));
  EXPECT_EQ(0600u, status.st_mode & 0777);
  a->release();
  b->release();
  c->release();
}

TEST_F(Job_Mutex_Across_Processes, folder_that_cannot_be_used_fails_and_leaves_the_mutex_free) {
  set_state_folder(folder + "/missing/state");
  const std::shared_ptr<Job_Mutex> mutex = Job_Mutex::get("a");
  EXPECT_EQ(-1, mutex->acquire());
  EXPECT_EQ(ENOENT, errno);
  set_state_folder(folder);
  EXPECT_EQ(0, mutex->tryacquire());
  EXPECT_EQ(0, mutex->release());
}

} // namespace
