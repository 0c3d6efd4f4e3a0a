#pragma once

#include "platform/pool/pool.h"

#include <functional>
#include <string>
#include <vector>

struct Merge_Options {
  std::string uuid; ///< of the merged set
  /// Called now and then with the objects and bytes copied so far.
  std::function<void(unsigned long long, unsigned long long)> progress;
  std::function<bool()> canceling; ///< asked often while objects are copied; true: nothing is merged
  /// Asked once before the record is written: false, and nothing is merged. From there on the merge goes to its end.
  std::function<bool()> begin_commit;
};

struct Merge_Report {
  static constexpr size_t MAX_DAMAGED = 1000;

  Set_Record record;              ///< of the merged set
  std::string moment_of;          ///< uuid of the set whose moment it is
  unsigned long long objects = 0; ///< copied
  unsigned long long bytes = 0;   ///< of their contents
  unsigned long long damaged = 0;
  std::vector<std::string> damages; ///< "path": what is wrong with it
  bool canceled = false;
};

/// Puts the live data of `sets`, which lie in one place and come oldest first, into one new set, which takes the place
/// of the newest of them: what that set's catalog holds, and what the catalogs of other sets find in them. Data are
/// copied with their digests checked; if any object is damaged all such are named and nothing changes. The merged set's
/// record, written last, is the commit; before that nothing points to it, and behind it `finish_merges` goes on. The
/// caller has locked the pool and the resource's merge lock. Memory does not depend on the number of objects.
bool merge_sets(const Pool& pool, const std::vector<Set_Record>& sets, const Merge_Options& options,
                Merge_Report& report, std::string& error);

/// Ends what merges at `place` ("HOST/RESOURCE") have begun: makes the catalogs of other sets point into the merged
/// ones and drops the sets that these replace, but those that somebody is reading, which `busy` names and a later call
/// drops. Also removes what merges, removals and rebuilds left that were cut short. To be called again at any time. The
/// caller has locked the pool, and hands on `held` where it has locked the place. False with the reason when it could
/// not be ended.
bool finish_merges(const Pool& pool, const std::string& place, std::vector<std::string>& busy, std::string& error,
                   const Set_Lock* held = nullptr);
