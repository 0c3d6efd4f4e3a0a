#pragma once

#include "sdk/instance/instance_handler.h"
#include "sdk/job/job.h"
#include "sdk/job/object_creator.h"
#include "sdk/json/yajl_handler.h"
#include "sdk/rpc/json_rpc.h"

#include <memory>
#include <stdexcept>
#include <string>

/// A host that knows the module by its documented names alone: loads the shared object, asks its factories for
/// objects, gives these back to the disposers that the factories handed out, and unloads it.
namespace boundary {

typedef Object_Creator_T<YAJL_Handler> Parser_Creator;
typedef void (*Disposer)(void*);

/// The file under test.
std::string module_path();
/// Whether anything of the module is mapped into this process.
bool is_module_mapped();
/// Whether the dynamic linker still holds it.
bool is_module_loaded();

/// The loaded module; unloaded by the destructor. Objects of its factories have to be gone by then.
class Loaded_Module {
public:
  /// Throws std::runtime_error, with the linker's reason, when it cannot be loaded.
  Loaded_Module();
  ~Loaded_Module();
  Loaded_Module(const Loaded_Module&) = delete;
  Loaded_Module& operator=(const Loaded_Module&) = delete;

  /// Null when the module exports no such symbol.
  void* symbol(const char* name) const;
  template <typename T>
  T* (*factory(const char* name) const)(Disposer*) {
    typedef T* (*Factory)(Disposer*);
    const Factory found = reinterpret_cast<Factory>(symbol(name));
    if (!found)
      throw std::runtime_error(std::string("no such factory: ") + name);
    return found;
  }

private:
  void* handle_;
};

/// An object of a factory, given back to its disposer.
template <typename T>
class Made {
public:
  Made(const Loaded_Module& module, const char* factory) : object_(module.factory<T>(factory)(&disposer_)) {}
  ~Made() {
    if (disposer_)
      disposer_(object_);
  }
  Made(const Made&) = delete;
  Made& operator=(const Made&) = delete;

  T* get() const { return object_; }
  T* operator->() const { return object_; }
  Disposer disposer() const { return disposer_; }

private:
  Disposer disposer_ = nullptr;
  T* object_;
};

/// The record that a parser of `creator` makes of `text`; `accepted` says whether the parse went through. The parser
/// is given back before this returns.
template <typename RECORD>
ACE_Refcounted_Auto_Ptr<RECORD, ACE_Thread_Mutex> parse(Parser_Creator& creator, const std::string& text,
                                                        bool& accepted) {
  YAJL_Handler* const parser = creator.create();
  if (!parser)
    throw std::runtime_error("no parser");
  std::string error;
  accepted = yajl_parse(text, *parser, error);
  ACE_Refcounted_Auto_Ptr<RECORD, ACE_Thread_Mutex> record = static_cast<YAJL_Parser<RECORD>*>(parser)->result();
  creator.destroy(parser);
  return record;
}

} // namespace boundary
