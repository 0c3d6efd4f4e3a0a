#pragma once

#include <memory>
#include <string>

/// The order in which the locks of a state folder and its pools are taken: who holds one takes only such as come after
/// it. `Set_Guard`s, which are never waited for, come after all of them.
enum class Lock_Rank {
  STATE, ///< Process_Lock: the agent's state folder
  MERGE, ///< Set_Lock: POOL/.merging/RESOURCE, while sets of that selection are merged
  POOL,  ///< Process_Lock: a pool
  PLACE, ///< Set_Lock: HOST/RESOURCE, while sets' folders are made or removed there; of several in the order of names
  SET    ///< Set_Lock: HOST/RESOURCE/ACTIVITY, by the run that works there
};

/// What this process knows about the locks that it holds itself. The kernel lets a process wait for a lock that it
/// holds through another descriptor; here that is found before. Any thread.
class Lock_Order {
public:
  /// A lock that is held, for as long as this exists. A lock may be let go of by another thread than took it.
  class Held;
  typedef std::shared_ptr<Held> Held_ptr;

  /// Whether the calling thread, which may have to wait for the lock on `path` when `wait`, would take it out of order.
  /// Returns what is wrong, with both locks; empty when nothing is.
  static std::string violation(Lock_Rank rank, const std::string& path, bool wait);
  /// Whether the calling thread itself has taken the lock on `path`.
  static bool is_own(const std::string& path);
  /// A debug build ends where the order is violated; others write a line to the log.
  static void expect(Lock_Rank rank, const std::string& path, bool wait);
  /// The calling thread has taken the lock on `path`.
  static Held_ptr taken(Lock_Rank rank, const std::string& path);
};
