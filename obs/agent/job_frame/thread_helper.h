#pragma once

#include <ace/Event.h>
#include <ace/OS_NS_Thread.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <memory>
#include <new>

/// Runs one callable on an ACE thread and can wait for its end.
///
/// With THR_DETACHED among the flags nobody ever waits for the thread: `join` and the destructor return at once, so
/// what the callable works on has to live on by itself. Otherwise the destructor joins. `spawn` and `join` are for one
/// thread at a time; `running` for any.
class Thread_Helper {
public:
  /// `flags` and `priority` as ACE_Thread_Manager::spawn takes them.
  Thread_Helper(long flags, long priority);
  Thread_Helper(const Thread_Helper&) = delete;
  Thread_Helper& operator=(const Thread_Helper&) = delete;
  virtual ~Thread_Helper();

  /// The first thing that is called on the new thread.
  virtual void handle_starting() {}

  /// Runs `(object->*function)()`; its result is dropped. Returns when the thread has begun, with what ACE's spawn
  /// answered: its group, or -1 when it cannot be started, with `errno` ENOMEM where memory is short. -1 too while a
  /// joinable thread is at work.
  template <typename R, typename C>
  int spawn(R (C::*function)(), C* object) {
    try {
      return spawn_function([function, object] { (void)(object->*function)(); });
    } catch (const std::bad_alloc&) {
      errno = ENOMEM;
      return -1;
    }
  }

  /// True between the start of a joinable thread and `join`.
  bool exists() const;
  /// True while a joinable thread is at work.
  bool running() const;
  /// Waits for the end of a joinable thread; nothing without one.
  void join();

private:
  int spawn_function(std::function<void()> function);
  int spawn();
  static ACE_THR_FUNC_RETURN entry(void* self);

  ACE_thread_t _tid;
  std::function<void()> _function;
  std::unique_ptr<std::atomic<bool>> _running;
  ACE_Event* _started; ///< only while `spawn` waits for the thread to begin
  long _flag;
  long _priority;
};

/// Names `thread` for debuggers and process listings, where the C library can. The system allows 15 bytes: a longer
/// name is cut, with a warning.
void set_thread_name(const char* name, ACE_thread_t thread);
