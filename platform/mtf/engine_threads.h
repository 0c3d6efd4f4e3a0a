#pragma once

#include <condition_variable>
#include <exception>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

class Job;

/// The threads of one engine's run. Each works for the job that the constructing thread works for. The constructing
/// thread starts and joins them. It is the last member of whatever owns what the threads work on, so that it goes first.
class Engine_Threads {
public:
  typedef std::function<void(const std::string&)> Failed;

  Engine_Threads();
  /// Joins what is left: threads that were started outside of `run`.
  ~Engine_Threads();
  Engine_Threads(const Engine_Threads&) = delete;
  Engine_Threads& operator=(const Engine_Threads&) = delete;

  /// Starts a thread of `body`. `failed` hears of an exception that left it, or that it could not be started.
  void start(const std::string& name, std::function<void()> body, Failed failed);
  /// Calls `starts`, which starts the threads, and waits until all have ended. Meanwhile calls `watch` ten times a
  /// second, about once a second with true. `failed`, which should make the threads end, hears of an exception of
  /// either; the wait goes on without the watch. What `failed` itself throws leaves `run` when all threads have ended.
  void run(const std::function<void()>& starts, const std::function<void(bool)>& watch, const Failed& failed);

private:
  bool attempt(const std::function<void()>& step, const Failed& failed);
  void join();

  Job* const job_;
  std::vector<std::thread> threads_;
  std::mutex mutex_; ///< guards `running_`
  std::condition_variable ended_;
  unsigned running_ = 0;
  std::exception_ptr thrown_;
};
