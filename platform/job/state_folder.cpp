#include "platform/job/state_folder.h"

#include <mutex>

namespace {

struct State_Folder {
  std::mutex mutex; ///< guards `path`
  std::string path;
};

State_Folder& folder() {
  static State_Folder* instance = new State_Folder;
  return *instance;
}

} // namespace

void set_state_folder(const std::string& path) {
  const std::lock_guard<std::mutex> guard(folder().mutex);
  folder().path = path;
}

std::string state_folder() {
  const std::lock_guard<std::mutex> guard(folder().mutex);
  return folder().path;
}
