#include "platform/s3/request_pace.h"

#include <algorithm>
#include <cmath>
#include <numeric>

namespace s3 {
namespace {

constexpr double EPOCH = 1.0;
/// What is left of the rate at each cut; of the requests in flight it is less, for those end by themselves.
constexpr double RATE_CUT = 0.85;
constexpr double FLIGHT_CUT = 0.75;
/// Where the rate stays after a cut: this part of what the service took.
constexpr double BELOW = 0.97;
/// Epochs and requests without a refusal before the rate feels its way up (where requests are few, the longer time
/// will do), and the first step, which doubles up to the longest.
constexpr unsigned QUIET = 4;
constexpr unsigned QUIET_REQUESTS = 150;
constexpr unsigned LONG_QUIET = 20;
constexpr double FIRST_STEP = 0.005;
constexpr double LONGEST_STEP = 0.5;
/// Where there is noise, it takes longer to see that there is too much.
constexpr double LONGEST_NOISY_STEP = 0.02;
constexpr double SEEKING_STEP = 1.0;
constexpr double CLOSING_STEP = 0.1;
constexpr double LEAST_RATE = 1.0;
/// Seconds that a request is thought to take while none has been taken yet.
constexpr double BLIND_GUESS = 0.1;
/// A rate is in use when this part of it is.
constexpr double ASKED_FOR = 0.7;
/// Epochs over which it shows what a service takes in the long run.
constexpr size_t SUSTAINED = 5;
/// So far behind its time a request may begin, so that a late wake-up is made good.
constexpr double SLACK = 0.1;
constexpr size_t REMEMBERED = 512;
/// Refusals among the requests that are taken as they come, and how many at once; where the service refuses some
/// whatever the rate, so much more than these.
constexpr double TOLERATED = 0.002;
constexpr double MOST_CREDIT = 1;
constexpr double NOISE_TOLERATED = 1.5;
constexpr double MOST_NOISE_CREDIT = 6;
/// While a lower rate is tried, and while the service's rate is sought, a smaller part of refusals than this, or a
/// single one, says nothing: too high a rate shows by far more of them.
constexpr double FEW = 0.12;
constexpr double FEWEST = 2;

} // namespace

double Request_Pace::wait(double now) const {
  if (limit_ > 0 && in_flight_ >= std::max(1.0, std::floor(limit_)))
    return -1;
  return rate_ > 0 ? std::max(0.0, next_at_ - now) : 0;
}

unsigned long Request_Pace::begin(double now) {
  tick(now);
  ++in_flight_;
  if (rate_ > 0)
    next_at_ = std::max(next_at_, now - SLACK) + 1 / rate_;
  return generation_;
}

void Request_Pace::end(double now, unsigned long generation, bool refused) {
  tick(now);
  if (refused) {
    refuse(now, generation);
  } else {
    ++taken_;
    ++calm_;
    const double noise = noise_.share();
    credit_ = std::min(noise > 0 ? MOST_NOISE_CREDIT : MOST_CREDIT, credit_ + TOLERATED + noise * NOISE_TOLERATED);
    if (rate_ == 0) {
      taken_at_.push_back(now);
      if (taken_at_.size() > REMEMBERED)
        taken_at_.pop_front();
    }
    if (limit_ > 0 && in_flight_ + 1 >= limit_)
      limit_ += 1 / limit_;
  }
  if (in_flight_ > 0)
    --in_flight_;
}

void Request_Pace::refuse(double now, unsigned long generation) {
  tick(now);
  ++refused_;
  if (generation != generation_)
    return;
  if (credit_ >= 1) {
    credit_ -= 1;
    return;
  }
  const bool few = refused_ <= std::max(FEWEST, FEW * (taken_ + refused_));
  const bool seeking = phase_ == SEEKING && rate_ > 0 && refused_ <= 1;
  if (few && (noise_.on_trial() || seeking))
    return;
  quiet_ = calm_ = steps_ = 0;
  cut(now);
}

void Request_Pace::cut(double now) {
  if (!noise_.active() && cuts_ == 0)
    note_place();
  if (noise_.share() > 0)
    credit_ = MOST_NOISE_CREDIT / 2;
  ++generation_;
  ++cuts_;
  const double flying = limit_ > 0 ? std::min(limit_, static_cast<double>(in_flight_)) : in_flight_;
  limit_ = std::max(1.0, flying * FLIGHT_CUT);
  if (rate_ == 0) {
    // What was taken lately is the best guess; a service that admits bursts is found out by the cuts that follow.
    const double span = taken_at_.size() > 1 ? now - taken_at_.front() : 0;
    rate_ = span > 0 ? static_cast<double>(taken_at_.size()) / span : in_flight_ / BLIND_GUESS;
    taken_at_.clear();
  }
  rate_ = std::max(LEAST_RATE, rate_ * RATE_CUT);
  next_at_ = std::max(next_at_, now) + 1 / rate_;
}

void Request_Pace::tick(double now) {
  if (epoch_ < 0) {
    epoch_ = now;
    return;
  }
  // A long silence is no evidence: it counts as few quiet epochs.
  for (unsigned passed = 0; now - epoch_ >= EPOCH; ++passed) {
    if (passed >= QUIET) {
      epoch_ = now;
      break;
    }
    end_epoch();
    epoch_ += EPOCH;
  }
}

void Request_Pace::note_place() {
  rate_to_go_back_to_ = rate_;
  limit_to_go_back_to_ = limit_;
}

void Request_Pace::end_epoch() {
  if (rate_ > 0) {
    if (cuts_ > 0) {
      settle();
    } else {
      ++quiet_;
      // A rate that nobody asks for is not tried.
      if (taken_ >= rate_ * EPOCH * ASKED_FOR && !noise_.on_trial())
        feel_up();
    }
    sustained_.push_back(taken_ / EPOCH / (1 - noise_.share()));
    if (sustained_.size() > SUSTAINED)
      sustained_.pop_front();
  }
  weigh();
  rate_before_ = rate_;
  taken_ = refused_ = cuts_ = 0;
}

/// What the refusals have to do with the rate, and what follows for it.
void Request_Pace::weigh() {
  const bool active = noise_.active();
  const double top = noise_.top();
  switch (noise_.end_epoch(rate_before_, taken_ + refused_, refused_, cuts_ > 0)) {
  case Refusal_Noise::NOTHING:
    // A rate that has not been raised since it was found lies below what the service takes.
    if (cuts_ == 0 && (rate_ == 0 || (phase_ == HOLDING && steps_ == 0)))
      noise_.learn(taken_ + refused_, refused_);
    break;
  case Refusal_Noise::TRY_LOWER:
    if (!active)
      note_place();
    rate_settled_ = rate_;
    rate_ = noise_.trial_rate();
    break;
  case Refusal_Noise::NOISE:
    rate_ = rate_to_go_back_to_ == 0 ? 0 : std::max(rate_to_go_back_to_, top / EPOCH);
    limit_ = limit_to_go_back_to_ == 0 ? 0 : std::max(limit_, limit_to_go_back_to_);
    phase_ = rate_ == 0 ? SEEKING : CLOSING_IN;
    credit_ = MOST_NOISE_CREDIT / 2;
    sustained_.clear();
    break;
  case Refusal_Noise::LIMIT:
    if (cuts_ == 0)
      rate_ = rate_settled_;
    break;
  }
}

/// What an epoch in which the service refused says about how much it takes.
void Request_Pace::settle() {
  const double cut = rate_;
  // Those who were refused wait: an epoch in which little was asked for says nothing.
  const double begun = taken_ / EPOCH / (1 - noise_.share());
  const double taken = taken_ >= cut * EPOCH / 2 ? begun * BELOW : cut;
  if (rate_before_ == 0) {
    rate_ = begun * BELOW;
    phase_ = SEEKING;
  } else if (phase_ == SEEKING || cuts_ > 1) {
    rate_ = std::min(taken, rate_before_ * BELOW);
    phase_ = taken_ == 0 ? SEEKING : CLOSING_IN;
  } else {
    // The rate was nearly right. What was taken for some time counts, for a service may admit a burst before.
    if (phase_ == CLOSING_IN && !sustained_.empty())
      sustained_.erase(sustained_.begin(), sustained_.end() - 1);
    const double sum = std::accumulate(sustained_.begin(), sustained_.end(), 0.0);
    const double kept = sustained_.empty() ? rate_before_ : sum / static_cast<double>(sustained_.size());
    rate_ = std::min(kept, rate_before_) * BELOW;
    // After a long step the truth may lie well above.
    phase_ = phase_ == CLOSING_IN && last_step_ > CLOSING_STEP ? CLOSING_IN : HOLDING;
  }
  last_step_ = 0;
  rate_ = std::max(LEAST_RATE, rate_);
}

void Request_Pace::feel_up() {
  if (phase_ == SEEKING)
    last_step_ = SEEKING_STEP;
  else if (phase_ == CLOSING_IN || quiet_ >= LONG_QUIET || (quiet_ >= QUIET && calm_ >= QUIET_REQUESTS))
    last_step_ = std::min(phase_ == HOLDING && noise_.share() > 0 ? LONGEST_NOISY_STEP : LONGEST_STEP,
                          (phase_ == CLOSING_IN ? CLOSING_STEP : FIRST_STEP) * std::pow(2, std::min(steps_++, 16u)));
  else
    return;
  rate_ *= 1 + last_step_;
  noise_.raised();
}

} // namespace s3
