#include "platform/mtf/engine_threads.h"

#include "sdk/job/job.h"

#include <pthread.h>

#include <chrono>
#include <new>

Engine_Threads::Engine_Threads() : job_(Job::current()) {}

void Engine_Threads::start(const std::string& name, std::function<void()> body,
                           std::function<void(const std::string&)> failed) {
  {
    std::lock_guard<std::mutex> guard(mutex_);
    ++running_;
  }
  auto top = [this, name, body = std::move(body), failed] {
    // The system's names have 15 bytes.
    pthread_setname_np(pthread_self(), name.substr(0, 15).c_str());
    Job::current(job_);
    try {
      body();
    } catch (const std::bad_alloc&) {
      failed("memory is short");
    } catch (const std::exception& e) {
      failed(e.what());
    }
    Job::current(nullptr);
    std::lock_guard<std::mutex> guard(mutex_);
    --running_;
    ended_.notify_all();
  };
  try {
    threads_.emplace_back(std::move(top));
  } catch (const std::exception& e) {
    {
      std::lock_guard<std::mutex> guard(mutex_);
      --running_;
    }
    failed(std::string("a thread cannot be started: ") + e.what());
  }
}

void Engine_Threads::join(const std::function<void(bool)>& watch) {
  auto told = std::chrono::steady_clock::now();
  for (;;) {
    {
      std::unique_lock<std::mutex> lock(mutex_);
      if (ended_.wait_for(lock, std::chrono::milliseconds(100), [this] { return running_ == 0; }))
        break;
    }
    const auto now = std::chrono::steady_clock::now();
    const bool due = now - told >= std::chrono::seconds(1);
    if (due)
      told = now;
    watch(due);
  }
  for (std::thread& thread : threads_)
    thread.join();
  threads_.clear();
}
