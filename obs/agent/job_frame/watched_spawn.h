#pragma once

#include <ace/Thread_Manager.h>

#include <mutex>
#include <vector>

#include <dlfcn.h>

namespace module_testing {

/// What a thread was asked for with.
struct Asked_Spawn {
  long flags;
  long priority;
  int group;
  bool operator==(const Asked_Spawn& other) const {
    return flags == other.flags && priority == other.priority && group == other.group;
  }
};

/// The threads that were asked of ACE's manager since the program began or `clear`.
class Watched_Spawns {
public:
  static Watched_Spawns& instance() {
    static Watched_Spawns one;
    return one;
  }
  void add(const Asked_Spawn& asked) {
    const std::lock_guard<std::mutex> guard(lock_);
    asked_.push_back(asked);
  }
  void clear() {
    const std::lock_guard<std::mutex> guard(lock_);
    asked_.clear();
  }
  std::vector<Asked_Spawn> asked() const {
    const std::lock_guard<std::mutex> guard(lock_);
    return asked_;
  }

private:
  mutable std::mutex lock_;
  std::vector<Asked_Spawn> asked_;
};

} // namespace module_testing

/// Takes the place of ACE's operation in a test program, once in each that uses Watched_Spawns.
#define MODULE_TESTING_DEFINE_WATCHED_SPAWN()                                                                          \
  int ACE_Thread_Manager::spawn(ACE_THR_FUNC function, void* argument, long flags, ACE_thread_t* id,                   \
                                ACE_hthread_t* handle, long priority, int group, void* stack, size_t stack_size,       \
                                const char** name) {                                                                   \
    module_testing::Watched_Spawns::instance().add({flags, priority, group});                                          \
    typedef int (*Spawn)(ACE_Thread_Manager*, ACE_THR_FUNC, void*, long, ACE_thread_t*, ACE_hthread_t*, long, int,     \
                         void*, size_t, const char**);                                                                 \
    static const Spawn next = reinterpret_cast<Spawn>(                                                                 \
        dlsym(RTLD_NEXT, sizeof(size_t) == 8 ? "_ZN18ACE_Thread_Manager5spawnEPFPvS0_ES0_lPmS3_liS0_mPPKc"             \
                                             : "_ZN18ACE_Thread_Manager5spawnEPFPvS0_ES0_lPmS3_liS0_jPPKc"));          \
    return next(this, function, argument, flags, id, handle, priority, group, stack, stack_size, name);                \
  }
