#include "platform/pool/held_locks.h"

#include <map>
#include <mutex>
#include <thread>

namespace {

std::mutex mutex; ///< guards `holders`

std::map<std::string, std::thread::id>& holders() {
  static auto& made = *new std::map<std::string, std::thread::id>; // never destroyed: locks may outlive main
  return made;
}

} // namespace

void Held_Locks::taken(const std::string& path) {
  const std::lock_guard<std::mutex> guard(mutex);
  holders()[path] = std::this_thread::get_id();
}

void Held_Locks::released(const std::string& path) {
  const std::lock_guard<std::mutex> guard(mutex);
  holders().erase(path);
}

bool Held_Locks::is_mine(const std::string& path) {
  const std::lock_guard<std::mutex> guard(mutex);
  const auto found = holders().find(path);
  return found != holders().end() && found->second == std::this_thread::get_id();
}
