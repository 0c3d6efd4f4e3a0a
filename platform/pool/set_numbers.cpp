#include "platform/pool/set_numbers.h"

void Set_Numbers::take(unsigned seq) {
  taken_.insert(seq);
  newest_ = seq;
}

unsigned Set_Numbers::first_of_chain() const {
  const unsigned highest = taken_.empty() ? 0 : *taken_.rbegin();
  return highest < LAST - 1 ? highest + 1 : free_behind(newest_, LAST - 1);
}

unsigned Set_Numbers::behind(unsigned base) const {
  return free_behind(base, LAST);
}

unsigned Set_Numbers::free_behind(unsigned seq, unsigned last) const {
  for (unsigned tried = 0; tried < last; ++tried) {
    seq = seq < last ? seq + 1 : 1;
    if (!is_taken(seq))
      return seq;
  }
  return 0;
}
