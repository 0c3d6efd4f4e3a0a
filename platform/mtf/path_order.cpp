#include "sdk/mtf/filter.h"

#include <algorithm>

namespace MTF {

bool compare(const std::string& a, const std::string& b, char separator) {
  const size_t common = std::min(a.size(), b.size());
  for (size_t i = 0; i < common; ++i) {
    if (a[i] == b[i])
      continue;
    if (a[i] == separator || b[i] == separator)
      return a[i] == separator;
    return static_cast<unsigned char>(a[i]) < static_cast<unsigned char>(b[i]);
  }
  return a.size() < b.size();
}

} // namespace MTF

namespace MTF_FS {

namespace {

// Whether `path` is the folder `folder` or lies under it.
bool is_within(const std::string& path, const std::string& folder) {
  return !folder.empty() && folder.back() == '/' && path.compare(0, folder.size(), folder) == 0;
}

} // namespace

int parent_relationship(const std::string& a, const std::string& b) {
  if (a == b || is_within(b, a))
    return 2;
  return is_within(a, b) ? 1 : 0;
}

size_t common_parent(const std::string& a, const std::string& b) {
  const size_t common = std::min(a.size(), b.size());
  size_t behind = 0;
  for (size_t i = 0; i < common && a[i] == b[i]; ++i)
    if (a[i] == '/')
      behind = i + 1;
  return behind;
}

} // namespace MTF_FS
