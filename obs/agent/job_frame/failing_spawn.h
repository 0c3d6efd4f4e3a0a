#pragma once

#include <cerrno>

#include <dlfcn.h>
#include <pthread.h>

namespace module_testing {

/// Threads that the calling thread may still start; negative: any number.
inline thread_local int spawns_left = -1;

/// Lets the calling thread start no more than `allowed` others while it lives.
class Failing_Spawn {
public:
  explicit Failing_Spawn(int allowed = 0) { spawns_left = allowed; }
  ~Failing_Spawn() { spawns_left = -1; }
  Failing_Spawn(const Failing_Spawn&) = delete;
  Failing_Spawn& operator=(const Failing_Spawn&) = delete;
};

} // namespace module_testing

/// Takes the place of the C library's function in a test program, once in each that uses Failing_Spawn.
#define MODULE_TESTING_DEFINE_FAILING_SPAWN()                                                                          \
  extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*function)(void*),         \
                                void* argument) noexcept {                                                             \
    if (module_testing::spawns_left == 0)                                                                              \
      return EAGAIN;                                                                                                   \
    if (module_testing::spawns_left > 0)                                                                               \
      --module_testing::spawns_left;                                                                                   \
    typedef int (*Create)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);                                 \
    static const Create create = reinterpret_cast<Create>(dlsym(RTLD_NEXT, "pthread_create"));                         \
    return create(thread, attributes, function, argument);                                                             \
  }
