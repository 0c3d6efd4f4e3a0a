#pragma once

#include <string>

/// An exclusive lock on a folder of a pool, held by the run that works there. It ends with the process at the latest,
/// so what a killed run left is never locked. Movable; one thread at a time.
class Set_Lock {
public:
  static constexpr const char* FILE_NAME = ".lock";

  Set_Lock() = default;
  ~Set_Lock() { release(); }
  Set_Lock(Set_Lock&& other) noexcept;
  Set_Lock& operator=(Set_Lock&& other) noexcept;

  /// Locks `folder`, at once or, with `wait`, when its holder lets go. False with the reason; `busy`, when given, tells
  /// that somebody else holds it.
  bool acquire(const std::string& folder, bool wait, std::string& error, bool* busy = nullptr);
  /// Removes the lock's file and lets go. Idempotent.
  void release();
  bool held() const { return fd_ >= 0; }

private:
  int fd_ = -1;
  std::string path_;
};
