#pragma once

#include "platform/s3/refusal_noise.h"

#include <deque>

namespace s3 {

/// How many requests a service takes, learned from what it refuses: a bound on those in flight and one on those begun
/// per second. Both are open until the service asks for fewer; then they fall at once, stay a little below what the
/// service took, and after a while feel their way up again, slowly at first. Refusals that come at random whatever the
/// rate (see Refusal_Noise) are tolerated. A value driven by the times it is told; in seconds of any monotonic clock.
/// Not for several threads.
class Request_Pace {
public:
  /// Seconds until a request may begin: 0: now. Negative: when another one has ended.
  double wait(double now) const;
  /// A request begins. Its generation is handed back when it ends.
  unsigned long begin(double now);
  /// It ended, refused for being one too many or not.
  void end(double now, unsigned long generation, bool refused);
  /// It turns out late, in the body of an answer that began well, that a request was refused.
  void refuse(double now, unsigned long generation);
  /// The epochs that have passed by `now` without a request are counted.
  void tick(double now);

  unsigned in_flight() const { return in_flight_; }
  /// Requests in flight at the most; 0: no bound.
  double limit() const { return limit_; }
  /// Requests per second at the most; 0: no bound.
  double rate() const { return rate_; }
  /// The part of the requests that the service refuses whatever the rate, as far as it is known.
  double noise() const { return noise_.share(); }

private:
  enum Phase {
    SEEKING,    ///< what the service takes is not known
    CLOSING_IN, ///< it is known roughly
    HOLDING     ///< it is known; now and then it is tried whether it has become more
  };
  void cut(double now);
  void end_epoch();
  void settle();
  void weigh();
  void note_place();
  void feel_up();

  unsigned in_flight_ = 0;
  double limit_ = 0;
  double rate_ = 0;
  double next_at_ = 0;           ///< when the next request may begin, by the rate
  unsigned long generation_ = 0; ///< grows with every cut: what was sent before it says nothing new

  double epoch_ = -1;      ///< when the present epoch began; negative: not yet
  double rate_before_ = 0; ///< at the beginning of the epoch
  unsigned taken_ = 0;     ///< in this epoch
  unsigned refused_ = 0;
  unsigned cuts_ = 0;
  unsigned quiet_ = 0; ///< epochs without a refusal, one after the other
  unsigned calm_ = 0;  ///< requests without one
  unsigned steps_ = 0; ///< up since the last one
  Phase phase_ = SEEKING;
  double last_step_ = 0;
  double credit_ = 0; ///< refusals that are taken as they come
  Refusal_Noise noise_;
  double rate_to_go_back_to_ = 0; ///< where the refusals turn out to be noise
  double limit_to_go_back_to_ = 0;
  double rate_settled_ = 0;      ///< where they do not
  std::deque<double> sustained_; ///< taken per second in the last epochs, noise made good
  std::deque<double> taken_at_;  ///< the last ones taken, while there is no rate yet
};

} // namespace s3
