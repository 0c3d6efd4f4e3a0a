#pragma once

#include <string>

/// The locks on folders that the threads of this process hold, by the path of their file: a lock belongs to its
/// descriptor, so that who takes one twice waits for itself. Any thread.
class Held_Locks {
public:
  static void taken(const std::string& path);
  static void released(const std::string& path);
  /// Whether the calling thread has taken it and nobody has released it since.
  static bool is_mine(const std::string& path);
};
