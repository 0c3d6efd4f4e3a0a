// Loaded in front of the C library: writes down, in order, what a program does to the files below $FILE_LOG_ROOT that a
// power cut could undo, one line per call in $FILE_LOG: "write PATH", "sync PATH", "mkdir PATH", "unlink PATH",
// "rename FROM\tTO". Calls that fail are not told.

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <string>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/uio.h>
#include <unistd.h>

namespace {

const char* const root = std::getenv("FILE_LOG_ROOT");

int log_file() {
  static const int fd = [] {
    const char* const name = std::getenv("FILE_LOG");
    return name != nullptr ? ::open(name, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600) : -1;
  }();
  return fd;
}

std::string path_of(int fd) {
  char path[PATH_MAX];
  const ssize_t size = ::readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), path, sizeof path);
  return size > 0 ? std::string(path, static_cast<size_t>(size)) : std::string();
}

/// Before the call that may take the name away.
std::string path_at(int folder, const char* name) {
  return name[0] == '/' || folder == AT_FDCWD ? name : path_of(folder) + '/' + name;
}

bool is_below(const std::string& path) {
  return root != nullptr && path.compare(0, std::strlen(root), root) == 0;
}

void tell(const std::string& line) {
  const int kept = errno;
  const std::string whole = line + "\n";
  if (log_file() >= 0 && ::syscall(SYS_write, log_file(), whole.data(), whole.size()) < 0)
    std::abort();
  errno = kept;
}

template <class Result>
Result told(Result result, const char* what, int fd) {
  if (result < 0 || root == nullptr)
    return result;
  const int kept = errno;
  const std::string path = path_of(fd);
  if (is_below(path))
    tell(std::string(what) + ' ' + path);
  errno = kept;
  return result;
}

int told(int result, const char* what, const char* path) {
  if (result == 0 && is_below(path))
    tell(std::string(what) + ' ' + path);
  return result;
}

/// The function that this one stands in front of.
template <class Function>
Function next(const char* name) {
  return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

} // namespace

#define NEXT(name) static const auto real = next<decltype(&::name)>(#name)

extern "C" {

ssize_t write(int fd, const void* data, size_t size) {
  NEXT(write);
  return told(real(fd, data, size), "write", fd);
}

ssize_t writev(int fd, const iovec* pieces, int count) {
  NEXT(writev);
  return told(real(fd, pieces, count), "write", fd);
}

ssize_t pwrite(int fd, const void* data, size_t size, off_t at) {
  NEXT(pwrite);
  return told(real(fd, data, size, at), "write", fd);
}

ssize_t pwrite64(int fd, const void* data, size_t size, off64_t at) {
  NEXT(pwrite64);
  return told(real(fd, data, size, at), "write", fd);
}

int ftruncate(int fd, off_t size) noexcept {
  NEXT(ftruncate);
  return told(real(fd, size), "write", fd);
}

int ftruncate64(int fd, off64_t size) noexcept {
  NEXT(ftruncate64);
  return told(real(fd, size), "write", fd);
}

ssize_t sendfile64(int to, int from, off64_t* at, size_t size) noexcept {
  NEXT(sendfile64);
  return told(real(to, from, at, size), "write", to);
}

ssize_t sendfile(int to, int from, off_t* at, size_t size) noexcept {
  NEXT(sendfile);
  return told(real(to, from, at, size), "write", to);
}

int fsync(int fd) {
  NEXT(fsync);
  return told(real(fd), "sync", fd);
}

int fdatasync(int fd) {
  NEXT(fdatasync);
  return told(real(fd), "sync", fd);
}

int mkdir(const char* path, mode_t mode) noexcept {
  NEXT(mkdir);
  return told(real(path, mode), "mkdir", path);
}

int mkdirat(int folder, const char* name, mode_t mode) noexcept {
  NEXT(mkdirat);
  return told(real(folder, name, mode), "mkdir", path_at(folder, name).c_str());
}

int unlink(const char* path) noexcept {
  NEXT(unlink);
  return told(real(path), "unlink", path);
}

int rmdir(const char* path) noexcept {
  NEXT(rmdir);
  return told(real(path), "unlink", path);
}

int remove(const char* path) noexcept {
  NEXT(remove);
  return told(real(path), "unlink", path);
}

int unlinkat(int folder, const char* name, int flags) noexcept {
  NEXT(unlinkat);
  return told(real(folder, name, flags), "unlink", path_at(folder, name).c_str());
}

int rename(const char* from, const char* to) noexcept {
  NEXT(rename);
  const int result = real(from, to);
  if (result == 0 && is_below(to))
    tell(std::string("rename ") + from + '\t' + to);
  return result;
}

int renameat(int from_folder, const char* from_name, int to_folder, const char* to_name) noexcept {
  NEXT(renameat);
  const std::string from = path_at(from_folder, from_name), to = path_at(to_folder, to_name);
  const int result = real(from_folder, from_name, to_folder, to_name);
  if (result == 0 && is_below(to))
    tell("rename " + from + '\t' + to);
  return result;
}

} // extern "C"
