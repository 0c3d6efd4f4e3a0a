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

/// Told of an engine's progress and asked whether it shall stop. The engine and whoever made it share it; every
/// operation may be called from any of the engine's threads, several at once.
class Event_Handler {
public:
  /// `mode` 0: progress is reported as it comes. Handed on by `mode()`; no other has an effect here.
  explicit Event_Handler(int mode);
  virtual ~Event_Handler();

  /// `code` is one of those above; `options` lives as long as the call. What it returns is not looked at; the base: 0.
  virtual int notify_event(unsigned code, const json_spirit::Object& options);
  /// Where the run stands, about once a second and once at its end: objects saved, bytes read, bytes stored so far.
  /// `code` is 0. What it returns is not looked at; the base: 0.
  virtual int handle_progress(int code, unsigned long long a, unsigned long long b, unsigned long long c);
  /// True: the engine ends as soon as it can, with E_CANCELED. Asked all the time; must not block. The base: false.
  virtual bool canceling();
  /// True: nothing new is begun until it is false again. As `canceling`.
  virtual bool pausing();

  bool is_canceling() { return canceling(); }
  // Counts of what the engine had to leave out.
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
