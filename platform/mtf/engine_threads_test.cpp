#include "platform/mtf/engine_threads.h"

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>

namespace {

struct engine_threads : testing::Test {
  /// A thread's work: goes on until it is told to end.
  void work() {
    ++begun;
    begun.notify_all();
    stop.wait(false);
    ++ended;
  }
  void tell_to_stop() {
    stop = true;
    stop.notify_all();
  }
  Engine_Threads::Failed failed() {
    return [this](const std::string& why) {
      texts += why + ";";
      tell_to_stop();
    };
  }

  std::atomic<int> begun{0};
  std::atomic<int> ended{0};
  std::atomic<bool> stop{false};
  std::string texts;
};

TEST_F(engine_threads, watch_that_throws_fails_the_run_and_is_not_asked_again) {
  Engine_Threads threads;
  int watched = 0;
  threads.run(
      [&] {
        for (int i = 0; i < 2; ++i)
          threads.start(
              "work", [this] { work(); }, failed());
      },
      [&](bool) {
        ++watched;
        throw std::runtime_error("no progress");
      },
      failed());
  EXPECT_EQ(2, ended);
  EXPECT_EQ(1, watched);
  EXPECT_EQ("no progress;", texts);
}

TEST_F(engine_threads, threads_that_were_started_are_joined_when_another_cannot_be) {
  Engine_Threads threads;
  threads.run(
      [&] {
        threads.start(
            "work", [this] { work(); }, failed());
        throw std::bad_alloc();
      },
      [](bool) {}, failed());
  EXPECT_EQ(1, ended);
  EXPECT_EQ("memory is short;", texts);
}

TEST_F(engine_threads, what_the_report_of_a_failure_throws_comes_when_all_have_ended) {
  Engine_Threads threads;
  const auto run = [&] {
    threads.run(
        [&] {
          threads.start(
              "work", [this] { work(); }, failed());
        },
        [](bool) { throw std::runtime_error("first"); },
        [this](const std::string&) {
          tell_to_stop();
          throw std::runtime_error("second");
        });
  };
  EXPECT_THROW(run(), std::runtime_error);
  EXPECT_EQ(1, ended);
}

TEST_F(engine_threads, destructor_joins) {
  {
    Engine_Threads threads;
    threads.start(
        "work", [this] { work(); }, failed());
    begun.wait(0);
    tell_to_stop();
  }
  EXPECT_EQ(1, ended);
}

} // namespace
