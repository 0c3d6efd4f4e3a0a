#pragma once

#include <cerrno>

#include <dlfcn.h>
#include <pthread.h>

namespace module_testing {

inline thread_local bool spawns_fail = false;

/// Lets the calling thread start no other while it lives.
class Failing_Spawn {
public:
  Failing_Spawn() { spawns_fail = true; }
  ~Failing_Spawn() { spawns_fail = false; }
  Failing_Spawn(const Failing_Spawn&) = delete;
  Failing_Spawn& operator=(const Failing_Spawn&) = delete;
};

} // namespace module_testing

/// Takes the place of the C library's function in a test program, once in each that uses Failing_Spawn.
#define MODULE_TESTING_DEFINE_FAILING_SPAWN()                                                                          \
  extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*function)(void*),         \
                                void* argument) noexcept {                                                             \
    if (module_testing::spawns_fail)                                                                                   \
      return EAGAIN;                                                                                                   \
    typedef int (*Create)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);                                 \
    static const Create create = reinterpret_cast<Create>(dlsym(RTLD_NEXT, "pthread_create"));                         \
    return create(thread, attributes, function, argument);                                                             \
  }
