#include "platform/s3/range_growth.h"

#include <algorithm>

namespace s3 {
namespace {

/// Seconds over which a rate is taken; the first time with more streams is longer, for they have to be opened.
constexpr double WINDOW = 0.15;
constexpr double FIRST_WINDOW = 0.3;
/// Share of its time that a reader waits when the streams and not the reader are too slow.
constexpr double WAITS = 0.25;
/// What a step must bring to be kept.
constexpr double GAIN = 1.15;
/// Seconds until another step is tried after one that brought nothing.
constexpr double PAUSE = 10;

} // namespace

void Range_Growth::begin(double now, unsigned long long received, double taking, double busy) {
  begun_ = true;
  since_ = now;
  received_ = received;
  taking_ = taking;
  busy_ = busy;
}

bool Range_Growth::due(double now) const {
  return !begun_ || now - since_ >= (trying_ ? FIRST_WINDOW : WINDOW);
}

bool Range_Growth::update(double now, unsigned long long received, double taking, double busy) {
  if (!due(now))
    return false;
  if (!begun_) {
    begin(now, received, taking, busy);
    return false;
  }
  const double span = now - since_;
  const double rate = static_cast<double>(received - received_) / span;
  // Taking bytes is work as well. Where processors are what is short, more streams would only want them, too.
  const double waiting = std::min(taking - taking_, span - (busy - busy_)) / span;
  begin(now, received, taking, busy);
  if (trying_) {
    trying_ = false;
    // Where the reader does not wait any more, the streams have done what they could.
    if (rate < GAIN * rate_before_ && waiting > WAITS) {
      streams_ = before_;
      not_before_ = now + PAUSE;
      return true;
    }
  }
  if (waiting <= WAITS || streams_ >= most_ || now < not_before_)
    return false;
  before_ = streams_;
  rate_before_ = rate;
  streams_ = std::min(2 * streams_, most_);
  trying_ = true;
  return true;
}

} // namespace s3
