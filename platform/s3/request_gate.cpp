#include "platform/s3/request_gate.h"

#include "platform/http/cancellation.h"
#include "sdk/base/clock.h"

#include <algorithm>
#include <chrono>
#include <map>
#include <tuple>

namespace s3 {
namespace {

/// How often who waits looks whether its job is being cancelled.
constexpr double LOOK = 0.2;

/// Fractions of a second count here, which the injected clock does not sleep for.
double seconds_now() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

long long clock_now() {
  const ACE_Time_Value now = Clock::instance().monotonic();
  return static_cast<long long>(now.sec()) * 1000 + now.usec() / 1000;
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

Request_Gate::Ticket Request_Gate::enter() {
  Ticket ticket;
  std::unique_lock<std::mutex> guard(mutex_);
  for (;;) {
    const long long closed = closed_until_ - clock_now();
    if (closed > 0) {
      guard.unlock();
      Clock::instance().sleep(static_cast<unsigned>((closed + 999) / 1000));
      if (current_job_cancelled())
        return ticket;
      guard.lock();
      continue;
    }
    const double now = seconds_now();
    pace_.tick(now);
    const double wait = pace_.wait(now);
    if (wait == 0) {
      ticket.generation = pace_.begin(now);
      ticket.valid = true;
      return ticket;
    }
    changed_.wait_for(guard, std::chrono::duration<double>(wait < 0 ? LOOK : std::min(wait, LOOK)));
    if (current_job_cancelled())
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
  closed_until_ = std::max(closed_until_, clock_now() + 1000ll * seconds);
}

Request_Pace Request_Gate::pace() const {
  const std::lock_guard<std::mutex> guard(mutex_);
  return pace_;
}

} // namespace s3
