#include "platform/pool/set_lock.h"

#include "platform/pool/held_locks.h"
#include "platform/pool/pool_files.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

Set_Lock::Set_Lock(Set_Lock&& other) noexcept : fd_(std::exchange(other.fd_, -1)), path_(std::move(other.path_)) {}

Set_Lock& Set_Lock::operator=(Set_Lock&& other) noexcept {
  if (this != &other) {
    release();
    fd_ = std::exchange(other.fd_, -1);
    path_ = std::move(other.path_);
  }
  return *this;
}

bool Set_Lock::acquire(const std::string& folder, bool wait, std::string& error, bool* busy) {
  release();
  if (busy != nullptr)
    *busy = false;
  const std::string path = folder + "/" + FILE_NAME;
  for (;;) {
    const int fd = open_pool_file(path, O_CREAT | O_RDWR);
    if (fd < 0) {
      error = "cannot lock " + folder + ": " + path + ": " + pool_file_error(errno);
      return false;
    }
    int result;
    do {
      result = ::flock(fd, LOCK_EX | (wait ? 0 : LOCK_NB));
    } while (result != 0 && errno == EINTR);
    if (result != 0) {
      const int code = errno;
      ::close(fd);
      if (busy != nullptr)
        *busy = code == EWOULDBLOCK;
      error = code == EWOULDBLOCK ? folder + " is in use by another run"
                                  : "cannot lock " + folder + ": " + std::strerror(code);
      return false;
    }
    // The holder before us may have removed the file while we waited: then the lock is on nothing.
    struct stat mine, there;
    const bool found = ::fstat(fd, &mine) == 0 && find_pool_file(path, there);
    if (!found && errno != ENOENT) {
      error = "cannot lock " + folder + ": " + path + ": " + pool_file_error(errno);
      ::close(fd);
      return false;
    }
    if (found && mine.st_ino == there.st_ino && mine.st_dev == there.st_dev) {
      fd_ = fd;
      path_ = path;
      Held_Locks::taken(path);
      return true;
    }
    ::close(fd);
  }
}

void Set_Lock::release() {
  if (fd_ < 0)
    return;
  remove_pool_file(path_);
  Held_Locks::released(path_);
  ::close(fd_);
  fd_ = -1;
}
