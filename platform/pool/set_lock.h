#pragma once

#include "platform/pool/lock_order.h"

#include <string>

/// An exclusive lock on a folder of a pool, held by the run that works there. It ends with the process at the latest,
/// so what a killed run left is never locked. The order in which such locks are taken is that of their ranks. Movable;
/// one thread at a time.
class Set_Lock {
public:
  static constexpr const char* FILE_NAME = ".lock";
  /// Seconds for which a lock is waited for at most, and those after which a line in the log says what is waited for.
  static constexpr unsigned PATIENCE = 60;
  static constexpr unsigned QUIET = 2;

  explicit Set_Lock(Lock_Rank rank = Lock_Rank::SET) : rank_(rank) {}
  ~Set_Lock() { release(); }
  Set_Lock(Set_Lock&& other) noexcept;
  Set_Lock& operator=(Set_Lock&& other) noexcept;

  /// Locks `folder`, at once or, with `wait`, when its holder lets go within PATIENCE. False with the reason, which
  /// names the holder; `busy`, when given, tells that somebody else holds it. Waiting ends when the job of the calling
  /// thread is being cancelled, and does not begin where the calling thread holds the lock itself.
  bool acquire(const std::string& folder, bool wait, std::string& error, bool* busy = nullptr);
  /// Removes the lock's file and lets go. Idempotent.
  void release();
  bool held() const { return fd_ >= 0; }
  /// Whether it is this folder's, and held.
  bool holds(const std::string& folder) const { return held() && path_ == folder + "/" + FILE_NAME; }

private:
  int take(int fd, const std::string& path, bool wait) const;

  Lock_Rank rank_;
  Lock_Order::Held_ptr order_;
  int fd_ = -1;
  std::string path_;
};
