#pragma once

#include <cstddef>
#include <string>

namespace MTF {

/// Decides what a backup takes in. Any thread.
class IFilter {
public:
  virtual ~IFilter();
  /// `path` is "/bucket/key" for an object and "/bucket/prefix/" for a folder.
  virtual bool is_included(const char* path, bool is_dir) const = 0;
};

/// Whether `path` passes; a null filter lets everything pass.
bool is_included(const char* path, bool is_dir, const IFilter* filter);

/// The catalog's order of paths: bytewise, with `separator` before every other byte. True when `a` comes before `b`.
bool compare(const std::string& a, const std::string& b, char separator);

} // namespace MTF

namespace MTF_FS {

/// 1 when `a` lies under the folder `b`, 2 when `b` lies under the folder `a` or equals it, else 0. A folder's path
/// ends with "/".
int parent_relationship(const std::string& a, const std::string& b);
/// The position just behind the last "/" that both paths share; 0 when there is none.
size_t common_parent(const std::string& a, const std::string& b);

} // namespace MTF_FS
