#include "platform/mtf/source_watch.h"

#include <algorithm>

namespace {

bool begins_with(const std::string& text, const std::string& start) {
  return text.compare(0, start.size(), start) == 0;
}

bool is_bucket(const std::string& path) {
  return path.find('/') + 1 == path.size();
}

} // namespace

Source_Watch::Source_Watch(const std::list<std::string>& sources) {
  for (const std::string& source : sources) {
    std::string path = source.substr(!source.empty() && source.front() == '/' ? 1 : 0);
    if (!path.empty() && path.find('/') == std::string::npos)
      path += '/';
    if (!path.empty() && path.back() == '/')
      unseen_.insert(std::move(path));
  }
  any_ = !unseen_.empty();
}

void Source_Watch::saw(const std::string& path) {
  if (!any_)
    return;
  const std::lock_guard<std::mutex> guard(mutex_);
  for (size_t slash = path.find('/'); slash != std::string::npos; slash = path.find('/', slash + 1))
    unseen_.erase(path.substr(0, slash + 1));
  any_ = !unseen_.empty();
}

void Source_Watch::unlisted(const std::string& path) {
  const std::lock_guard<std::mutex> guard(mutex_);
  for (auto one = unseen_.begin(); one != unseen_.end();)
    one = begins_with(*one, path) || begins_with(path, *one) ? unseen_.erase(one) : std::next(one);
  any_ = !unseen_.empty();
}

void Source_Watch::gone(const std::string& path) {
  if (!any_)
    return;
  const std::lock_guard<std::mutex> guard(mutex_);
  for (size_t slash = path.find('/'); slash != std::string::npos; slash = path.find('/', slash + 1))
    if (unseen_.count(path.substr(0, slash + 1)) != 0)
      gone_.insert(path.substr(0, slash + 1));
}

std::vector<std::string> Source_Watch::empty() const {
  const std::lock_guard<std::mutex> guard(mutex_);
  std::vector<std::string> paths;
  for (const std::string& path : unseen_)
    if (!is_bucket(path) || gone_.count(path) != 0)
      paths.push_back(path);
  std::sort(paths.begin(), paths.end());
  return paths;
}
