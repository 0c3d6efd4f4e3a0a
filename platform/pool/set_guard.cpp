#include "platform/pool/set_guard.h"

#include "platform/pool/pool_files.h"
#include "platform/pool/set_record.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

Set_Guard::Set_Guard(Set_Guard&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}

Set_Guard& Set_Guard::operator=(Set_Guard&& other) noexcept {
  if (this != &other) {
    release();
    fd_ = std::exchange(other.fd_, -1);
  }
  return *this;
}

void Set_Guard::release() {
  if (fd_ >= 0)
    ::close(fd_);
  fd_ = -1;
}

Set_Guard::Outcome Set_Guard::take(const std::string& folder, bool alone, std::string& error) {
  release();
  for (;;) {
    std::string path = folder + "/" + Set_Record::FILE_NAME;
    int fd = open_pool_file(path, O_RDONLY);
    if (fd < 0 && errno == ENOENT) {
      path = folder + "/" + Set_Record::PARTIAL_FILE_NAME;
      fd = open_pool_file(path, O_RDONLY);
    }
    if (fd < 0) {
      const int code = errno;
      error = "cannot lock " + path + ": " + pool_file_error(code);
      return code == ENOENT || code == ENOTDIR ? MISSING : FAILED;
    }
    int result;
    do {
      result = ::flock(fd, (alone ? LOCK_EX : LOCK_SH) | LOCK_NB);
    } while (result != 0 && errno == EINTR);
    if (result != 0) {
      const int code = errno;
      ::close(fd);
      error = code != EWOULDBLOCK ? "cannot lock " + path + ": " + std::strerror(code)
              : alone             ? folder + " is being read"
                                  : folder + " is being removed";
      return code == EWOULDBLOCK ? BUSY : FAILED;
    }
    // The record may have been removed or written anew since it was opened.
    struct stat mine, there;
    if (::fstat(fd, &mine) == 0 && find_pool_file(path, there) && mine.st_ino == there.st_ino &&
        mine.st_dev == there.st_dev) {
      fd_ = fd;
      return HELD;
    }
    ::close(fd);
  }
}
