#pragma once

#include "platform/catalog/catalog_db.h"
#include "platform/mtf/verify.h"
#include "platform/pool/pool.h"

#include <memory>
#include <string>

/// What `verify` found damaged, and its marks in catalogs: the next incremental takes what is marked for changed and
/// stores it anew. The marks go into the catalogs of all sets that point to the damaged data, since any of them may be
/// what is compared with. Memory does not depend on the number of objects. One thread at a time.
class Damage_Marks {
public:
  /// Null with the reason.
  static std::unique_ptr<Damage_Marks> make(std::string& error);

  /// False with the reason in `error`.
  bool add(const Verify_Damage& damage);
  /// Marks the rows of the sets at `place` ("HOST/RESOURCE") whose data lie there. The caller has locked the pool. A
  /// catalog is made anew beside the old one, which stays until the new one is whole. `rows`: how many were not marked
  /// before. False with the reason.
  bool write(const Pool& pool, const std::string& place, unsigned long long& rows);
  const std::string& error() const { return error_; }

private:
  Damage_Marks() = default;
  bool holds(const std::string& set);
  bool holds(const std::string& set, unsigned channel, unsigned long long offset);
  bool found(const Catalog_Statement& statement, int step);
  bool is_touched(const Pool& pool, const Set_Record& record, bool& touched);
  bool mark(const Pool& pool, const Set_Record& record, unsigned long long& rows);
  bool mark_rows(Catalog_Db& catalog, unsigned long long& rows);

  Catalog_Db damaged_; ///< a temporary database
  Catalog_Statement add_, find_, find_set_;
  std::string error_;
};
