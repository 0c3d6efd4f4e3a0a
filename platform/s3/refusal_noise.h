#pragma once

#include <cstddef>
#include <deque>

namespace s3 {

/// Tells refusals that fall with the rate from those that a service makes at random, a few in a hundred, whatever the
/// rate. It is told what became of each epoch's requests. Refusals at rates that lie clearly below others which the
/// service took about as well have nothing to do with the rate: their share is that service's noise. Where refusals go
/// on and no lower rate comes by itself, one is tried; so it is now and then, ever more rarely, to see whether known
/// noise is still there. A value; not for several threads.
class Refusal_Noise {
public:
  enum Verdict {
    NOTHING,   ///< new
    TRY_LOWER, ///< the rate should be `trial_rate` for a while, and not follow what is refused
    NOISE,     ///< the refusals had nothing to do with the rate: it may be again what it was
    LIMIT      ///< they had
  };

  /// An epoch of one second is over: the rate that was allowed (0: any), the requests that came to their end in it, how
  /// many of them were refused, and whether that was more than was to be expected.
  Verdict end_epoch(double rate, double requests, double refused, bool surprising);
  /// So many of the requests are refused whatever the rate; 0 to 1.
  double share() const { return share_; }
  /// Surprises are being looked into.
  bool active() const { return surprises_ > 0 || on_trial_; }
  /// A lower rate is being tried.
  bool on_trial() const { return on_trial_; }
  double trial_rate() const { return trial_rate_; }
  /// The highest rate, lately, at which not too many were refused.
  double top() const { return top_; }
  /// The rate was raised: what surprises from now on may come from that.
  void raised();
  /// More is seen at a rate that the service is known to take: where there is noise, its share is known better.
  void learn(double requests, double refused);

private:
  struct Count {
    double rate = 0; ///< of one epoch
    double requests = 0;
    double refused = 0;
    double share() const { return requests > 0 ? refused / requests : 0; }
    void add(const Count& more) {
      requests += more.requests;
      refused += more.refused;
    }
  };
  void forget();
  Verdict try_lower(double rate);
  Verdict end_trial();
  bool is_noise();

  double share_ = 0;
  std::deque<Count> epochs_; ///< the last ones in which not too many were refused
  double top_ = 0;
  unsigned surprises_ = 0;        ///< in a row, with no raise in between
  Count row_;                     ///< since the first of them
  unsigned enough_surprises_ = 6; ///< of them, before a lower rate is tried; more after each time that it was the rate
  bool on_trial_ = false;
  bool looking_again_ = false;
  double trial_rate_ = 0;
  double expected_ = 0; ///< share in the trial, where it is noise
  Count trial_;
  unsigned since_ = 0; ///< epochs since the last look
  unsigned again_ = 0; ///< after how many comes the next one
};

} // namespace s3
