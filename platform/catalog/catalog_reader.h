#pragma once

#include "platform/catalog/catalog_format.h"
#include "platform/crypto/set_cipher.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

/// What a catalog is asked for: nothing selects every object.
struct Catalog_Selection {
  std::vector<std::string> folders; ///< "bucket/" or "bucket/a/": everything below
  std::vector<std::string> objects; ///< "bucket/key"

  bool everything() const { return folders.empty() && objects.empty(); }
};

/// One page of a folder: its subfolders first, then its objects in the order of the listing.
struct Catalog_Page {
  std::vector<std::string> folders; ///< whole paths, "bucket/a/b/"
  std::vector<Catalog_Object> objects;
  bool truncated = false;
  std::string next_marker; ///< where the next page begins; opaque
};

/// Reads the catalog of a finished set. Nothing is ever read whole: a folder costs its own rows, a walk one row at a
/// time, and sorting is left to the database, which does it on disk.
///
/// One thread at a time; several readers may have the same catalog open. Paths are bytes, "bucket/key" without a
/// leading "/"; a folder's path ends with "/", and the empty path is the root, whose folders are the buckets.
class Catalog_Reader {
public:
  /// Opens the catalog in `folder`, the folder of a set. Null with the reason: missing, no catalog, a newer format,
  /// never finished. An encrypted catalog needs its set's cipher; a page that is damaged is told from a wrong key.
  static std::unique_ptr<Catalog_Reader> open(const std::string& folder, std::string& error,
                                              const Set_Cipher_ptr& cipher = nullptr);
  virtual ~Catalog_Reader() = default;

  virtual const std::string& set_uuid() const = 0;
  virtual const Catalog_Counts& counts() const = 0;
  /// The sets that it points into, the catalog's own (index 0) first.
  virtual const std::vector<Catalog_Set>& sets() const = 0;

  /// Whether the folder `path` is there (the root always is). False as well on failure, with `error` set.
  virtual bool has_folder(const std::string& path, std::string& error) = 0;
  /// Looks one object up. False when it is not there, or on failure, with `error` set.
  virtual bool find(const std::string& path, Catalog_Object& object, std::string& error) = 0;
  /// At most `limit` entries of the folder `path` from `marker` on (empty: from the start; else the last page's
  /// `next_marker`). A folder that is not there gives an empty page. False on failure.
  virtual bool list(const std::string& path, const std::string& marker, unsigned limit, Catalog_Page& page,
                    std::string& error) = 0;

  /// Takes up the folder `path` for `match`; one that is not there has no objects. False on failure.
  virtual bool enter(const std::string& path, std::string& error) = 0;
  /// The object `name` of the folder entered last. Costs one step of a scan where names are asked for in the order in
  /// which the folder has them, else what `find` costs. False when it is not there, or on failure, with `error` set.
  virtual bool match(const std::string& name, Catalog_Object& object, std::string& error) = 0;

  /// Makes the ordinals `first` to `last` the first run among them that is wanted; false when none is.
  typedef std::function<bool(unsigned long long& first, unsigned long long& last)> Narrow;
  /// Tells `object` every object below the folder `path` ("" for all) in hand-out order until it returns false. The
  /// reader may be asked other things meanwhile. What `narrow`, which may be empty, leaves out is not read. False on
  /// failure.
  virtual bool walk(const std::string& path, const std::function<bool(const Catalog_Object&)>& object,
                    std::string& error, const Narrow& narrow = Narrow()) = 0;
  /// Tells `object` every selected object once, ordered by set, channel and offset, the order in which media are read,
  /// until it returns false. False on failure.
  virtual bool walk_media(const Catalog_Selection& selection, const std::function<bool(const Catalog_Object&)>& object,
                          std::string& error) = 0;
  /// How many objects `selection` holds and their bytes. Members of the selection that match nothing go to `unmatched`.
  virtual bool count(const Catalog_Selection& selection, unsigned long long& objects, unsigned long long& bytes,
                     std::vector<std::string>& unmatched, std::string& error) = 0;
  /// Reads every page and looks whether the database holds together. False with the reason.
  virtual bool check_pages(std::string& error) = 0;
  virtual bool problems(const std::function<bool(const Catalog_Problem&)>& problem, std::string& error) = 0;
  /// Tells `deletion` what was gone since the set before, until it returns false. Catalogs of format 2 and older tell
  /// none. False on failure.
  virtual bool deletions(const std::function<bool(const Catalog_Deletion&)>& deletion, std::string& error) = 0;
};
