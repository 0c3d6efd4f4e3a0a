#pragma once

#include <string>

/// A lock on the data of one set (or partial set), taken on its record's file: any number of readers share it, whoever
/// removes the set needs it alone. So a set that is being read stays until its readers have finished, and a set that is
/// being removed takes no new ones. It ends with the process at the latest, needs no file of its own, and works on
/// media that are read-only. Movable; one thread at a time.
class Set_Guard {
public:
  enum Outcome {
    HELD,
    BUSY,    ///< read, or being removed, by somebody else
    MISSING, ///< there is no record
    FAILED
  };

  Set_Guard() = default;
  ~Set_Guard() { release(); }
  Set_Guard(Set_Guard&& other) noexcept;
  Set_Guard& operator=(Set_Guard&& other) noexcept;

  /// Shares the set in `folder` with other readers. At once; `error` tells why not.
  Outcome share(const std::string& folder, std::string& error) { return take(folder, false, error); }
  /// Has it alone. At once.
  Outcome own(const std::string& folder, std::string& error) { return take(folder, true, error); }
  void release();
  bool held() const { return fd_ >= 0; }

private:
  Outcome take(const std::string& folder, bool alone, std::string& error);
  int fd_ = -1;
};
