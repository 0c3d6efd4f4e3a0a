#pragma once

namespace s3 {

/// Decides over how many streams one object is read: begins with few, usually one, and doubles as long as whoever reads
/// has to wait for bytes, not for a processor, and the last step brought more bytes per second. A step that did not is
/// taken back, and the next one tried a good while later. A value; time is passed in.
class Range_Growth {
public:
  Range_Growth(unsigned first, unsigned most) : most_(most), streams_(first < most ? first : most) {}

  unsigned streams() const { return streams_; }
  /// Whether `update` would look at more than the time.
  bool due(double now) const;
  /// Tells how things stand: the time, the bytes that have come so far, for how long the reader has been at taking them
  /// so far, and for how long it has worked or waited for a processor, whatever at, all but the bytes in seconds. True
  /// when the number of streams is another one now.
  bool update(double now, unsigned long long received, double taking, double busy);

private:
  void begin(double now, unsigned long long received, double taking, double busy);

  const unsigned most_;
  unsigned streams_;
  unsigned before_ = 1;    ///< while `trying_`: what to go back to
  double rate_before_ = 0; ///< bytes per second with that
  bool trying_ = false;
  bool begun_ = false;
  double not_before_ = 0; ///< the next step
  // The window under way.
  double since_ = 0;
  unsigned long long received_ = 0;
  double taking_ = 0;
  double busy_ = 0;
};

} // namespace s3
