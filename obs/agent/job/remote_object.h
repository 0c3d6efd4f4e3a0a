#pragma once

#include "obs/agent/job/buckets_mapper.h"

#include <string>

class OBS_Path;

/// The text behind one leading "/", or the whole text when it does not begin with one. Points into `path`.
const char* get_remote(const std::string& path);

/// Where an object that was backed up as `source` is restored to. Without a target bucket in its mapping it goes back
/// to its own bucket and key. The key is bytes: only prefix, source bucket and key are joined, nothing is cleaned.
struct Remote_Object {
  Remote_Object(const OBS_Path& source, const Buckets_Mapper::mapper_t& mapping);

  std::string bucket;
  std::string key;
};
