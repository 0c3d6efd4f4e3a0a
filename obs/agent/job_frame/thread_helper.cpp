#include "obs/agent/job_frame/thread_helper.h"

#include "sdk/base/check.h"

#include <ace/Thread_Manager.h>

#include <cerrno>
#include <cstring>
#include <exception>

#include <dlfcn.h>

Thread_Helper::Thread_Helper(long flags, long priority)
    : _tid(ACE_OS::NULL_thread), _running(new (std::nothrow) std::atomic<bool>(false)), _started(nullptr), _flag(flags),
      _priority(priority) {}

Thread_Helper::~Thread_Helper() {
  join();
}

bool Thread_Helper::exists() const {
  return !ACE_OS::thr_equal(_tid, ACE_OS::NULL_thread);
}

bool Thread_Helper::running() const {
  return exists() && _running && *_running;
}

void Thread_Helper::join() {
  if (!exists())
    return;
  ACE_Thread_Manager::instance()->join(_tid);
  _tid = ACE_OS::NULL_thread;
}

int Thread_Helper::spawn_function(std::function<void()> function) {
  if (running())
    return -1;
  join();
  _function = std::move(function);
  return spawn();
}

int Thread_Helper::spawn() {
  if (!_running) {
    LOG_UNEXPECTED_NULL("_running");
    errno = ENOMEM;
    return -1;
  }

  ACE_Event started;
  ACE_thread_t detached_tid = ACE_OS::NULL_thread;
  const bool detached = (_flag & THR_DETACHED) != 0;
  if (!detached && _running->exchange(true)) {
    ACE_ERROR_RETURN((LM_EMERGENCY, ACE_TEXT("Unexpected error in %N:%l, already_running is true:\n%?\n")), -1);
  }
  _started = &started;
  const int result = ACE_Thread_Manager::instance()->spawn(&Thread_Helper::entry, this, _flag,
                                                           detached ? &detached_tid : &_tid, nullptr, _priority);
  if (result != -1) {
    started.wait();
  } else if (!detached) {
    _tid = ACE_OS::NULL_thread;
    *_running = false;
  }
  _started = nullptr;
  return result;
}

ACE_THR_FUNC_RETURN Thread_Helper::entry(void* argument) {
  Thread_Helper* const self = static_cast<Thread_Helper*>(argument);
  std::atomic<bool>* const running = self->_flag & THR_DETACHED ? nullptr : self->_running.get();
  try {
    self->handle_starting();
  } catch (const std::exception& error) {
    ACE_ERROR((LM_ERROR, ACE_TEXT("Start of a thread: %C.\n"), error.what()));
  }
  // Moved: a copy needs memory, and there is nobody left whom its lack could be reported to.
  std::function<void()> function(std::move(self->_function));
  // A detached thread must not touch the helper behind this.
  if (self->_started)
    self->_started->signal();
  try {
    if (function)
      function();
  } catch (const std::exception& error) {
    ACE_ERROR((LM_ERROR, ACE_TEXT("Thread ended by an exception: %C.\n"), error.what()));
  } catch (...) {
    ACE_ERROR((LM_ERROR, ACE_TEXT("Thread ended by an unknown exception.\n")));
  }
  if (running)
    *running = false;
  return nullptr;
}

void set_thread_name(const char* name, ACE_thread_t thread) {
  typedef int (*Set_Name)(ACE_thread_t, const char*);
  const Set_Name set_name = reinterpret_cast<Set_Name>(::dlsym(RTLD_DEFAULT, "pthread_setname_np"));
  if (!set_name)
    return;
  int result = set_name(thread, name);
  if (result == ERANGE) {
    ACE_DEBUG((LM_WARNING, ACE_TEXT("Thread name(%s) is too long, truncate to %d chars.\n"), name, 15));
    char cut[16] = {};
    std::strncpy(cut, name, 15);
    result = set_name(thread, cut);
  }
  if (result != 0)
    ACE_ERROR((LM_ERROR, ACE_TEXT("Failed to set thread name(%s): %d\n"), name, result));
}
