#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

class Job;

/// The threads of one engine's run. Each works for the job that the constructing thread works for. The constructing
/// thread starts and joins them.
class Engine_Threads {
public:
  Engine_Threads();
  /// All have been joined.
  ~Engine_Threads() = default;
  Engine_Threads(const Engine_Threads&) = delete;
  Engine_Threads& operator=(const Engine_Threads&) = delete;

  /// Starts a thread of `body`. `failed` hears of an exception that left it, or that it could not be started.
  void start(const std::string& name, std::function<void()> body, std::function<void(const std::string&)> failed);
  /// Waits until all have ended. Meanwhile calls `watch` ten times a second, about once a second with true.
  void join(const std::function<void(bool)>& watch);

private:
  Job* const job_;
  std::vector<std::thread> threads_;
  std::mutex mutex_; ///< guards `running_`
  std::condition_variable ended_;
  unsigned running_ = 0;
};
