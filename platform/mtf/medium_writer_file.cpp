#include "platform/mtf/medium_writer_file.h"

#include "platform/pool/pool_files.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <unistd.h>

Medium_Writer_File::~Medium_Writer_File() {
  if (fd_ >= 0)
    ::close(fd_);
}

bool Medium_Writer_File::fail(const std::string& what, int error) {
  if (error_.empty()) {
    error_ = what + " the medium " + path_ + ": " + pool_file_error(error);
    if (error == ENOSPC || error == EDQUOT || error == EFBIG)
      error_ += "; make room for the pool, or raise the limit that holds it";
  }
  return false;
}

bool Medium_Writer_File::create(const std::string& path) {
  path_ = path;
  piece_.reset(new (std::nothrow) char[PIECE]);
  if (!piece_)
    return fail("cannot make", ENOMEM);
  fd_ = open_pool_file(path, O_WRONLY | O_CREAT | O_EXCL);
  return fd_ >= 0 || fail("cannot make", errno);
}

bool Medium_Writer_File::write(const char* data, size_t size) {
  while (size != 0) {
    const ssize_t count = ::pwrite(fd_, data, size, static_cast<off_t>(flushed_));
    if (count < 0 && errno == EINTR)
      continue;
    if (count <= 0)
      return fail("cannot write to", count == 0 ? ENOSPC : errno);
    data += count;
    size -= static_cast<size_t>(count);
    flushed_ += static_cast<unsigned long long>(count);
  }
  return true;
}

bool Medium_Writer_File::flush() {
  const size_t used = used_;
  used_ = 0;
  return write(piece_.get(), used);
}

bool Medium_Writer_File::append(const char* data, size_t size) {
  if (!error_.empty())
    return false;
  if (size >= LARGE)
    return flush() && write(data, size);
  while (size != 0) {
    const size_t piece = std::min(size, PIECE - used_);
    std::memcpy(piece_.get() + used_, data, piece);
    used_ += piece;
    data += piece;
    size -= piece;
    if (used_ == PIECE && !flush())
      return false;
  }
  return true;
}

bool Medium_Writer_File::cut(unsigned long long size) {
  if (!error_.empty())
    return false;
  if (size >= flushed_) {
    used_ = static_cast<size_t>(size - flushed_);
    return true;
  }
  used_ = 0;
  flushed_ = size;
  return ::ftruncate(fd_, static_cast<off_t>(size)) == 0 || fail("cannot cut back", errno);
}

bool Medium_Writer_File::close() {
  if (!error_.empty() || !flush())
    return false;
  if (::fsync(fd_) != 0)
    return fail("cannot make durable", errno);
  const int fd = fd_;
  fd_ = -1;
  if (::close(fd) != 0)
    return fail("cannot close", errno);
  const size_t slash = path_.rfind('/');
  const std::string folder = slash == std::string::npos ? "." : slash == 0 ? "/" : path_.substr(0, slash);
  const int folder_fd = open_pool_folder(folder);
  if (folder_fd < 0)
    return fail("cannot open the folder of", errno);
  const bool durable = ::fsync(folder_fd) == 0 || errno == EINVAL;
  const int reason = errno;
  ::close(folder_fd);
  return durable || fail("cannot make durable the folder of", reason);
}
