#pragma once

#include "agent/commands/restore_plan.h"
#include "agent/context.h"
#include "sdk/s3/s3_service.h"

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

/// Objects of a restore's target that the set does not have: found before the restore, removed after it. Only what was
/// found is ever removed. Names are kept in a temporary file, so memory does not depend on their number. One thread.
class Extra_Objects {
public:
  /// Throws Command_Error for a set or a selection that does not tell all that its folders had: one that misses
  /// objects, was made by rules, or of single objects; for a path outside of what was backed up, and where two places
  /// that are restored to lie inside each other. `catalog` and `plan` outlive it.
  Extra_Objects(Context& context, const Set& set, const Account& account, Catalog_Reader& catalog,
                const Catalog_Selection& selection, const Restore_Plan& plan);

  /// Lists the target. Throws Command_Error when that does not come to its end.
  void find();
  unsigned long long count() const { return count_; }
  unsigned long long bytes() const { return bytes_; }
  /// What is said before they are removed: how many, and the first of them.
  std::string preview() const;

  /// Removes them, after a restore. Nothing unless that ended clean. Adds "removed" to the outcome's figures, a problem
  /// for each that could not be removed, and stops at SIGINT and SIGTERM.
  void remove(Outcome& outcome);

private:
  struct Place {
    std::string folder; ///< of the set, "bucket/" or "bucket/a/"
    std::string bucket; ///< of the target
    std::string prefix; ///< of the keys there
  };

  void add_place(const std::string& folder, const Restore_Plan& plan);
  void find_in(const Place& place);
  bool is_in_set(const std::string& path, const S3_Object& object);
  void keep(const Place& place, const S3_Object& object);
  bool read_text(std::string& text);

  Catalog_Reader& catalog_;
  S3_Service_var service_;
  std::vector<Place> places_;
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> names_;
  std::vector<std::string> first_;
  unsigned long long count_ = 0;
  unsigned long long bytes_ = 0;
};
