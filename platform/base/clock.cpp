#include "sdk/base/clock.h"

#include "platform/job/current_job.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

namespace {

/// How often who sleeps looks whether its job is being cancelled.
constexpr std::chrono::milliseconds SLICE(200);

class Machine_Clock : public Clock {
public:
  time_t now() override { return std::chrono::system_clock::to_time_t(std::chrono::system_clock::now()); }

  ACE_Time_Value monotonic() override {
    using namespace std::chrono;
    const auto since = steady_clock::now().time_since_epoch();
    const auto whole = duration_cast<seconds>(since);
    return ACE_Time_Value(static_cast<time_t>(whole.count()),
                          static_cast<suseconds_t>(duration_cast<microseconds>(since - whole).count()));
  }

  void sleep(unsigned seconds) override {
    using namespace std::chrono;
    const auto end = steady_clock::now() + std::chrono::seconds(seconds);
    // The state is looked at behind each slice, never before the first: a loop that retries without a bound would
    // otherwise spin as soon as its job is cancelled.
    for (auto at = steady_clock::now(); at < end; at = steady_clock::now()) {
      std::this_thread::sleep_for(std::min<steady_clock::duration>(SLICE, end - at));
      if (is_current_job_canceling())
        return;
    }
  }
};

Machine_Clock& machine_clock() {
  // Never destroyed: detached threads may still sleep while the process ends.
  static Machine_Clock* clock = new Machine_Clock;
  return *clock;
}

std::atomic<Clock*> clock_in_force{nullptr};

} // namespace

Clock::~Clock() = default;

void Clock::wait(std::unique_lock<std::mutex>& lock, std::condition_variable& changed, const ACE_Time_Value& time) {
  using namespace std::chrono;
  const auto end = steady_clock::now() + seconds(time.sec()) + microseconds(time.usec());
  for (auto at = steady_clock::now(); at < end; at = steady_clock::now())
    if (changed.wait_until(lock, std::min<steady_clock::time_point>(at + SLICE, end)) == std::cv_status::no_timeout ||
        is_current_job_canceling())
      return;
}

Clock& Clock::instance() {
  Clock* clock = clock_in_force;
  return clock != nullptr ? *clock : machine_clock();
}

Clock* Clock::instance(Clock* clock) {
  return clock_in_force.exchange(clock);
}
