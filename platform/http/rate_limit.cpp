#include "platform/http/rate_limit.h"

#include "sdk/base/clock.h"

#include <algorithm>
#include <cmath>

namespace {

/// Unused time that is kept, in seconds: 2 % of ten seconds.
constexpr double CREDIT = 0.2;

double seconds_now() {
  const ACE_Time_Value now = Clock::instance().monotonic();
  return static_cast<double>(now.sec()) + static_cast<double>(now.usec()) / 1e6;
}

} // namespace

unsigned long Rate_Limit::piece() const {
  return static_cast<unsigned long>(std::clamp<unsigned long long>(rate_ / 32, 1024, 4ull << 20));
}

double Rate_Limit::begin() {
  const std::lock_guard<std::mutex> guard(mutex_);
  const double now = seconds_now();
  if (paid_at_ > now)
    return paid_at_ - now;
  paid_at_ = std::max(paid_at_, now - CREDIT) + static_cast<double>(piece()) / static_cast<double>(rate_);
  return 0;
}

void Rate_Limit::end(unsigned long long moved) {
  const std::lock_guard<std::mutex> guard(mutex_);
  paid_at_ += (static_cast<double>(moved) - static_cast<double>(piece())) / static_cast<double>(rate_);
}

void Rate_Limit::wait(double seconds) {
  std::unique_lock<std::mutex> guard(mutex_);
  const double whole = std::floor(seconds);
  Clock::instance().wait(
      guard, changed_,
      ACE_Time_Value(static_cast<time_t>(whole),
                     static_cast<suseconds_t>(std::min(std::ceil((seconds - whole) * 1e6), 999999.0))));
}
