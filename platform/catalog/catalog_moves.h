#pragma once

#include "platform/catalog/catalog_db.h"
#include "platform/catalog/catalog_format.h"

#include <map>
#include <memory>
#include <string>
#include <vector>

/// Where the data of an object lie after a merge.
struct Moved_Object {
  unsigned channel = 0;
  unsigned long long offset = 0;
  unsigned long long stored = 0;
};

/// The tables `moved_sets` and `moved` of a merged set's catalog: where the data that it took over from other sets lie
/// now. By them the catalogs of other sets are made to point into the merged one. One thread.
class Catalog_Moves {
public:
  /// Reads those of the catalog in `folder`. Null with the reason; without a reason when it has none.
  static std::unique_ptr<Catalog_Moves> open(const std::string& folder, std::string& error,
                                             const Set_Cipher_ptr& cipher = nullptr);
  /// Makes the tables, empty, in a catalog that is open for writing, which stays the caller's. Null with the reason.
  static std::unique_ptr<Catalog_Moves> make(Catalog_Db& catalog, std::string& error);

  /// The sets whose data moved.
  const std::vector<std::string>& sets() const { return sets_; }
  bool add(const std::string& set, unsigned channel, unsigned long long offset, const Moved_Object& to);
  /// False when nothing is known of it, or on failure, with `error` set.
  bool find(const std::string& set, unsigned channel, unsigned long long offset, Moved_Object& to);
  /// Takes over what `earlier`, the moves of the set `set`, say, as far as their targets have moved on.
  bool add_earlier(const std::string& set, Catalog_Moves& earlier);
  const std::string& error() const { return error_; }

private:
  unsigned number_of(const std::string& set);
  bool prepare(std::string& error);

  std::unique_ptr<Catalog_Db> own_;
  Catalog_Db* db_ = nullptr;
  bool writable_ = false;
  std::vector<std::string> sets_;
  std::map<std::string, unsigned> numbers_; ///< by uuid, from 1
  Catalog_Statement add_set_, add_, find_;
  std::string error_;
};

/// Makes a copy of the catalog in the folder `from` as `folder`/catalog.db, which must not exist, for work on it that
/// `finish_catalog_copy` ends. What `from_cipher` opens is encrypted anew with `cipher`; both are null for plain ones.
/// False with the reason.
bool copy_catalog(const std::string& from, const std::string& folder, Catalog_Db& db, std::string& error,
                  const Set_Cipher_ptr& from_cipher = nullptr, const Set_Cipher_ptr& cipher = nullptr);
bool finish_catalog_copy(Catalog_Db& db, const std::string& folder, std::string& error);

/// Makes the rows of an open catalog that point into the sets of `moves` point to where their data lie now, in the set
/// `merged`; with `own` the catalog becomes that set's own. False with the reason, also when a row's data are not among
/// them.
bool relink_catalog(Catalog_Db& db, Catalog_Moves& moves, const Catalog_Set& merged, bool own, std::string& error);
