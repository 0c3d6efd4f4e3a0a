#include "sdk/job/job_mutex.h"

#include "platform/job/current_job.h"
#include "platform/job/state_folder.h"
#include "sdk/base/check.h"

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>
#include <thread>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

Job_Mutex::~Job_Mutex() = default;

namespace {

// How often a waiting thread looks whether its job is being cancelled, and whether another process has let go.
const std::chrono::milliseconds LOOK_AGAIN(100);
constexpr size_t MAX_FILE_NAME = 200;

// Any bytes as a file name: all but letters, digits, "-" and "_" are written as "%XX". A long name is cut and told
// apart by a hash (FNV-1a, 64 bits) of the whole.
std::string lock_file_name(const std::string& name) {
  std::string file;
  unsigned long long hash = 0xCBF29CE484222325ull;
  char hex[20];
  for (const char c : name) {
    hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001B3ull;
    if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_') {
      file += c;
    } else {
      snprintf(hex, sizeof hex, "%%%02X", static_cast<unsigned char>(c));
      file += hex;
    }
  }
  if (file.size() > MAX_FILE_NAME) {
    snprintf(hex, sizeof hex, "%016llx", hash);
    file = file.substr(0, MAX_FILE_NAME) + "~" + hex;
  }
  return file + ".lock";
}

class Named_Mutex : public Job_Mutex {
public:
  explicit Named_Mutex(const std::string& name) : name_(name) {}
  ~Named_Mutex() override { close_file(); }

  int acquire() override { return take(true); }
  int tryacquire() override { return take(false); }

  int release() override {
    {
      const std::lock_guard<std::mutex> guard(mutex_);
      if (!held_) {
        errno = EPERM;
        return -1;
      }
      close_file();
      held_ = false;
    }
    free_.notify_one();
    return 0;
  }

  int remove() override { return 0; }

private:
  int take(bool wait) {
    if (take_in_process(wait) != 0)
      return -1;
    if (take_file(wait) == 0)
      return 0;
    const int error = errno;
    release();
    errno = error;
    return -1;
  }

  int take_in_process(bool wait) {
    std::unique_lock<std::mutex> lock(mutex_);
    while (held_) {
      if (!wait) {
        errno = EBUSY;
        return -1;
      }
      if (is_current_job_canceling()) {
        errno = ECANCELED;
        return -1;
      }
      free_.wait_for(lock, LOOK_AGAIN);
    }
    held_ = true;
    return 0;
  }

  // The lock files stay: one that was removed while somebody waits for it would no longer exclude anybody.
  int take_file(bool wait) {
    const std::string folder = state_folder();
    if (folder.empty())
      return 0;
    const std::string locks = folder + "/locks";
    const std::string path = locks + "/" + lock_file_name(name_);
    if (mkdir(locks.c_str(), 0700) != 0 && errno != EEXIST)
      return report(locks);
    file_ = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (file_ < 0)
      return report(path);
    while (flock(file_, LOCK_EX | LOCK_NB) != 0) {
      if (errno == EINTR)
        continue;
      if (errno != EWOULDBLOCK)
        return report(path);
      if (!wait) {
        errno = EBUSY;
        return -1;
      }
      if (is_current_job_canceling()) {
        errno = ECANCELED;
        return -1;
      }
      std::this_thread::sleep_for(LOOK_AGAIN);
    }
    return 0;
  }

  static int report(const std::string& path) {
    const int error = errno;
    ACE_ERROR((LM_ERROR, ACE_TEXT("Failed to lock '%C': %C. Check the rights of the state folder.\n"), path.c_str(),
               strerror(error)));
    errno = error;
    return -1;
  }

  void close_file() {
    if (file_ < 0)
      return;
    // Unlocked by hand: a child process that is between fork and exec still has the file open.
    flock(file_, LOCK_UN);
    close(file_);
    file_ = -1;
  }

  const std::string name_;
  std::mutex mutex_; ///< guards `held_`; who holds owns `file_`
  std::condition_variable free_;
  bool held_ = false;
  int file_ = -1;
};

struct Registry {
  std::mutex mutex; ///< guards `named`
  std::map<std::string, std::weak_ptr<Job_Mutex>> named;
};

Registry& registry() {
  static Registry* instance = new Registry;
  return *instance;
}

} // namespace

std::shared_ptr<Job_Mutex> Job_Mutex::get(const std::string& name) {
  Registry& all = registry();
  const std::lock_guard<std::mutex> guard(all.mutex);
  for (auto at = all.named.begin(); at != all.named.end();)
    at = at->second.expired() && at->first != name ? all.named.erase(at) : std::next(at);
  std::weak_ptr<Job_Mutex>& known = all.named[name];
  std::shared_ptr<Job_Mutex> mutex = known.lock();
  if (!mutex) {
    mutex = std::make_shared<Named_Mutex>(name);
    known = mutex;
  }
  return mutex;
}
