#pragma once

#include "platform/pool/pool.h"

#include <functional>
#include <string>
#include <vector>

struct Verify_Options {
  unsigned threads = 0;            ///< objects read at the same time; 0: 4
  std::function<bool()> canceling; ///< asked between objects, from all threads; may be empty
  /// Told about once a second: objects and bytes checked so far. May be empty.
  std::function<void(unsigned long long, unsigned long long)> progress;
};

/// What reading a set back has shown.
struct Verify_Report {
  struct Damage {
    std::string path; ///< "bucket/key"
    std::string message;
  };
  static constexpr size_t MAX_DAMAGES = 1000;

  unsigned long long objects = 0; ///< in the catalog
  unsigned long long checked = 0; ///< read back to their end, good or damaged
  unsigned long long good = 0;
  unsigned long long damaged = 0; ///< damaged, or on a medium or in a set that is missing
  unsigned long long bytes = 0;   ///< of content checked
  unsigned long long stored = 0;  ///< bytes of media read for it
  std::vector<Damage> damages;    ///< the first MAX_DAMAGES of them, in no particular order
  std::vector<std::string> media; ///< what is wrong with whole media or sets, one text each
  bool canceled = false;
  std::string failure; ///< why it could not be done at all; empty when it could

  bool clean() const { return failure.empty() && !canceled && damaged == 0 && media.empty(); }
};

/// Reads every stored byte of a set and compares it with the set's catalog: every object is there under its own path,
/// with its size and digest, and every medium is complete. Objects whose data lie in other sets are read there.
/// Returns `report.clean()`. Blocks; one call at a time per report.
bool verify_set(const Pool& pool, const Set_Record& record, const Verify_Options& options, Verify_Report& report);
