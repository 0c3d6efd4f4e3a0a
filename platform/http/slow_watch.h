#pragma once

/// Whether a peer that does send, or take, a byte now and then is too slow to be waited for: over each stretch of so
/// many seconds of waiting it has to move so many bytes a second. A value; time is the caller's.
class Slow_Watch {
public:
  /// `floor`: bytes per second; 0: any rate will do. `stretch`: seconds.
  Slow_Watch(unsigned floor, unsigned stretch) : floor_(floor), stretch_(stretch) {}

  /// What comes from here on is measured anew; `moved`: bytes so far.
  void restart(unsigned long long moved) {
    waited_ = 0;
    from_ = moved;
  }
  /// `seconds` more were spent in waiting for the peer, and `moved` bytes have come so far. True when it is too slow.
  bool too_slow(double seconds, unsigned long long moved) {
    waited_ += seconds;
    if (floor_ == 0 || waited_ < stretch_)
      return false;
    const bool slow = static_cast<double>(moved - from_) < static_cast<double>(floor_) * waited_;
    restart(moved);
    return slow;
  }

private:
  unsigned floor_;
  unsigned stretch_;
  double waited_ = 0;
  unsigned long long from_ = 0;
};
