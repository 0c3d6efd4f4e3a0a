#pragma once

#include "sdk/json/json_spirit.h"

#include <map>
#include <memory>
#include <string>

/// One instance of a resource on this machine.
struct Instance {
  std::string type;                  ///< of its resource, as Instance_Handler::type
  std::string name;                  ///< unique within the type
  std::string uuid;                  ///< empty where it has none
  json_spirit::Object options;       ///< what the host is to know of it, as {"is_proxy": true}
  json_spirit::Object logon_options; ///< what it needs to be logged on to; empty where nothing is needed
};

/// Tells which instances of a resource there are. The host owns it, calls `init` first and `fini` last, and uses it on
/// one thread at a time. Operations answer 0, or -1 when they fail; texts that are handed in live as long as the call.
class Instance_Handler {
public:
  explicit Instance_Handler(const std::string& type) : type_(type) {}
  virtual ~Instance_Handler();
  /// Arguments from the host's configuration. The base: 0.
  virtual int init(int argc, char** argv);
  /// The base: 0.
  virtual int fini();
  /// Adds the instances to `instances`, by name. 0, or -1.
  virtual int probe_instances(std::map<std::string, std::shared_ptr<Instance>>& instances) = 0;
  /// The state of the instance of that name, as "enabled". Negative when it cannot be told.
  virtual int get_state(const char* instance, std::string& state) = 0;
  /// The state of every probed instance, by name. -1 when they cannot be probed, or when one of them has no state;
  /// those of the others are in `states` all the same.
  virtual int get_states(std::map<std::string, std::string>& states);
  /// Logs on to an instance; `options` may be completed by it.
  virtual int logon(const char* instance, const char* user, const char* password, json_spirit::Object& options) = 0;
  /// The base: 0, nothing done.
  virtual int logoff(const char* instance);
  /// Changes what `logon` was given. The base: 0, nothing done.
  virtual int update_options(const char* instance, const char* user, const char* password,
                             json_spirit::Object& options);

  const std::string& type() const { return type_; }

private:
  std::string type_;
};
