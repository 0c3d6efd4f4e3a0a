#include "platform/s3/request_gate.h"

#include "platform/http/cancellation.h"
#include "sdk/base/clock.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <map>
#include <tuple>

namespace s3 {
namespace {

/// How often who waits looks whether anybody still wants its request.
constexpr double LOOK = 0.2;

double seconds_now() {
  const ACE_Time_Value now = Clock::instance().monotonic();
  return static_cast<double>(now.sec()) + static_cast<double>(now.usec()) / 1e6;
}

/// Less than a second, and never nothing: a wait takes the clock on.
ACE_Time_Value to_time(double seconds) {
  return ACE_Time_Value(0, static_cast<suseconds_t>(std::ceil(seconds * 1e6)));
}

typedef std::tuple<std::string, unsigned short, std::string> Gate_Key;

struct Gates {
  std::mutex mutex; ///< guards `gates`
  std::map<Gate_Key, std::weak_ptr<Request_Gate>> gates;
};

Gates& all_gates() {
  static Gates* gates = new Gates;
  return *gates;
}

} // namespace

std::shared_ptr<Request_Gate> Request_Gate::of(const std::string& host, unsigned short port,
                                               const std::string& access_key) {
  Gates& all = all_gates();
  const std::lock_guard<std::mutex> guard(all.mutex);
  for (auto one = all.gates.begin(); one != all.gates.end();)
    one = one->second.expired() ? all.gates.erase(one) : std::next(one);
  std::weak_ptr<Request_Gate>& known = all.gates[Gate_Key(host, port, access_key)];
  std::shared_ptr<Request_Gate> gate = known.lock();
  if (!gate) {
    gate = std::make_shared<Request_Gate>();
    known = gate;
  }
  return gate;
}

Request_Gate::Ticket Request_Gate::enter(const std::atomic<bool>* stop) {
  Ticket ticket;
  std::unique_lock<std::mutex> guard(mutex_);
  for (;;) {
    const double now = seconds_now();
    double wait = closed_until_ - now;
    if (wait <= 0) {
      pace_.tick(now);
      wait = pace_.wait(now);
      if (wait == 0) {
        ticket.generation = pace_.begin(now);
        ticket.valid = true;
        return ticket;
      }
    }
    if (wait > 0)
      Clock::instance().wait(guard, changed_, to_time(std::min(wait, LOOK)));
    else // It is no time that has to pass.
      changed_.wait_for(guard, std::chrono::duration<double>(LOOK));
    if (current_job_cancelled() || (stop != nullptr && *stop))
      return ticket;
  }
}

void Request_Gate::leave(const Ticket& ticket, bool refused) {
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    pace_.end(seconds_now(), ticket.generation, refused);
  }
  changed_.notify_one();
}

void Request_Gate::refuse(const Ticket& ticket) {
  const std::lock_guard<std::mutex> guard(mutex_);
  pace_.refuse(seconds_now(), ticket.generation);
}

void Request_Gate::close_for(unsigned seconds) {
  const std::lock_guard<std::mutex> guard(mutex_);
  closed_until_ = std::max(closed_until_, seconds_now() + seconds);
}

Request_Pace Request_Gate::pace() const {
  const std::lock_guard<std::mutex> guard(mutex_);
  return pace_;
}

} // namespace s3
