#include "sdk/base/exponential_backoff.h"

#include <atomic>
#include <limits>
#include <random>

namespace {

unsigned draw_from_system(unsigned n) {
  thread_local std::mt19937 engine{std::random_device{}()};
  return n < 2 ? 0 : std::uniform_int_distribution<unsigned>(0, n - 1)(engine);
}

std::atomic<unsigned (*)(unsigned)> random_source{&draw_from_system};

} // namespace

void set_backoff_random(unsigned (*draw)(unsigned n)) {
  random_source = draw != nullptr ? draw : &draw_from_system;
}

Exponential_Backoff_Iterator::Exponential_Backoff_Iterator() = default;

Exponential_Backoff_Iterator::Exponential_Backoff_Iterator(unsigned slot_time, ACE_UINT32 max_retries, unsigned capped,
                                                           bool jitter)
    : slot_time_(slot_time), capped_(capped), jitter_(jitter), left_(max_retries) {
  draw();
}

void Exponential_Backoff_Iterator::draw() {
  wait_ = 0;
  if (at_end())
    return;
  const unsigned long long top = std::numeric_limits<unsigned>::max();
  unsigned long long wait = slot_time_;
  // Once the step is beyond every width that a wait can have, more doubling changes nothing.
  wait = step_ < 32 ? wait << step_ : (slot_time_ == 0 ? 0 : top);
  if (capped_ != 0 && wait > capped_)
    wait = capped_;
  if (wait > top)
    wait = top;
  wait_ = static_cast<unsigned>(wait);
  if (jitter_ && wait_ > 1) {
    const unsigned half = wait_ / 2;
    wait_ = wait_ - half + random_source.load()(half + 1) % (half + 1);
  }
}

Exponential_Backoff_Iterator& Exponential_Backoff_Iterator::operator++() {
  if (at_end())
    return *this;
  cumulation_ += wait_;
  if (left_ != UNLIMITED_RETRIES)
    --left_;
  if (step_ != std::numeric_limits<ACE_UINT32>::max())
    ++step_;
  draw();
  return *this;
}

bool Exponential_Backoff_Iterator::operator==(const Exponential_Backoff_Iterator& other) const {
  if (at_end() || other.at_end())
    return at_end() == other.at_end();
  return slot_time_ == other.slot_time_ && capped_ == other.capped_ && jitter_ == other.jitter_ &&
         left_ == other.left_ && step_ == other.step_;
}
