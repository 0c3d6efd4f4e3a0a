#include "obs/agent/job/remote_object.h"

#include "obs/agent/util/obs_path.h"
#include "sdk/base/path.h"

const char* get_remote(const std::string& path) {
  return path.c_str() + (!path.empty() && path.front() == '/' ? 1 : 0);
}

Remote_Object::Remote_Object(const OBS_Path& source, const Buckets_Mapper::mapper_t& mapping)
    : bucket(mapping.bucket.empty() ? source.bucket_ : mapping.bucket) {
  if (mapping.bucket.empty()) {
    key = source.object_;
    return;
  }
  scrt::Path_T<char> path('/');
  path /= mapping.prefix;
  if (mapping.add_bucket_prefix)
    path /= source.bucket_;
  path /= source.object_;
  key = get_remote(path.str());
}
