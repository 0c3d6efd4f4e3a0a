#include "platform/pool/process_lock.h"

#include "platform/pool/pool_files.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
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

/// "PID HOST" and a line end; before hosts were named, "PID". Folders may be on a file system that several hosts share.
constexpr size_t LONGEST_HOLDER = 300;

std::string this_host() {
  char name[256] = {};
  return ::gethostname(name, sizeof name - 1) == 0 ? name : "";
}

/// The process that the lock's file names, and its host.
std::string holder_of(int fd) {
  char text[LONGEST_HOLDER] = {};
  const ssize_t size = ::pread(fd, text, sizeof text - 1, 0);
  char* end = text;
  const long pid = size > 0 ? std::strtol(text, &end, 10) : 0;
  if (pid <= 0)
    return "another process";
  std::string host = *end == ' ' ? end + 1 : "";
  host.erase(std::min(host.find('\n'), host.size()));
  return "process " + std::to_string(pid) + (host.empty() ? "" : " on host " + host);
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
  if (find_pool_file(path, status)) {
    const auto found = held().find({status.st_dev, status.st_ino});
    if (found != held().end())
      if (std::shared_ptr<Process_Lock> mine = found->second.lock())
        return mine;
  }
  const int fd = open_pool_file(path, O_CREAT | O_RDWR);
  if (fd < 0 || ::fstat(fd, &status) != 0) {
    error = "cannot lock " + what + ": " + path + ": " + pool_file_error(errno);
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
  const std::string pid = std::to_string(::getpid()) + " " + this_host() + "\n";
  // Who holds it is only told; the lock itself does not depend on it.
  if (::ftruncate(fd, 0) == 0 && ::pwrite(fd, pid.data(), pid.size(), 0) < 0)
    errno = 0;
  std::shared_ptr<Process_Lock> lock(new Process_Lock(fd));
  held()[{status.st_dev, status.st_ino}] = lock;
  return lock;
}
