#pragma once

#include "sdk/instance/instance_handler.h"

/// The instances of object storage: one, "OBS", that is always there and enabled. Accounts belong to the server and
/// are looked up by each job. Keeps no state; any thread.
class OBS_Instance_Handler : public Instance_Handler {
public:
  OBS_Instance_Handler();
  ~OBS_Instance_Handler() override;

  /// Puts "OBS" into `instances`, in the place of one that is there. Always 0.
  int probe_instances(std::map<std::string, std::shared_ptr<Instance>>& instances) override;
  /// "enabled", whatever the name.
  int get_state(const char* instance, std::string& state) override;
  /// Always 0: keys are used by each job, there is nothing to log on to.
  int logon(const char* instance, const char* user, const char* password, json_spirit::Object& options) override;
};
