#pragma once

#include <map>
#include <string>

/// Says into which bucket, and under which prefix, the objects of a bucket are restored: an explicit mapping of that
/// bucket, else the default mapping. Filled once and read from any thread afterwards. Exported from the module.
class __attribute__((visibility("default"))) Buckets_Mapper {
public:
  struct mapper_t {
    std::string bucket;             ///< target; empty: no mapping, an object goes back to where it came from
    std::string prefix;             ///< put before each key; may be empty
    bool add_bucket_prefix = false; ///< the source bucket's name stands between the prefix and the key
  };
  /// By name of the source bucket, ordered by bytes.
  typedef std::map<std::string, mapper_t> mappers_t;

  Buckets_Mapper();
  ~Buckets_Mapper();

  /// The mapping of every bucket without one of its own.
  mapper_t& default_mapper();
  mappers_t& mappers();
  /// The mapping that holds for bucket `name`: its own, else the default one. Valid while nothing is changed.
  const mapper_t& mapper(const std::string& name) const;

private:
  mapper_t default_;
  mappers_t mappers_;
};
