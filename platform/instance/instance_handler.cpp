#include "sdk/instance/instance_handler.h"

Instance_Handler::~Instance_Handler() = default;

int Instance_Handler::init(int, char**) {
  return 0;
}

int Instance_Handler::fini() {
  return 0;
}

int Instance_Handler::get_states(std::map<std::string, std::string>& states) {
  std::map<std::string, std::shared_ptr<Instance>> instances;
  if (probe_instances(instances) != 0)
    return -1;
  int result = 0;
  for (const auto& instance : instances) {
    std::string state;
    const int answer = get_state(instance.first.c_str(), state);
    if (answer < 0)
      result = -1;
    else
      states[instance.first] = state;
  }
  return result;
}

int Instance_Handler::logoff(const char*) {
  return 0;
}

int Instance_Handler::update_options(const char*, const char*, const char*, json_spirit::Object&) {
  return 0;
}
