#include "agent/commands/search.h"

#include "agent/context.h"

Search::Search(const std::string& glob) {
  std::string error;
  if (!rule_.compile(glob, error))
    throw Command_Error("'" + glob + "' is no pattern: " + error, EXIT_USAGE);
  if (glob[0] != '/')
    return;
  // Only what lies below the folders before the first wildcard can match.
  const size_t wild = glob.find_first_of("*?");
  exact_ = wild == std::string::npos && glob.back() != '/';
  const size_t slash = glob.rfind('/', wild);
  root_ = exact_ ? glob.substr(1) : glob.substr(1, slash == std::string::npos ? 0 : slash);
}

void Search::run(Catalog_Reader& catalog, const std::function<void(const Catalog_Object&)>& found) const {
  std::string error;
  if (exact_) {
    Catalog_Object object;
    if (catalog.find(root_, object, error))
      found(object);
    else if (!error.empty())
      throw Command_Error(error);
    return;
  }
  std::string path;
  const bool walked = catalog.walk(
      root_,
      [&](const Catalog_Object& object) {
        path.assign(1, '/').append(object.path);
        if (rule_.match(path.data(), path.size()) == Glob_Rule::MATCH)
          found(object);
        return true;
      },
      error);
  if (!walked)
    throw Command_Error(error);
}

void Search::run_deleted(Catalog_Reader& catalog, const std::function<void(const Catalog_Deletion&)>& found) const {
  std::string error, path;
  const bool walked = catalog.deletions(
      [&](const Catalog_Deletion& deletion) {
        path.assign(1, '/').append(deletion.path);
        if (rule_.match(path.data(), path.size()) == Glob_Rule::MATCH)
          found(deletion);
        return true;
      },
      error);
  if (!walked)
    throw Command_Error(error);
}
