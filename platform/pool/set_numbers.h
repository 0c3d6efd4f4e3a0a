#pragma once

#include <set>

/// The numbers that the sets of one selection have in one pool, and the one that the next set gets. Two sets of one
/// number come about all the same, as when a set comes back whose number was given away meanwhile; a set's name is its
/// uuid.
class Set_Numbers {
public:
  /// Media have 16 bits for it. The set behind one with this number begins a new chain.
  static constexpr unsigned LAST = 65535;
  static constexpr const char* NONE_FREE = "the selection's sets in this pool have taken all numbers: some must go";

  /// A set has `seq`. To be told oldest first: the last one told counts as the newest set's.
  void take(unsigned seq);
  bool is_taken(unsigned seq) const { return taken_.count(seq) != 0; }

  /// For a set that begins a chain: the one behind the highest, as long as that leaves the chain another one; else the
  /// first free one behind the newest set's, going round. 0 when none is free.
  unsigned first_of_chain() const;
  /// For a set that was compared with the one of number `base`: the first free one behind it, going round. 0 when none
  /// is free.
  unsigned behind(unsigned base) const;

private:
  unsigned free_behind(unsigned seq, unsigned last) const;

  std::set<unsigned> taken_;
  unsigned newest_ = 0;
};
