#include "platform/s3/side_threads.h"

#include "sdk/base/clock.h"

#include <pthread.h>

#include <system_error>

namespace s3 {

bool Side_Threads::start(std::function<void()> body) {
  try {
    threads_.emplace_back([this, body = std::move(body)] {
      pthread_setname_np(pthread_self(), name_);
      job_.adopt();
      body();
    });
  } catch (const std::system_error&) {
    return false;
  }
  return true;
}

void Side_Threads::tell_to_stop() {
  stopping_ = true;
  wake_.notify_all();
}

void Side_Threads::stop() {
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    tell_to_stop();
  }
  for (std::thread& thread : threads_)
    thread.join();
  threads_.clear();
}

void Side_Threads::pause(unsigned seconds) {
  Clock& clock = Clock::instance();
  const ACE_Time_Value end = clock.monotonic() + ACE_Time_Value(static_cast<time_t>(seconds));
  std::unique_lock<std::mutex> lock(mutex_);
  for (ACE_Time_Value now = clock.monotonic(); now < end && !stopping_ && !current_job_cancelled();
       now = clock.monotonic())
    clock.wait(lock, wake_, end - now);
}

} // namespace s3
