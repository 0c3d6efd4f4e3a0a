#include "platform/pool/set_lock.h"

#include "platform/job/current_job.h"
#include "platform/pool/lock_holder.h"
#include "platform/pool/pool_files.h"
#include "sdk/base/clock.h"

#include <ace/Log_Msg.h>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <utility>

namespace {

/// How often who waits looks again: `flock` itself would wait without end, and without a word.
const ACE_Time_Value LOOK_AGAIN(0, 20000);

int try_lock(int fd) {
  int result;
  do {
    result = ::flock(fd, LOCK_EX | LOCK_NB);
  } while (result != 0 && errno == EINTR);
  return result == 0 ? 0 : errno;
}

void let_time_pass() {
  std::mutex mutex;
  std::condition_variable changed;
  std::unique_lock<std::mutex> lock(mutex);
  Clock::instance().wait(lock, changed, LOOK_AGAIN);
}

} // namespace

Set_Lock::Set_Lock(Set_Lock&& other) noexcept
    : rank_(other.rank_), order_(std::move(other.order_)), fd_(std::exchange(other.fd_, -1)),
      path_(std::move(other.path_)) {}

Set_Lock& Set_Lock::operator=(Set_Lock&& other) noexcept {
  if (this != &other) {
    release();
    rank_ = other.rank_;
    order_ = std::move(other.order_);
    fd_ = std::exchange(other.fd_, -1);
    path_ = std::move(other.path_);
  }
  return *this;
}

/// 0, or what stands in its way; EWOULDBLOCK: somebody has it.
int Set_Lock::take(int fd, const std::string& path, bool wait) const {
  int code = try_lock(fd);
  const ACE_Time_Value begun = Clock::instance().monotonic();
  bool told = false;
  while (code == EWOULDBLOCK && wait && !is_current_job_canceling()) {
    const ACE_Time_Value waited = Clock::instance().monotonic() - begun;
    if (waited >= ACE_Time_Value(PATIENCE))
      break;
    if (!told && waited >= ACE_Time_Value(QUIET)) {
      ACE_ERROR((LM_WARNING, ACE_TEXT("Waiting for the lock %C, which %C has.\n"), path.c_str(),
                 lock_holder(fd, "another run").c_str()));
      told = true;
    }
    let_time_pass();
    code = try_lock(fd);
  }
  return code;
}

bool Set_Lock::acquire(const std::string& folder, bool wait, std::string& error, bool* busy) {
  release();
  if (busy != nullptr)
    *busy = false;
  const std::string path = folder + "/" + FILE_NAME;
  if (wait && Lock_Order::is_own(path)) {
    error = "cannot lock " + folder + ": this run has it locked already";
    return false;
  }
  Lock_Order::expect(rank_, path, wait);
  for (;;) {
    const int fd = open_pool_file(path, O_CREAT | O_RDWR);
    if (fd < 0) {
      error = "cannot lock " + folder + ": " + path + ": " + pool_file_error(errno);
      return false;
    }
    const int code = take(fd, path, wait);
    if (code != 0) {
      if (busy != nullptr)
        *busy = code == EWOULDBLOCK;
      if (code != EWOULDBLOCK)
        error = "cannot lock " + folder + ": " + std::strerror(code);
      else if (wait)
        error = folder + " is in use by " + lock_holder(fd, "another run") + ": try again when that has ended";
      else
        error = folder + " is in use by another run";
      ::close(fd);
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
      name_lock_holder(fd);
      fd_ = fd;
      path_ = path;
      order_ = Lock_Order::taken(rank_, path);
      return true;
    }
    ::close(fd);
  }
}

void Set_Lock::release() {
  if (fd_ < 0)
    return;
  remove_pool_file(path_);
  ::close(fd_);
  fd_ = -1;
  order_.reset();
}
