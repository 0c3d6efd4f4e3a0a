#include "platform/pool/process_lock.h"

#include "platform/pool/lock_holder.h"
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

} // namespace

Process_Lock::~Process_Lock() {
  ::close(fd_);
}

std::shared_ptr<Process_Lock> Process_Lock::acquire(const std::string& folder, const std::string& what,
                                                    std::string& error, Lock_Rank rank) {
  const std::string path = folder + "/" + FILE_NAME;
  const std::lock_guard<std::mutex> guard(held_mutex);
  struct stat status;
  if (find_pool_file(path, status)) {
    const auto found = held().find({status.st_dev, status.st_ino});
    if (found != held().end())
      if (std::shared_ptr<Process_Lock> mine = found->second.lock())
        return mine;
  }
  Lock_Order::expect(rank, path, false);
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
    error = errno == EWOULDBLOCK
                ? what + " is in use by " + lock_holder(fd, "another process") + ": try again when that has ended"
                : "cannot lock " + what + ": " + path + ": " + std::strerror(errno);
    ::close(fd);
    return nullptr;
  }
  name_lock_holder(fd);
  std::shared_ptr<Process_Lock> lock(new Process_Lock(fd, Lock_Order::taken(rank, path)));
  held()[{status.st_dev, status.st_ino}] = lock;
  return lock;
}
