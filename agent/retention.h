#pragma once

#include <optional>
#include <string>
#include <vector>

/// Which sets of one group (an account's selection in a pool) an operator wants to keep. A rule that is zero keeps
/// nothing by itself.
struct Retention_Rules {
  unsigned last = 0;   ///< the newest so many
  unsigned hourly = 0; ///< the newest of each of the latest so many hours that have a set, in UTC
  unsigned daily = 0;
  unsigned weekly = 0; ///< weeks begin on Monday
  unsigned monthly = 0;
  unsigned yearly = 0;
  long long within = 0;          ///< seconds before the newest set that counts
  bool count_incomplete = false; ///< sets that are known not to be whole count as well; no rule by itself

  bool any() const { return last != 0 || by_time(); }
  /// Whether a rule looks at the times of sets.
  bool by_time() const {
    return hourly != 0 || daily != 0 || weekly != 0 || monthly != 0 || yearly != 0 || within != 0;
  }
};

/// A set as the rules see it, and what became of it.
struct Retention_Set {
  std::string uuid;
  long long time = 0;                            ///< seconds since the epoch
  std::optional<unsigned long long> missing = 0; ///< as Set_Record::missing
  std::vector<std::string> reasons;              ///< why it stays: "last", "daily" ...; empty: it may go
};

/// Applies the rules to the sets of one group, in any order; fills `reasons`. Times are counted from the newest set
/// that counts and not from today, so a group that is no longer backed up loses nothing by getting old. Without any
/// rule every set stays, for the reason "no rule".
///
/// A set that is known not to be whole is none of the "newest so many", nor of any period: it would take a whole one's
/// place. It stays within `within`, and while it is newer than any whole set. Where it is not known whether a set is
/// whole it counts, but is no reason for another one to go: the newest set that is known to be whole stays under every
/// rule.
void apply_retention(const Retention_Rules& rules, std::vector<Retention_Set>& sets);

/// Reads "36h", "30d", "8w", "6m", "2y" or several of them in a row ("1y6m") as seconds; a month counts 31 days and a
/// year 366. False for anything else, for zero, and for what is too long to count.
bool parse_retention_time(const std::string& text, long long& seconds);
