#pragma once

#include "sdk/instance/instance_handler.h"
#include "sdk/job/job.h"
#include "sdk/job/object_creator.h"
#include "sdk/json/yajl_handler.h"
#include "sdk/rpc/json_rpc.h"

#include <memory>
#include <string>

/// A loaded resource module and the objects that its factories made. The objects go back to the module's own disposers
/// and the shared object is closed last, so nothing of the module may be in use when this is destroyed.
class Module {
public:
  /// Loads `path` and checks it whole before anything is kept: the file must be a shared object for this program, all
  /// of its symbols must resolve, every factory must be there and make an object. Null with a message that names the
  /// file and the symbol.
  static std::unique_ptr<Module> load(const std::string& path, std::string& error);
  ~Module();
  Module(const Module&) = delete;
  Module& operator=(const Module&) = delete;

  // Owned by the module, valid while it is loaded.
  Instance_Handler& instance_handler() { return *instance_handler_; }
  Job_Creator& job_creator() { return *job_creator_; }
  Object_Creator_T<YAJL_Handler>& backup_options_parsers() { return *backup_options_; }
  Object_Creator_T<YAJL_Handler>& backup_source_parsers() { return *backup_source_; }
  Object_Creator_T<YAJL_Handler>& restore_options_parsers() { return *restore_options_; }
  Object_Creator_T<YAJL_Handler>& restore_source_parsers() { return *restore_source_; }
  JSON_RPC_Handler& list_handler() { return *list_handler_; }
  JSON_RPC_Handler& test_handler() { return *test_handler_; }

private:
  typedef std::unique_ptr<void, void (*)(void*)> Handle;

  template <typename T>
  using Made = std::unique_ptr<T, void (*)(void*)>;

  explicit Module(Handle handle);
  template <typename T>
  bool make(const std::string& path, const char* factory, Made<T>& object, std::string& error);

  Handle handle_; ///< first member: closed after everything below is disposed of
  Made<Instance_Handler> instance_handler_;
  Made<Job_Creator> job_creator_;
  Made<Object_Creator_T<YAJL_Handler>> backup_options_;
  Made<Object_Creator_T<YAJL_Handler>> backup_source_;
  Made<Object_Creator_T<YAJL_Handler>> restore_options_;
  Made<Object_Creator_T<YAJL_Handler>> restore_source_;
  Made<JSON_RPC_Handler> list_handler_;
  Made<JSON_RPC_Handler> test_handler_;
};

/// Where the module of this installation lies: beside the program, `../lib/obs/libobs_agent.so`.
std::string default_module_path();
