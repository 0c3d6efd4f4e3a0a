#include "platform/mtf/engine_threads.h"

#include "sdk/job/job.h"

#include <pthread.h>

#include <chrono>
#include <new>
#include <utility>

Engine_Threads::Engine_Threads() : job_(Job::current()) {}

Engine_Threads::~Engine_Threads() {
  join();
}

void Engine_Threads::start(const std::string& name, std::function<void()> body, Failed failed) {
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

bool Engine_Threads::attempt(const std::function<void()>& step, const Failed& failed) {
  try {
    try {
      step();
      return true;
    } catch (const std::bad_alloc&) {
      failed("memory is short");
    } catch (const std::exception& e) {
      failed(e.what());
    }
  } catch (...) {
    if (!thrown_)
      thrown_ = std::current_exception();
  }
  return false;
}

void Engine_Threads::run(const std::function<void()>& starts, const std::function<void(bool)>& watch,
                         const Failed& failed) {
  attempt(starts, failed);
  auto told = std::chrono::steady_clock::now();
  for (bool watching = true;;) {
    {
      std::unique_lock<std::mutex> lock(mutex_);
      if (ended_.wait_for(lock, std::chrono::milliseconds(100), [this] { return running_ == 0; }))
        break;
    }
    const auto now = std::chrono::steady_clock::now();
    const bool due = now - told >= std::chrono::seconds(1);
    if (due)
      told = now;
    watching = watching && attempt([&] { watch(due); }, failed);
  }
  join();
  if (thrown_)
    std::rethrow_exception(std::exchange(thrown_, nullptr));
}

void Engine_Threads::join() {
  for (std::thread& thread : threads_)
    thread.join();
  threads_.clear();
}
