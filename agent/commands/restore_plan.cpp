#include "agent/commands/restore_plan.h"

#include "agent/context.h"
#include "sdk/base/path.h"

#include <algorithm>
#include <set>
#include <tuple>

namespace {

constexpr unsigned PAGE = 1000;

bool begins_with(const std::string& text, const std::string& beginning) {
  return text.compare(0, beginning.size(), beginning) == 0;
}

std::string bucket_of(const std::string& path) {
  return path.substr(0, path.find('/'));
}

} // namespace

void Bucket_Maps::add(const std::string& text) {
  const std::string::size_type equals = text.find('=');
  Map map;
  if (equals != std::string::npos) {
    map.source = text.substr(0, equals);
    map.target = text.substr(equals + 1);
    const std::string::size_type slash = map.target.find('/');
    if (slash != std::string::npos) {
      map.prefix = map.target.substr(slash + 1);
      map.target.erase(slash);
      // "archive/" and "archive" name the same place: the separator before the key is not the prefix's own.
      if (!map.prefix.empty() && map.prefix.back() == '/')
        map.prefix.pop_back();
    }
  }
  if (map.source.empty() || map.target.empty() || map.source.find('/') != std::string::npos)
    throw Command_Error("--map '" + text + "' is not of the form SOURCE=TARGET or SOURCE=TARGET/PREFIX", EXIT_USAGE);
  for (const Map& other : maps_)
    if (other.source == map.source)
      throw Command_Error("--map names the bucket '" + map.source + "' twice", EXIT_USAGE);
  maps_.push_back(map);
}

std::pair<std::string, std::string> Bucket_Maps::target(const std::string& bucket) const {
  const Map* found = nullptr;
  for (const Map& map : maps_)
    if (map.source == bucket || (found == nullptr && map.source == "*"))
      found = &map;
  if (found == nullptr)
    return {bucket, std::string()};
  scrt::Path_T<char> path('/');
  path /= found->prefix;
  if (found->source == "*")
    path /= bucket;
  return {found->target, path.str().empty() ? std::string() : path.str().substr(1) + "/"};
}

Restore_Plan::Restore_Plan(Catalog_Reader& catalog, const Catalog_Selection& selection, const Bucket_Maps& maps)
    : catalog_(catalog), selection_(selection), objects_(selection.objects) {
  std::sort(objects_.begin(), objects_.end());
  std::set<std::string> wanted;
  for (const std::string& folder : selection.folders)
    wanted.insert(bucket_of(folder));
  for (const std::string& object : selection.objects)
    wanted.insert(bucket_of(object));
  std::string error;
  Catalog_Page page;
  do {
    const std::string marker = page.next_marker;
    page = Catalog_Page();
    if (!catalog.list(std::string(), marker, PAGE, page, error))
      throw Command_Error(error);
    for (const std::string& folder : page.folders) {
      const std::string bucket = bucket_of(folder);
      if (!selection.everything() && wanted.count(bucket) == 0)
        continue;
      Bucket& place = buckets_[bucket];
      std::tie(place.target, place.prefix) = maps.target(bucket);
    }
  } while (page.truncated);

  for (auto& [name, one] : buckets_)
    for (const auto& [other_name, other] : buckets_)
      if (other_name != name && other.target == one.target &&
          (begins_with(one.prefix, other.prefix) || begins_with(other.prefix, one.prefix)))
        one.rivals.push_back(other_name);
}

std::vector<std::string> Restore_Plan::buckets() const {
  std::vector<std::string> names;
  for (const auto& [name, bucket] : buckets_)
    names.push_back(name);
  return names;
}

std::vector<std::string> Restore_Plan::target_buckets() const {
  std::set<std::string> targets;
  for (const auto& [name, bucket] : buckets_)
    targets.insert(bucket.target);
  return {targets.begin(), targets.end()};
}

std::string Restore_Plan::target(const std::string& path) const {
  const std::string name = bucket_of(path);
  const auto bucket = buckets_.find(name);
  if (bucket == buckets_.end())
    return path;
  return bucket->second.target + "/" + bucket->second.prefix + path.substr(std::min(name.size() + 1, path.size()));
}

bool Restore_Plan::selected(const std::string& path) const {
  return selection_.everything() ||
         std::any_of(selection_.folders.begin(), selection_.folders.end(),
                     [&](const std::string& folder) { return begins_with(path, folder); }) ||
         std::binary_search(objects_.begin(), objects_.end(), path);
}

void Restore_Plan::look_at(const Catalog_Object& object) {
  const std::string name = bucket_of(object.path);
  const auto own = buckets_.find(name);
  if (own == buckets_.end())
    return;
  const std::string target_path = target(object.path);
  const std::string key = target_path.substr(own->second.target.size() + 1);
  for (const std::string& rival : own->second.rivals) {
    // Each pair is found from both of its sides; one of them tells it.
    const Bucket& other = buckets_.at(rival);
    if (rival < name || key.size() == other.prefix.size() || !begins_with(key, other.prefix))
      continue;
    const std::string path = rival + "/" + key.substr(other.prefix.size());
    std::string error;
    Catalog_Object found;
    if (selected(path) && catalog_.find(path, found, error)) {
      ++collision_count_;
      if (collisions_.size() < MOST_COLLISIONS)
        collisions_.push_back({object.path, path, target_path});
    } else if (!error.empty()) {
      throw Command_Error(error);
    }
  }
}

void Restore_Plan::find_collisions() {
  for (const auto& [name, bucket] : buckets_) {
    if (bucket.rivals.empty())
      continue;
    std::string error;
    const bool walked = catalog_.walk(
        name + "/",
        [&](const Catalog_Object& object) {
          if (selected(object.path))
            look_at(object);
          return true;
        },
        error);
    if (!walked)
      throw Command_Error(error);
  }
}
