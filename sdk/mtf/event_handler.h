#pragma once

#include "sdk/json/json_spirit.h"

#include <ace/Recursive_Thread_Mutex.h>
#include <ace/Refcounted_Auto_Ptr.h>

#include <atomic>

namespace MTF {

/// One item could not be handled: {"type": "file" or "directory", "name", "errno", "message"}.
constexpr unsigned EVENT_ITEM_ERROR = 0x0100000A;
/// The engine's account of a whole run, once at its end.
constexpr unsigned EVENT_OUTCOME = 0x0100000B;

/// Told of an engine's progress and asked whether it shall stop. Called from all of the engine's threads.
class Event_Handler {
public:
  /// `mode` 0: progress is reported as it comes.
  explicit Event_Handler(int mode);
  virtual ~Event_Handler();

  virtual int notify_event(unsigned code, const json_spirit::Object& options);
  /// `code` and three figures: objects, bytes read, bytes stored.
  virtual int handle_progress(int code, unsigned long long a, unsigned long long b, unsigned long long c);
  virtual bool canceling();
  virtual bool pausing();

  bool is_canceling() { return canceling(); }
  void add_skipped_files(unsigned long long count) { skipped_files_ += count; }
  void add_skipped_dirs(unsigned long long count) { skipped_dirs_ += count; }
  unsigned long long skipped_files() const { return skipped_files_; }
  unsigned long long skipped_dirs() const { return skipped_dirs_; }
  int mode() const { return mode_; }

private:
  int mode_;
  std::atomic<unsigned long long> skipped_files_{0};
  std::atomic<unsigned long long> skipped_dirs_{0};
};
typedef ACE_Refcounted_Auto_Ptr<Event_Handler, ACE_Recursive_Thread_Mutex> Event_Handler_var;

} // namespace MTF
