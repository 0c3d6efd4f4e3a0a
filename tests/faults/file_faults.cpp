// Loaded in front of the C library: counts what a program does to the files below the folders of $FILE_FAULT_ROOTS
// (parted by ":"), and lets the call of number $FILE_FAULT_AT, counted from 1, go wrong as $FILE_FAULT_HOW says:
//
//     cut      the process is killed in the middle of it: of a write the first half has reached the file
//     EIO, ENOSPC, EROFS, EACCES, EMFILE ...   it fails with this error, and so does nothing after it
//     lasting-EIO, lasting-ENOSPC ...          it and every later one fails with this error
//
// $FILE_FAULT_OF says which calls are counted: "changes" (the default: what writes, makes, renames, removes, syncs) or
// "reads". At its regular end the process writes the number of calls that it has made into $FILE_FAULT_COUNT.

#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
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

const char* variable(const char* name) {
  const char* const value = std::getenv(name);
  return value != nullptr ? value : "";
}

struct Error_Name {
  const char* name;
  int number;
};
constexpr Error_Name ERRORS[] = {{"EIO", EIO},       {"ENOSPC", ENOSPC}, {"EROFS", EROFS}, {"EACCES", EACCES},
                                 {"EMFILE", EMFILE}, {"EDQUOT", EDQUOT}, {"EINTR", EINTR}};

/// What is asked for, read once: the environment of a process does not change.
struct Plan {
  std::string roots = variable("FILE_FAULT_ROOTS");
  unsigned long at = std::strtoul(variable("FILE_FAULT_AT"), nullptr, 10);
  bool of_reads = std::strcmp(variable("FILE_FAULT_OF"), "reads") == 0;
  std::string count_file = variable("FILE_FAULT_COUNT");
  bool lasting = false;
  bool cut = false;
  int error = 0;

  Plan() {
    std::string how = variable("FILE_FAULT_HOW");
    if (how.rfind("lasting-", 0) == 0) {
      lasting = true;
      how.erase(0, 8);
    }
    cut = how == "cut";
    for (const Error_Name& known : ERRORS)
      if (how == known.name)
        error = known.number;
    if (at != 0 && !cut && error == 0)
      std::abort(); // a mistake of the test
  }

  bool covers(const std::string& path) const {
    size_t begin = 0;
    while (begin < roots.size()) {
      const size_t end = std::min(roots.find(':', begin), roots.size());
      const std::string root = roots.substr(begin, end - begin);
      if (!root.empty() && path.compare(0, root.size(), root) == 0)
        return true;
      begin = end + 1;
    }
    return false;
  }
};

// Never destroyed: threads may make calls until the very end.
const Plan& plan() {
  static const Plan& made = *new Plan;
  return made;
}

std::atomic<unsigned long> calls{0};

__attribute__((destructor)) void write_count() {
  if (plan().count_file.empty())
    return;
  const int fd = static_cast<int>(
      ::syscall(SYS_openat, AT_FDCWD, plan().count_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  const std::string text = std::to_string(calls.load());
  if (fd < 0 || ::syscall(SYS_write, fd, text.data(), text.size()) < 0)
    std::abort();
  ::syscall(SYS_close, fd);
}

std::string path_of(int fd) {
  char path[PATH_MAX];
  const ssize_t size = ::readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), path, sizeof path);
  return size > 0 ? std::string(path, static_cast<size_t>(size)) : std::string();
}

std::string path_of(int folder, const char* name) {
  if (name[0] == '/')
    return name;
  if (folder != AT_FDCWD)
    return path_of(folder) + '/' + name;
  char here[PATH_MAX];
  return (::getcwd(here, sizeof here) != nullptr ? std::string(here) + '/' : std::string()) + name;
}

enum class Fate { normal, fails, cut };

/// Counts one call and says what becomes of it; errno is set where it fails, and kept otherwise.
Fate fate(bool is_read, const std::string& path) {
  if (is_read != plan().of_reads || !plan().covers(path))
    return Fate::normal;
  const unsigned long number = ++calls;
  if (plan().at == 0 || number < plan().at || (number > plan().at && !plan().lasting))
    return Fate::normal;
  if (plan().cut)
    return Fate::cut;
  errno = plan().error;
  return Fate::fails;
}

Fate fate_of_file(bool is_read, int fd) {
  const int kept = errno;
  const std::string path = path_of(fd);
  errno = kept;
  return fate(is_read, path);
}

[[noreturn]] void die() {
  ::kill(::getpid(), SIGKILL);
  for (;;)
    ::pause();
}

/// Runs a call that happens whole or not at all: killed before it, so that the call before was the last one.
template <class Call>
auto whole(Fate what, Call call) -> decltype(call()) {
  if (what == Fate::cut)
    die();
  return what == Fate::fails ? -1 : call();
}

/// Runs a call that moves `size` bytes: cut, half of them have moved.
template <class Call>
ssize_t moving(Fate what, size_t size, Call call) {
  if (what == Fate::cut) {
    if (size > 1)
      (void)call(size / 2);
    die();
  }
  return what == Fate::fails ? -1 : call(size);
}

/// The function that this one stands in front of.
template <class Function>
Function next(const char* name) {
  return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

bool makes(int flags) {
  return (flags & (O_CREAT | O_TRUNC)) != 0;
}

bool is_for_reading(int flags) {
  return (flags & O_ACCMODE) == O_RDONLY && (flags & O_DIRECTORY) == 0;
}

/// What becomes of an `open`: one that may make or empty a file is a change, one for reading is a read.
Fate fate_of_open(int folder, const char* name, int flags) {
  if (!makes(flags) && !is_for_reading(flags))
    return Fate::normal;
  const int kept = errno;
  const std::string path = path_of(folder, name);
  errno = kept;
  return fate(!makes(flags), path);
}

} // namespace

#define NEXT(name) static const auto real = next<decltype(&::name)>(#name)

extern "C" {

// The mode is read whether there is one or not, as the C library itself does it.
#define OPEN(name)                                                                                                     \
  int name(const char* path, int flags, ...) {                                                                         \
    NEXT(name);                                                                                                        \
    __builtin_va_list rest;                                                                                            \
    __builtin_va_start(rest, flags);                                                                                   \
    const mode_t mode = makes(flags) ? __builtin_va_arg(rest, mode_t) : 0;                                             \
    __builtin_va_end(rest);                                                                                            \
    return whole(fate_of_open(AT_FDCWD, path, flags), [&] { return real(path, flags, mode); });                        \
  }
#define OPEN_AT(name)                                                                                                  \
  int name(int folder, const char* path, int flags, ...) {                                                             \
    NEXT(name);                                                                                                        \
    __builtin_va_list rest;                                                                                            \
    __builtin_va_start(rest, flags);                                                                                   \
    const mode_t mode = makes(flags) ? __builtin_va_arg(rest, mode_t) : 0;                                             \
    __builtin_va_end(rest);                                                                                            \
    return whole(fate_of_open(folder, path, flags), [&] { return real(folder, path, flags, mode); });                  \
  }
OPEN(open)
OPEN(open64)
OPEN_AT(openat)
OPEN_AT(openat64)

ssize_t write(int fd, const void* data, size_t size) {
  NEXT(write);
  return moving(fate_of_file(false, fd), size, [&](size_t part) { return real(fd, data, part); });
}

ssize_t pwrite(int fd, const void* data, size_t size, off_t at) {
  NEXT(pwrite);
  return moving(fate_of_file(false, fd), size, [&](size_t part) { return real(fd, data, part, at); });
}

ssize_t pwrite64(int fd, const void* data, size_t size, off64_t at) {
  NEXT(pwrite64);
  return moving(fate_of_file(false, fd), size, [&](size_t part) { return real(fd, data, part, at); });
}

ssize_t writev(int fd, const iovec* pieces, int count) {
  NEXT(writev);
  return moving(fate_of_file(false, fd), static_cast<size_t>(count),
                [&](size_t part) { return real(fd, pieces, static_cast<int>(part)); });
}

ssize_t sendfile(int to, int from, off_t* at, size_t size) noexcept {
  NEXT(sendfile);
  return moving(fate_of_file(false, to), size, [&](size_t part) { return real(to, from, at, part); });
}

ssize_t sendfile64(int to, int from, off64_t* at, size_t size) noexcept {
  NEXT(sendfile64);
  return moving(fate_of_file(false, to), size, [&](size_t part) { return real(to, from, at, part); });
}

ssize_t read(int fd, void* data, size_t size) {
  NEXT(read);
  return whole(fate_of_file(true, fd), [&] { return real(fd, data, size); });
}

ssize_t pread(int fd, void* data, size_t size, off_t at) {
  NEXT(pread);
  return whole(fate_of_file(true, fd), [&] { return real(fd, data, size, at); });
}

ssize_t pread64(int fd, void* data, size_t size, off64_t at) {
  NEXT(pread64);
  return whole(fate_of_file(true, fd), [&] { return real(fd, data, size, at); });
}

int ftruncate(int fd, off_t size) noexcept {
  NEXT(ftruncate);
  return whole(fate_of_file(false, fd), [&] { return real(fd, size); });
}

int ftruncate64(int fd, off64_t size) noexcept {
  NEXT(ftruncate64);
  return whole(fate_of_file(false, fd), [&] { return real(fd, size); });
}

int fsync(int fd) {
  NEXT(fsync);
  return whole(fate_of_file(false, fd), [&] { return real(fd); });
}

int fdatasync(int fd) {
  NEXT(fdatasync);
  return whole(fate_of_file(false, fd), [&] { return real(fd); });
}

int mkdir(const char* path, mode_t mode) noexcept {
  NEXT(mkdir);
  return whole(fate(false, path_of(AT_FDCWD, path)), [&] { return real(path, mode); });
}

int mkdirat(int folder, const char* name, mode_t mode) noexcept {
  NEXT(mkdirat);
  return whole(fate(false, path_of(folder, name)), [&] { return real(folder, name, mode); });
}

int unlink(const char* path) noexcept {
  NEXT(unlink);
  return whole(fate(false, path_of(AT_FDCWD, path)), [&] { return real(path); });
}

int rmdir(const char* path) noexcept {
  NEXT(rmdir);
  return whole(fate(false, path_of(AT_FDCWD, path)), [&] { return real(path); });
}

int remove(const char* path) noexcept {
  NEXT(remove);
  return whole(fate(false, path_of(AT_FDCWD, path)), [&] { return real(path); });
}

int unlinkat(int folder, const char* name, int flags) noexcept {
  NEXT(unlinkat);
  return whole(fate(false, path_of(folder, name)), [&] { return real(folder, name, flags); });
}

int rename(const char* from, const char* to) noexcept {
  NEXT(rename);
  return whole(fate(false, path_of(AT_FDCWD, to)), [&] { return real(from, to); });
}

int renameat(int from_folder, const char* from, int to_folder, const char* to) noexcept {
  NEXT(renameat);
  return whole(fate(false, path_of(to_folder, to)), [&] { return real(from_folder, from, to_folder, to); });
}

int link(const char* from, const char* to) noexcept {
  NEXT(link);
  return whole(fate(false, path_of(AT_FDCWD, to)), [&] { return real(from, to); });
}

int symlink(const char* text, const char* path) noexcept {
  NEXT(symlink);
  return whole(fate(false, path_of(AT_FDCWD, path)), [&] { return real(text, path); });
}

} // extern "C"
