#pragma once

// Goes in front of every source that holds mutants.

#include <type_traits>

extern unsigned mutant_on;     ///< the number of the one that is on; 0 for none
extern bool mutants_noted;     ///< whether it is noted which of them a test reaches
void note_mutant(unsigned number);

/// Whether that mutant is on.
inline bool mutant_(unsigned number) {
  if (mutants_noted)
    note_mutant(number);
  return number == mutant_on;
}
