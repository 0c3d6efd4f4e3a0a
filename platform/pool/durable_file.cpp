#include "platform/pool/durable_file.h"

#include "platform/pool/pool_files.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

bool write_all(int fd, const std::string& content) {
  size_t done = 0;
  while (done < content.size()) {
    const ssize_t count = ::write(fd, content.data() + done, content.size() - done);
    if (count < 0 && errno == EINTR)
      continue;
    if (count < 0)
      return false;
    done += static_cast<size_t>(count);
  }
  return ::fsync(fd) == 0;
}

} // namespace

bool write_durable_file(const std::string& folder, const std::string& name, const std::string& content,
                        std::string& error) {
  const std::string path = folder + "/" + name;
  const std::string temporary = path + ".tmp";
  // What a killed process left, or somebody else has put there: it is made anew, never written through.
  bool done = remove_pool_file(temporary) || errno == ENOENT;
  const int fd = done ? open_pool_file(temporary, O_CREAT | O_EXCL | O_WRONLY) : -1;
  const std::string failed = fd < 0 ? temporary : path;
  done = fd >= 0 && write_all(fd, content);
  int code = errno;
  if (fd >= 0 && ::close(fd) != 0 && done) {
    done = false;
    code = errno;
  }
  if (done && !rename_pool_file(temporary, path)) {
    done = false;
    code = errno;
  }
  if (!done) {
    error = "cannot write " + failed + ": " + pool_file_error(code);
    if (fd >= 0)
      remove_pool_file(temporary);
    return false;
  }
  return sync_folder(folder, error);
}

bool read_small_file(const std::string& path, size_t limit, std::string& content, std::string& error, bool& missing) {
  missing = false;
  const int fd = open_pool_file(path, O_RDONLY);
  if (fd < 0) {
    missing = errno == ENOENT || errno == ENOTDIR;
    error = "cannot read " + path + ": " + pool_file_error(errno);
    return false;
  }
  content.clear();
  char buffer[16384];
  ssize_t count;
  while ((count = ::read(fd, buffer, sizeof buffer)) > 0 || (count < 0 && errno == EINTR)) {
    if (count < 0)
      continue;
    content.append(buffer, static_cast<size_t>(count));
    if (content.size() > limit) {
      ::close(fd);
      error = "cannot read " + path + ": larger than " + std::to_string(limit) + " bytes";
      return false;
    }
  }
  const int code = errno;
  ::close(fd);
  if (count < 0)
    error = "cannot read " + path + ": " + std::strerror(code);
  return count == 0;
}

bool sync_folder(const std::string& folder, std::string& error) {
  const int fd = open_pool_folder(folder);
  if (fd >= 0 && ::fsync(fd) == 0) {
    ::close(fd);
    return true;
  }
  error = "cannot sync " + folder + ": " + pool_file_error(errno);
  if (fd >= 0)
    ::close(fd);
  return false;
}
