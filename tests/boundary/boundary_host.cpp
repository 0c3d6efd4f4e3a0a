#include "tests/boundary/boundary_host.h"

#include <dlfcn.h>

#include <fstream>

namespace boundary {

std::string module_path() {
  return BOUNDARY_MODULE;
}

bool is_module_mapped() {
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);)
    if (line.find("/libobs_agent.so") != std::string::npos)
      return true;
  return false;
}

bool is_module_loaded() {
  void* const handle = dlopen(module_path().c_str(), RTLD_NOW | RTLD_NOLOAD);
  if (handle)
    dlclose(handle);
  return handle != nullptr;
}

Loaded_Module::Loaded_Module() : handle_(dlopen(module_path().c_str(), RTLD_NOW | RTLD_LOCAL)) {
  if (!handle_)
    throw std::runtime_error(dlerror());
}

Loaded_Module::~Loaded_Module() {
  dlclose(handle_);
}

void* Loaded_Module::symbol(const char* name) const {
  return dlsym(handle_, name);
}

} // namespace boundary
