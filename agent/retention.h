#pragma once

#include <string>
#include <vector>

/// Which sets of one group (an account's selection in a pool) an operator wants to keep. A rule that is zero keeps
/// nothing by itself.
struct Retention_Rules {
  unsigned last = 0;       ///< the newest so many
  unsigned hourly = 0;     ///< the newest of each of the latest so many hours that have a set, in UTC
  unsigned daily = 0;
  unsigned weekly = 0;     ///< weeks begin on Monday
  unsigned monthly = 0;
  unsigned yearly = 0;
  long long within = 0;    ///< seconds before the group's newest set

  bool any() const {
    return last != 0 || hourly != 0 || daily != 0 || weekly != 0 || monthly != 0 || yearly != 0 || within != 0;
  }
};

/// A set as the rules see it, and what became of it.
struct Retention_Set {
  std::string uuid;
  long long time = 0;                 ///< seconds since the epoch
  std::vector<std::string> reasons;   ///< why it stays: "last", "daily" ...; empty: no rule keeps it
};

/// Applies the rules to the sets of one group, in any order; fills `reasons`. Times are counted from the newest set and
/// not from today, so a group that is no longer backed up loses nothing by getting old, and whichever rule is given, the
/// newest set stays. Without any rule every set stays, for the reason "no rule".
void apply_retention(const Retention_Rules& rules, std::vector<Retention_Set>& sets);

/// Reads "36h", "30d", "8w", "6m", "2y" or several of them in a row ("1y6m") as seconds; a month counts 31 days and a
/// year 366. False for anything else, for zero, and for what is too long to count.
bool parse_retention_time(const std::string& text, long long& seconds);
