#pragma once

#include "platform/catalog/catalog_db.h"
#include "platform/catalog/catalog_reader.h"
#include "platform/catalog/catalog_writer.h"
#include "platform/pool/pool.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

/// The set that an incremental is compared with. Its catalog is read folder by folder as the listing visits them, so
/// sources may come in another order than last time, and each folder is one merge of two sorted runs. Memory does not
/// depend on the number of objects: which objects the listing showed is kept on disk, in runs of ordinals.
///
/// Used by the lister's thread once `open` has returned.
class Backup_Base {
public:
  /// The newest set of number `seq` under `place` ("HOST/RESOURCE") whose catalog and all sets that it points into are
  /// there. Null with the reason.
  static std::unique_ptr<Backup_Base> open(const Pool& pool, const std::string& place, unsigned seq,
                                           std::string& error);

  const std::string& uuid() const { return record_.uuid; }
  const std::string& incarnation() const { return record_.incarnation; }
  /// The first number that the new catalog's list of sets has free behind those of the base.
  unsigned end_index() const;

  /// The listing is in the folder `path` from now on. False on failure.
  bool enter(const std::string& path);
  /// Whether the base has the object with this size and date, read long enough after that date that no other one can
  /// have it. Then `object` says where its data lie, in the new
  /// catalog's numbering of sets. False as well on failure, with `error` set.
  bool unchanged(const std::string& name, unsigned long long size, long long mtime, Catalog_Object& object);
  /// Tells `object` each object below the folder `path` ("" for all; without a "/" at its end one object) that the
  /// listing did not show and that is `wanted`, until it answers false. `take`: it counts as shown from then on and
  /// comes in the new catalog's numbering. False on failure.
  bool not_shown(const std::string& path, bool take, const std::function<bool(const Catalog_Object&)>& wanted,
                 const std::function<bool(Catalog_Object&)>& object);
  /// Adds the sets that unchanged and carried objects lie in to the new catalog.
  bool add_sets(Catalog_Writer& catalog) const;
  const std::string& error() const { return error_; }

private:
  bool show(unsigned long long ordinal);
  bool store_run();
  bool is_shown(unsigned long long first, unsigned long long last);
  void renumber(Catalog_Object& object);

  Set_Record record_;
  std::unique_ptr<Catalog_Reader> catalog_;
  std::vector<bool> used_;                  ///< by the base's index
  unsigned long long first_ = 1, last_ = 0; ///< the run that grows
  Catalog_Db shown_;                        ///< a temporary database: the runs before it
  Catalog_Statement add_run_, find_run_, inner_end_, remove_inner_;
  std::string error_;
};
