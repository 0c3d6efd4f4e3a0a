#include "platform/pool/lock_order.h"

#include <ace/Log_Msg.h>

#include <cstdlib>
#include <mutex>
#include <set>
#include <thread>

class Lock_Order::Held {
public:
  Held(Lock_Rank rank, const std::string& path);
  ~Held();
  Held(const Held&) = delete;
  Held& operator=(const Held&) = delete;

  const Lock_Rank rank;
  const std::string path;
  const std::thread::id thread = std::this_thread::get_id();
};

namespace {

std::mutex held_mutex; ///< guards `held`
std::set<const Lock_Order::Held*>& held() {
  static std::set<const Lock_Order::Held*> locks;
  return locks;
}

const char* name_of(Lock_Rank rank) {
  switch (rank) {
  case Lock_Rank::STATE:
    return "state";
  case Lock_Rank::MERGE:
    return "merge";
  case Lock_Rank::POOL:
    return "pool";
  case Lock_Rank::PLACE:
    return "place";
  default:
    return "set";
  }
}

} // namespace

Lock_Order::Held::Held(Lock_Rank r, const std::string& p) : rank(r), path(p) {
  const std::lock_guard<std::mutex> guard(held_mutex);
  held().insert(this);
}

Lock_Order::Held::~Held() {
  const std::lock_guard<std::mutex> guard(held_mutex);
  held().erase(this);
}

std::string Lock_Order::violation(Lock_Rank rank, const std::string& path, bool wait) {
  const std::lock_guard<std::mutex> guard(held_mutex);
  for (const Held* one : held())
    if (one->thread == std::this_thread::get_id() &&
        (one->rank > rank || (one->rank == rank && wait && one->path >= path)))
      return std::string("the ") + name_of(rank) + " lock on " + path + " is taken after the " + name_of(one->rank) +
             " lock on " + one->path;
  return std::string();
}

bool Lock_Order::is_own(const std::string& path) {
  const std::lock_guard<std::mutex> guard(held_mutex);
  for (const Held* one : held())
    if (one->thread == std::this_thread::get_id() && one->path == path)
      return true;
  return false;
}

void Lock_Order::expect(Lock_Rank rank, const std::string& path, bool wait) {
  const std::string wrong = violation(rank, path, wait);
  if (wrong.empty())
    return;
  ACE_ERROR((LM_WARNING, ACE_TEXT("Locks are taken out of their order: %C.\n"), wrong.c_str()));
#ifdef OBS_DEBUG
  std::abort();
#endif
}

Lock_Order::Held_ptr Lock_Order::taken(Lock_Rank rank, const std::string& path) {
  return std::make_shared<Held>(rank, path);
}
