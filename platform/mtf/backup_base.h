#pragma once

#include "platform/catalog/catalog_db.h"
#include "platform/catalog/catalog_reader.h"
#include "platform/catalog/catalog_writer.h"
#include "platform/pool/pool.h"

#include <atomic>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

/// The set that an incremental is compared with. Its catalog is read folder by folder as the listing visits them, so
/// sources may come in another order than last time, and each folder is one merge of two sorted runs. Memory does not
/// depend on the number of objects: which objects the listing showed is kept on disk, in runs of ordinals.
///
/// Used by the lister's thread once `open` has returned, but for `use`.
class Backup_Base {
public:
  enum class Match {
    NONE,     ///< it has none of that name, none whose data are good, or a failure with `error` set
    CHANGED,  ///< another version
    UNCHANGED ///< this very one
  };

  /// The set `uuid` under `place` ("HOST/RESOURCE"); the newest one of number `seq` when that is empty or not there.
  /// Its catalog and all sets that it points into must be there. What lies on media that are missing or not as large as
  /// recorded counts as damaged. Null with the reason, also where the catalog differs from its check.
  static std::unique_ptr<Backup_Base> open(const Pool& pool, const std::string& place, unsigned seq,
                                           const std::string& uuid, std::string& error);

  /// Where `open` found the catalog of the same set damaged: makes it anew from its copy, so that the set is whole
  /// again. `mended` says what was done, empty where nothing was. False with the reason. The caller has locked the
  /// pool.
  static bool mend(const Pool& pool, const std::string& place, unsigned seq, const std::string& uuid,
                   std::string& mended, std::string& error);

  /// The chain that the same set belongs to, so far as its record can be read; else empty.
  static std::string chain_of(const Pool& pool, const std::string& place, unsigned seq, const std::string& uuid);

  const std::string& uuid() const { return record_.uuid; }
  const std::string& incarnation() const { return record_.incarnation; }
  /// A medium that is missing or not as large as recorded.
  struct Bad_Medium {
    std::string path;
    std::string message;
  };
  const std::vector<Bad_Medium>& bad_media() const { return bad_media_; }
  /// How many objects it has.
  unsigned long long objects() const { return catalog_->counts().objects; }
  /// The first number that the new catalog's list of sets has free behind those of the base.
  unsigned end_index() const;

  /// The listing is in the folder `path` from now on. False on failure.
  bool enter(const std::string& path);
  /// Whether the base has the object with this size and date, read long enough after that date that no other one can
  /// have it. If not NONE, `object` says where the data of what it has lie, in the new catalog's numbering; whoever
  /// puts that of a changed one into the new catalog says so to `use`.
  Match match(const std::string& name, unsigned long long size, long long mtime, Catalog_Object& object);
  /// The new catalog points to where this one lies. Any thread.
  void use(const Catalog_Object& object) { used_[object.set - 1] = true; }
  /// Tells `object` each object below the folder `path` ("" for all; without a "/" at its end one object) that the
  /// listing did not show and that is `wanted`, until it answers false. `take`: it counts as shown from then on and
  /// comes in the new catalog's numbering. False on failure.
  bool not_shown(const std::string& path, bool take, const std::function<bool(const Catalog_Object&)>& wanted,
                 const std::function<bool(Catalog_Object&)>& object);
  /// Adds the sets that the new catalog points into. When nobody calls `use` any more.
  bool add_sets(Catalog_Writer& catalog) const;
  const std::string& error() const { return error_; }

private:
  bool show(unsigned long long ordinal);
  bool store_run();
  unsigned long long run_end(unsigned long long ordinal);
  bool is_shown(unsigned long long first, unsigned long long last);
  bool first_gap(unsigned long long& first, unsigned long long& last);
  void look_at_media(const Pool& pool, unsigned index, const Set_Record& record);
  bool is_good(const Catalog_Object& object) const;

  Set_Record record_;
  std::unique_ptr<Catalog_Reader> catalog_;
  size_t places_ = 0;                              ///< one more than the highest index
  std::unique_ptr<std::atomic<bool>[]> used_;      ///< by the base's index
  std::set<std::pair<unsigned, std::string>> bad_; ///< media, by the base's index and name
  std::vector<Bad_Medium> bad_media_;
  unsigned long long first_ = 1, last_ = 0; ///< the run that grows
  Catalog_Db shown_;                        ///< a temporary database: the runs before it
  Catalog_Statement add_run_, find_run_, next_run_, inner_end_, remove_inner_;
  std::string error_;
};
