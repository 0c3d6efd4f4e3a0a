#include "platform/pool/durable_file.h"

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
  const int fd = ::open(temporary.c_str(), O_CREAT | O_TRUNC | O_WRONLY | O_CLOEXEC, 0600);
  bool done = fd >= 0 && write_all(fd, content);
  int code = errno;
  if (fd >= 0 && ::close(fd) != 0 && done) {
    done = false;
    code = errno;
  }
  if (done && ::rename(temporary.c_str(), path.c_str()) != 0) {
    done = false;
    code = errno;
  }
  if (!done) {
    error = "cannot write " + path + ": " + std::strerror(code);
    ::unlink(temporary.c_str());
    return false;
  }
  return sync_folder(folder, error);
}

bool read_small_file(const std::string& path, size_t limit, std::string& content, std::string& error, bool& missing) {
  missing = false;
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    missing = errno == ENOENT || errno == ENOTDIR;
    error = "cannot read " + path + ": " + std::strerror(errno);
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
  const int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd >= 0 && ::fsync(fd) == 0) {
    ::close(fd);
    return true;
  }
  error = "cannot sync " + folder + ": " + std::strerror(errno);
  if (fd >= 0)
    ::close(fd);
  return false;
}
