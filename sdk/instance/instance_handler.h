#pragma once

#include "sdk/json/json_spirit.h"

#include <map>
#include <memory>
#include <string>

/// One instance of a resource on this machine.
struct Instance {
  std::string type;
  std::string name;
  std::string uuid;
  json_spirit::Object options;
  json_spirit::Object logon_options;
};

/// Tells which instances of a resource there are.
class Instance_Handler {
public:
  explicit Instance_Handler(const std::string& type) : type_(type) {}
  virtual ~Instance_Handler();
  virtual int init(int argc, char** argv);
  virtual int fini();
  /// Adds the instances to `instances`, by name. 0, or -1.
  virtual int probe_instances(std::map<std::string, std::shared_ptr<Instance>>& instances) = 0;
  virtual int get_state(const char* instance, std::string& state) = 0;
  /// The state of every probed instance, by name.
  virtual int get_states(std::map<std::string, std::string>& states);
  virtual int logon(const char* instance, const char* user, const char* password, json_spirit::Object& options) = 0;
  virtual int logoff(const char* instance);
  virtual int update_options(const char* instance, const char* user, const char* password,
                             json_spirit::Object& options);

  const std::string& type() const { return type_; }

private:
  std::string type_;
};
