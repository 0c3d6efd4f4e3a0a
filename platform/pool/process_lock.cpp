#include "platform/pool/process_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <utility>

namespace {

typedef std::pair<dev_t, ino_t> File_Id;

std::mutex held_mutex; ///< guards `held`
std::map<File_Id, std::weak_ptr<Process_Lock>>& held() {
  static std::map<File_Id, std::weak_ptr<Process_Lock>> locks;
  return locks;
}

/// The process that the lock's file names; empty when it names none.
std::string holder_of(int fd) {
  char text[32] = {};
  const ssize_t size = ::pread(fd, text, sizeof text - 1, 0);
  const long pid = size > 0 ? std::strtol(text, nullptr, 10) : 0;
  return pid > 0 ? "process " + std::to_string(pid) : "another process";
}

} // namespace

Process_Lock::~Process_Lock() {
  ::close(fd_);
}

std::shared_ptr<Process_Lock> Process_Lock::acquire(const std::string& folder, const std::string& what,
                                                    std::string& error) {
  const std::string path = folder + "/" + FILE_NAME;
  const std::lock_guard<std::mutex> guard(held_mutex);
  struct stat status;
  if (::stat(path.c_str(), &status) == 0) {
    const auto found = held().find({status.st_dev, status.st_ino});
    if (found != held().end())
      if (std::shared_ptr<Process_Lock> mine = found->second.lock())
        return mine;
  }
  const int fd = ::open(path.c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0600);
  if (fd < 0 || ::fstat(fd, &status) != 0) {
    error = "cannot lock " + what + ": " + path + ": " + std::strerror(errno);
    if (fd >= 0)
      ::close(fd);
    return nullptr;
  }
  int result;
  do {
    result = ::flock(fd, LOCK_EX | LOCK_NB);
  } while (result != 0 && errno == EINTR);
  if (result != 0) {
    error = errno == EWOULDBLOCK ? what + " is in use by " + holder_of(fd) + ": try again when that has ended"
                                 : "cannot lock " + what + ": " + path + ": " + std::strerror(errno);
    ::close(fd);
    return nullptr;
  }
  const std::string pid = std::to_string(::getpid()) + "\n";
  // Who holds it is only told; the lock itself does not depend on it.
  if (::ftruncate(fd, 0) == 0 && ::pwrite(fd, pid.data(), pid.size(), 0) < 0)
    errno = 0;
  std::shared_ptr<Process_Lock> lock(new Process_Lock(fd));
  held()[{status.st_dev, status.st_ino}] = lock;
  return lock;
}
