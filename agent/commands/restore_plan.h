#pragma once

#include "platform/catalog/catalog_reader.h"

#include <map>
#include <string>
#include <utility>
#include <vector>

/// Where the objects of buckets go, by the rule of the job's "bucket_maps": a bucket's own mapping, else the one for
/// "*", which keeps the buckets apart by their names, else back to where they came from.
class Bucket_Maps {
public:
  struct Map {
    std::string source; ///< bucket, or "*" for every bucket without a map of its own
    std::string target;
    std::string prefix; ///< without an end "/"; may be empty
  };

  /// Reads "SOURCE=TARGET" or "SOURCE=TARGET/PREFIX". Throws Command_Error (usage) for anything else, and for a second
  /// map of the same source.
  void add(const std::string& text);
  const std::vector<Map>& maps() const { return maps_; }

  /// The bucket that objects of `bucket` go to, and what is put before their keys.
  std::pair<std::string, std::string> target(const std::string& bucket) const;

private:
  std::vector<Map> maps_;
};

/// Two objects of a set that would become one.
struct Collision {
  std::string first; ///< "bucket/key" in the set
  std::string second;
  std::string target; ///< "bucket/key" that both would be written to
};

/// What a restore is going to write, worked out from the catalog alone: nothing is asked of the target. Memory depends
/// on the number of buckets and collisions kept, not on that of objects. One thread.
class Restore_Plan {
public:
  static constexpr size_t MOST_COLLISIONS = 1000; ///< kept; all are counted

  /// All three outlive the plan. Throws Command_Error when the catalog cannot be read.
  Restore_Plan(Catalog_Reader& catalog, const Catalog_Selection& selection, const Bucket_Maps& maps);

  /// The buckets of the set that selected objects lie in.
  std::vector<std::string> buckets() const;
  /// The buckets that selected objects go to.
  std::vector<std::string> target_buckets() const;
  /// "bucket/key" that the object "bucket/key" of the set is written to.
  std::string target(const std::string& path) const;

  /// Looks for collisions; costs nothing unless two buckets share a target. Throws Command_Error.
  void find_collisions();
  const std::vector<Collision>& collisions() const { return collisions_; }
  unsigned long long collision_count() const { return collision_count_; }

private:
  struct Bucket {
    std::string target;
    std::string prefix;              ///< put before the keys
    std::vector<std::string> rivals; ///< buckets whose objects could go to the same keys
  };

  bool selected(const std::string& path) const;
  void look_at(const Catalog_Object& object);

  Catalog_Reader& catalog_;
  const Catalog_Selection& selection_;
  std::vector<std::string> objects_;      ///< of the selection, sorted
  std::map<std::string, Bucket> buckets_; ///< by name in the set
  std::vector<Collision> collisions_;
  unsigned long long collision_count_ = 0;
};
