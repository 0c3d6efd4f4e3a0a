#pragma once

#include "platform/catalog/catalog_reader.h"
#include "platform/catalog/catalog_writer.h"
#include "platform/mtf/medium_reader.h"
#include "platform/pool/pool.h"

#include <memory>
#include <set>
#include <string>
#include <vector>

// Partial sets: what unfinished runs left. The next run of the same source makes one of each unfinished folder (its
// objects that are whole, a catalog of them, and a record) and then points into it instead of reading those objects
// again. A partial set stays as long as a set points into it.

/// Name of an empty file in the folder of a set that a merge is writing. What such a one leaves is nothing new, and is
/// removed.
constexpr const char* MERGE_MARK = "merging";

/// What a walk found, as a row of a catalog whose own medium `channel` it was found on.
Catalog_Object found_object(const Medium_Finding& finding, unsigned channel);

struct Salvage_Report {
  /// A folder that stays for the next run, with all that is whole in it.
  struct Problem {
    std::string folder;
    std::string message;
  };
  unsigned salvaged = 0; ///< folders that became partial sets
  unsigned removed = 0;  ///< folders that were read and hold nothing to use
  unsigned long long objects = 0;
  unsigned long long bytes = 0; ///< of their contents
  std::vector<Problem> problems;
};
/// Makes partial sets of what unfinished runs left at `place` ("HOST/RESOURCE"). A folder is removed only when all of
/// it could be read and nothing whole was found; where anything else fails, as on a full disk, it stays. Folders of
/// living runs are left alone. Memory does not depend on the number of objects.
void salvage_unfinished(const Pool& pool, const std::string& place, Salvage_Report& report);

/// The uuids that the catalogs of the sets at `place` name. False, with the reason, when not all could be read, or one
/// differs from its check.
bool referenced_sets(const Pool& pool, const std::string& place, std::set<std::string>& uuids, std::string& error);
/// Removes the partial sets at `place` that no set points into and that nobody is reading; with `candidates`, only
/// those among them. Nothing is removed while a catalog there cannot be read. False with the reason when something
/// stays that should go.
bool reclaim_partial_sets(const Pool& pool, const std::string& place, const std::set<std::string>* candidates,
                          std::string& error);

/// The partial sets that no set points into yet, which a run goes on with. One thread.
class Partial_Sets {
public:
  /// `first_index` is the first free number in the new catalog's list of sets. Partial sets that cannot be read are
  /// named in `problems`.
  static std::unique_ptr<Partial_Sets> open(const Pool& pool, const std::string& place, unsigned first_index,
                                            std::vector<std::string>& problems);

  bool empty() const { return sets_.empty(); }
  /// The listing is in the folder `path` from now on. False on failure.
  bool enter(const std::string& path);
  /// Whether one of them holds the object with this size and date. Then `object` says where, in the new catalog's
  /// numbering. False as well on failure, with `error` set.
  bool find(const std::string& name, unsigned long long size, long long mtime, Catalog_Object& object);
  /// Adds those that objects were found in.
  bool add_sets(Catalog_Writer& catalog) const;
  const std::string& error() const { return error_; }

private:
  struct One {
    Catalog_Set set;
    std::unique_ptr<Catalog_Reader> catalog;
    bool used = false;
  };
  std::vector<One> sets_;
  std::string error_;
};
