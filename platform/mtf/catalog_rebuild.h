#pragma once

#include "platform/pool/pool.h"

#include <string>
#include <vector>

struct Rebuild_Report {
  Set_Record record;
  /// The copy of the catalog that the set's first medium ends with was whole: the catalog is what it was. Else it was
  /// made of what lies on the media, and does not know the objects whose data lie in other sets.
  bool exact = false;
  bool record_made = false; ///< there was no readable record
  unsigned long long objects = 0;
  /// Without the copy, of a merged set: objects on its media that only catalogs of other sets point to, and that are
  /// left out. None where an earlier version merged it: there they are among `objects`.
  unsigned long long of_others = 0;
  std::vector<std::string> problems; ///< damage that was met
};

/// Makes the catalog of the set in the folder `uri`, and its record where that cannot be read, from its media alone.
/// What is there is replaced at the end, at once; a rebuild that is cut short has changed nothing. The caller has
/// locked the pool. False with the reason.
bool rebuild_catalog(const Pool& pool, const std::string& uri, Rebuild_Report& report, std::string& error);
