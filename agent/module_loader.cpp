#include "agent/module_loader.h"

#include <dlfcn.h>

#include <climits>
#include <unistd.h>

namespace {

void close_handle(void* handle) {
  if (handle)
    dlclose(handle);
}

void dispose_nothing(void*) {}

} // namespace

Module::Module(Handle handle)
    : handle_(std::move(handle)), instance_handler_(nullptr, dispose_nothing), job_creator_(nullptr, dispose_nothing),
      backup_options_(nullptr, dispose_nothing), backup_source_(nullptr, dispose_nothing),
      restore_options_(nullptr, dispose_nothing), restore_source_(nullptr, dispose_nothing),
      list_handler_(nullptr, dispose_nothing), test_handler_(nullptr, dispose_nothing) {}

Module::~Module() = default;

template <typename T>
bool Module::make(const std::string& path, const char* factory, Made<T>& object, std::string& error) {
  typedef void (*Disposer)(void*);
  typedef T* (*Factory)(Disposer*);
  const Factory make_object = reinterpret_cast<Factory>(dlsym(handle_.get(), factory));
  if (make_object == nullptr) {
    error = "'" + path + "' is no module of this agent: it does not export '" + factory + "'";
    return false;
  }
  Disposer disposer = nullptr;
  T* made = make_object(&disposer);
  if (made == nullptr || disposer == nullptr) {
    error =
        "'" + path + "': '" + factory + "' made " + (made == nullptr ? "no object" : "an object without a disposer");
    return false;
  }
  object = Made<T>(made, disposer);
  return true;
}

std::unique_ptr<Module> Module::load(const std::string& path, std::string& error) {
  // RTLD_NOW: a symbol that nobody has is found here and not in the middle of a job.
  Handle handle(dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL), close_handle);
  if (!handle) {
    const char* reason = dlerror();
    error = "'" + path + "' cannot be loaded: " + (reason ? reason : "unknown reason");
    return nullptr;
  }
  std::unique_ptr<Module> module(new Module(std::move(handle)));
  const bool whole =
      module->make(path, "_make_OBS_Instance_Handler", module->instance_handler_, error) &&
      module->make(path, "_make_OBS_Job_Creator", module->job_creator_, error) &&
      module->make(path, "_make_OBS_Backup_Job_Options_Parser_Creator", module->backup_options_, error) &&
      module->make(path, "_make_OBS_Backup_Job_Source_Parser_Creator", module->backup_source_, error) &&
      module->make(path, "_make_OBS_Restore_Job_Options_Parser_Creator", module->restore_options_, error) &&
      module->make(path, "_make_OBS_Restore_Job_Source_Parser_Creator", module->restore_source_, error) &&
      module->make(path, "_make_JSON_RPC_OBS_List_Handler", module->list_handler_, error) &&
      module->make(path, "_make_JSON_RPC_OBS_Test_Handler", module->test_handler_, error);
  if (!whole)
    return nullptr;
  return module;
}

std::string default_module_path() {
  char self[PATH_MAX];
  const ssize_t length = readlink("/proc/self/exe", self, sizeof self);
  std::string path(self, length > 0 ? static_cast<size_t>(length) : 0);
  path.erase(path.rfind('/') + 1);
  return path + "../lib/obs/libobs_agent.so";
}
