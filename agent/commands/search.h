#pragma once

#include "platform/catalog/catalog_reader.h"
#include "platform/file_backup/glob_filter.h"

#include <functional>
#include <string>

/// A glob over the paths of a catalog, "/bucket/key", and the part of the catalog in which it can match.
class Search {
public:
  /// Throws Command_Error (usage) when `glob` is no pattern.
  explicit Search(const std::string& glob);

  /// Tells `found` every match in hand-out order. Throws Command_Error when the catalog cannot be read.
  void run(Catalog_Reader& catalog, const std::function<void(const Catalog_Object&)>& found) const;
  /// The same of what the catalog says was deleted.
  void run_deleted(Catalog_Reader& catalog, const std::function<void(const Catalog_Deletion&)>& found) const;

private:
  Glob_Rule rule_;
  bool exact_ = false; ///< the glob is one object's path, `root_`
  std::string root_;   ///< folder to walk, as the catalog names it
};
