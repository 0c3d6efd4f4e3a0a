#include "platform/s3/service_watch.h"

#include <utility>

void Service_Watch::answered() {
  if (!failing_.load(std::memory_order_relaxed) && !any_denied_.load(std::memory_order_relaxed))
    return;
  const std::lock_guard<std::mutex> guard(mutex_);
  failing_ = false;
  any_denied_ = false;
  denied_ = 0;
  last_denied_.clear();
  probe_ = nullptr;
}

void Service_Watch::begin(const std::string& why, double now, Probe probe) {
  why_ = why;
  if (failing_)
    return;
  since_ = now;
  next_probe_ = now;
  probe_ = std::move(probe);
  failing_ = true;
}

void Service_Watch::failed(const std::string& why, double now, Probe probe) {
  const std::lock_guard<std::mutex> guard(mutex_);
  begin(why, now, std::move(probe));
}

void Service_Watch::denied(const std::string& what, const std::string& why, double now, Probe probe) {
  const std::lock_guard<std::mutex> guard(mutex_);
  if (what == last_denied_)
    return;
  last_denied_ = what;
  any_denied_ = true;
  if (++denied_ == 1)
    denied_since_ = now;
  if (denied_ >= MANY)
    begin(why, denied_since_, std::move(probe));
}

bool Service_Watch::look(double now) {
  if (gone())
    return true;
  if (!failing())
    return false;
  Probe probe;
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    if (failing_ && now >= next_probe_) {
      probe = probe_;
      next_probe_ = now + PROBE_EVERY;
    }
  }
  if (probe)
    probe();
  const std::lock_guard<std::mutex> guard(mutex_);
  if (!failing_)
    return false;
  if (probe)
    ++outages_;
  if (now - since_ >= limit_)
    gone_ = true;
  return gone_;
}

std::string Service_Watch::message() const {
  const std::lock_guard<std::mutex> guard(mutex_);
  return "The service is gone: nothing was answered for " + std::to_string(limit_) + " seconds. Last: " + why_;
}
