#include "platform/mtf/source_order.h"

#include "sdk/mtf/filter.h"

#include <unordered_set>

namespace {

bool names_nothing(const std::string& source) {
  return source.empty() || source == "/";
}

/// The source with the "/" that a bucket may lack: "/bucket" is "/bucket/".
std::string whole(const std::string& source) {
  return source.find('/', 1) == std::string::npos ? source + "/" : source;
}

/// The folder that the source's first objects lie in, with its "/".
std::string folder_of(const std::string& source) {
  return source.substr(0, source.rfind('/') + 1);
}

bool is_folder(const std::string& source) {
  return source.back() == '/';
}

/// A folder's own objects come before its subfolders; where a folder and objects in it are asked for one by one, the
/// objects come first.
bool comes_before(const std::string& a, const std::string& b) {
  if (names_nothing(a) || names_nothing(b))
    return names_nothing(a) && !names_nothing(b);
  const std::string first = whole(a);
  const std::string second = whole(b);
  const std::string first_folder = folder_of(first);
  const std::string second_folder = folder_of(second);
  if (first_folder != second_folder)
    return MTF::compare(first_folder, second_folder, '/');
  if (is_folder(first) != is_folder(second))
    return is_folder(second);
  return first < second;
}

/// Whether a folder among `folders` other than the source itself takes it in.
bool is_taken_in(const std::string& source, const std::unordered_set<std::string>& folders) {
  for (std::string::size_type at = source.find('/', 1); at != std::string::npos; at = source.find('/', at + 1))
    if (at + 1 < source.size() && folders.count(source.substr(0, at + 1)) != 0)
      return true;
  return false;
}

} // namespace

std::list<std::string> arrange_sources(std::list<std::string> sources) {
  sources.sort(comes_before);
  std::unordered_set<std::string> folders;
  for (const std::string& source : sources)
    if (!names_nothing(source) && is_folder(whole(source)))
      folders.insert(whole(source));

  std::unordered_set<std::string> seen;
  sources.remove_if([&](const std::string& source) {
    return !names_nothing(source) && (is_taken_in(whole(source), folders) || !seen.insert(whole(source)).second);
  });
  return sources;
}
