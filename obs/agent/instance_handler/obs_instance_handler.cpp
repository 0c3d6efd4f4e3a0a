#include "obs/agent/instance_handler/obs_instance_handler.h"

#include "obs/agent/job_frame/exports.h"

#include <cerrno>
#include <new>

OBS_Instance_Handler::OBS_Instance_Handler() : Instance_Handler("obs") {}

OBS_Instance_Handler::~OBS_Instance_Handler() = default;

int OBS_Instance_Handler::probe_instances(std::map<std::string, std::shared_ptr<Instance>>& instances) {
  try {
    const std::shared_ptr<Instance> instance = std::make_shared<Instance>();
    instance->type = "obs";
    instance->name = "OBS";
    instance->options["is_proxy"] = true;
    instances.insert_or_assign("OBS", instance);
    return 0;
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
    return -1;
  }
}

int OBS_Instance_Handler::get_state(const char*, std::string& state) {
  state = "enabled";
  return 0;
}

int OBS_Instance_Handler::logon(const char*, const char*, const char*, json_spirit::Object&) {
  return 0;
}

OBS_DEFINE_FACTORY(OBS_Instance_Handler, Instance_Handler, OBS_Instance_Handler)
