#include "platform/s3/refusal_noise.h"

#include <algorithm>

namespace s3 {
namespace {

/// More than this is no noise, and more than that not even by chance.
constexpr double MOST = 0.08;
constexpr double MOST_BY_CHANCE = 0.12;
/// Less is none.
constexpr double LEAST = 0.002;
/// Epochs remembered.
constexpr size_t REMEMBERED = 60;
/// A rate lies clearly below another one at this part of it: a service may take twice as much for a moment. A trial,
/// which looks at one rate alone for longer, need not go so far down.
constexpr double LOWER = 0.5;
constexpr double TRIAL = 0.66;
constexpr unsigned SURPRISES = 6;
constexpr unsigned MOST_SURPRISES = 24;
/// Refusals at the lower rate that make a share, and that would have been due where there are none.
constexpr double ENOUGH = 4;
constexpr double ENOUGH_BY_ITSELF = 6;
constexpr double DUE = 7;
/// The same share: at least this part of the other one.
constexpr double SAME = 0.4;
/// Refusals over which the share is averaged.
constexpr double KNOWN = 20;
/// Epochs until it is looked again, the first time, and at the most; they double with each time that it was still
/// there.
constexpr unsigned AGAIN = 30;
constexpr unsigned LONGEST_AGAIN = 960;

} // namespace

void Refusal_Noise::forget() {
  on_trial_ = looking_again_ = false;
  surprises_ = 0;
  epochs_.clear();
  top_ = 0;
  row_ = trial_ = Count();
}

void Refusal_Noise::raised() {
  surprises_ = 0;
  row_ = Count();
}

Refusal_Noise::Verdict Refusal_Noise::try_lower(double rate) {
  on_trial_ = true;
  trial_rate_ = rate * TRIAL;
  return TRY_LOWER;
}

Refusal_Noise::Verdict Refusal_Noise::end_epoch(double rate, double requests, double refused, bool surprising) {
  if (refused >= ENOUGH && refused > requests * MOST_BY_CHANCE) {
    const bool was_on_trial = on_trial_;
    forget();
    return was_on_trial ? LIMIT : NOTHING;
  }
  ++since_;
  const Count epoch{std::max(rate, requests), requests, refused};
  surprises_ += surprising;
  if (surprises_ > 0)
    row_.add(epoch);
  if (on_trial_) {
    trial_.add(epoch);
    return end_trial();
  }
  epochs_.push_back(epoch);
  if (epochs_.size() > REMEMBERED)
    epochs_.pop_front();
  top_ = 0;
  for (const Count& one : epochs_)
    top_ = std::max(top_, one.rate);
  if (surprises_ > 0 && is_noise()) {
    enough_surprises_ = SURPRISES;
    since_ = 0;
    again_ = AGAIN;
    return NOISE;
  }
  if (surprises_ >= enough_surprises_ && row_.refused >= ENOUGH && row_.share() <= MOST_BY_CHANCE) {
    expected_ = row_.share();
    return try_lower(requests);
  }
  if (share_ > 0 && surprises_ == 0 && since_ >= again_ && requests > 0) {
    looking_again_ = true;
    expected_ = share_;
    return try_lower(requests);
  }
  return NOTHING;
}

/// By the rates that came by themselves.
bool Refusal_Noise::is_noise() {
  Count high, low;
  for (const Count& one : epochs_)
    (one.rate <= top_ * LOWER ? low : high).add(one);
  if (low.refused < ENOUGH_BY_ITSELF || low.share() < SAME * high.share() || low.share() > MOST_BY_CHANCE)
    return false;
  share_ = std::clamp(low.share(), LEAST, MOST);
  return true;
}

Refusal_Noise::Verdict Refusal_Noise::end_trial() {
  const bool too_many = trial_.refused >= ENOUGH && trial_.share() > MOST_BY_CHANCE;
  const bool noise = trial_.refused >= ENOUGH && trial_.share() >= SAME * expected_ && !too_many;
  if (!noise && !too_many && trial_.requests * std::max(expected_, LEAST) < DUE)
    return NOTHING;
  if (looking_again_) {
    share_ = noise ? (trial_.share() + share_) / 2 : trial_.share() < LEAST ? 0 : trial_.share();
    again_ = noise ? std::min(again_ * 2, LONGEST_AGAIN) : AGAIN;
  } else {
    if (noise)
      share_ = std::clamp(trial_.share(), LEAST, MOST);
    enough_surprises_ = noise ? SURPRISES : std::min(enough_surprises_ * 2, MOST_SURPRISES);
    again_ = AGAIN;
  }
  const bool as_before = noise || looking_again_;
  since_ = 0;
  forget();
  return as_before ? NOISE : LIMIT;
}

void Refusal_Noise::learn(double requests, double refused) {
  if (active() || share_ == 0)
    return;
  const double known = KNOWN / share_;
  share_ = std::clamp((share_ * known + refused) / (known + requests), LEAST, MOST);
}

} // namespace s3
