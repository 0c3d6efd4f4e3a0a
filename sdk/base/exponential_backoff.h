#pragma once

#include <ace/Basic_Types.h>

/// "No bound" for the number of retries.
constexpr ACE_UINT32 UNLIMITED_RETRIES = 0xFFFFFFFFu;

/// A sequence of waits that doubles from `slot_time` up to `capped` seconds: slot, 2 slot, 4 slot ... A
/// default-constructed iterator is the end of every sequence.
///
/// With jitter each wait is drawn evenly from the upper half of its step (at least 1 second for a slot of 1), so that
/// many clients that failed together do not come back together. A value type; one thread at a time.
class Exponential_Backoff_Iterator {
public:
  /// The end of a sequence.
  Exponential_Backoff_Iterator();
  /// `slot_time` and `capped` are in seconds (`capped` 0: no cap); the sequence ends after `max_retries` waits.
  Exponential_Backoff_Iterator(unsigned slot_time, ACE_UINT32 max_retries, unsigned capped, bool jitter);

  /// The wait in seconds at which the sequence stands; 0 at the end. Reading it twice gives the same value.
  unsigned operator*() const { return wait_; }
  /// Counts the present wait as handed out and goes on to the next.
  Exponential_Backoff_Iterator& operator++();
  /// Total seconds of the waits that were handed out so far.
  unsigned long long cumulation() const { return cumulation_; }

  /// Two iterators are equal when both are at the end, or both stand at the same step of the same sequence.
  bool operator==(const Exponential_Backoff_Iterator& other) const;
  bool operator!=(const Exponential_Backoff_Iterator& other) const { return !(*this == other); }

private:
  void draw();
  bool at_end() const { return left_ == 0; }

  unsigned slot_time_ = 0;
  unsigned capped_ = 0;
  bool jitter_ = false;
  ACE_UINT32 left_ = 0; ///< waits still to hand out, the present one included
  ACE_UINT32 step_ = 0;
  unsigned wait_ = 0;
  unsigned long long cumulation_ = 0;
};

/// The sequence from its first wait; the same arguments as the iterator's constructor.
inline Exponential_Backoff_Iterator exponential_backoff(unsigned slot_time, ACE_UINT32 max_retries, unsigned capped,
                                                        bool jitter) {
  return Exponential_Backoff_Iterator(slot_time, max_retries, capped, jitter);
}

/// Takes the place of the source of randomness behind jitter: `draw(n)` answers a number below n. Null puts the
/// system's own back. For tests; not while another thread draws.
void set_backoff_random(unsigned (*draw)(unsigned n));
