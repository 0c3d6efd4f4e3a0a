#pragma once

#include "sdk/json/json_spirit.h"

#include <string>

namespace MTF {

/// What is known about a set before and after an engine has written it. The engine adds what it found to `media` and
/// `figures`; the rest is the executor's.
class Metadata {
public:
  virtual ~Metadata();

  std::string pool_uuid;
  std::string host_uuid;
  std::string definition_uuid;
  std::string uuid; ///< of the set
  std::string uri;  ///< prefix inside the pool
  std::string agent;
  std::string host;
  std::string name;
  std::string type;       ///< "full", "incremental" ...
  std::string start_time; ///< "%Y-%m-%d %H:%M:%S", UTC
  std::string end_time;
  std::string resource_uuid;
  std::string minor_resource_id;
  std::string minor_resource_name;
  std::string uid;
  std::string pool_type;
  bool multidevice = false;
  std::string encryption;
  unsigned long long source_size = 0;             ///< bytes of the objects
  unsigned long long backup_set_size = 0;         ///< bytes of the set before compression
  unsigned long long backup_set_storage_size = 0; ///< bytes that the set takes in the pool

  // Written by the engine.
  unsigned seq = 0; ///< the set's sequence number in its chain
  unsigned channels = 0;
  std::string set_uri;         ///< folder of the set inside the pool
  std::string data_key;        ///< of an encrypted set: its key, wrapped under the pool's; else empty
  std::string base_uuid;       ///< set that an incremental was compared with; empty for a full one
  json_spirit::Array media;    ///< one object a medium: "name", "size", "family"
  json_spirit::Object figures; ///< the run's account, as in EVENT_OUTCOME
};

} // namespace MTF
