#include "platform/pool/pool_files.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <utility>

namespace {

constexpr size_t MAX_POOLS = 64;
/// In errno: what is there is no regular file. No call that is made here answers it.
constexpr int NO_FILE = EMEDIUMTYPE;

class Descriptor {
public:
  explicit Descriptor(int fd = -1) : fd_(fd) {}
  Descriptor(Descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~Descriptor() {
    const int code = errno;
    if (fd_ >= 0)
      ::close(fd_);
    errno = code;
  }
  int get() const { return fd_; }
  int release() { return std::exchange(fd_, -1); }

private:
  int fd_;
};

struct Known_Pool {
  std::string folder;
  std::shared_ptr<const Descriptor> at;
};

std::mutex known_mutex; ///< guards `known_pools`
std::deque<Known_Pool>& known_pools() {
  static std::deque<Known_Pool>* pools = new std::deque<Known_Pool>;
  return *pools;
}

/// The pool that `path` lies in and the rest of the path; null where it lies in none.
std::shared_ptr<const Descriptor> pool_of(const std::string& path, std::string& rest) {
  const std::lock_guard<std::mutex> guard(known_mutex);
  const Known_Pool* best = nullptr;
  for (const Known_Pool& pool : known_pools())
    if (path.size() >= pool.folder.size() && path.compare(0, pool.folder.size(), pool.folder) == 0 &&
        (path.size() == pool.folder.size() || path[pool.folder.size()] == '/') &&
        (best == nullptr || pool.folder.size() > best->folder.size()))
      best = &pool;
  if (best == nullptr)
    return nullptr;
  rest = path.substr(best->folder.size());
  return best->at;
}

/// Where the last name of a path is to be looked for.
struct Place {
  Descriptor owned;
  std::shared_ptr<const Descriptor> pool; ///< null: outside, where `name` is the whole path
  std::string name;

  int at() const { return owned.get() >= 0 ? owned.get() : pool ? pool->get() : AT_FDCWD; }
  int no_link() const { return pool ? O_NOFOLLOW : 0; }
};

/// A folder below `at`; a link is told from any other file.
int open_folder_at(int at, const char* name, int flags) {
  const int fd = ::openat(at, name, flags | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  struct stat status;
  if (fd < 0 && errno == ENOTDIR) {
    errno = ::fstatat(at, name, &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(status.st_mode) ? ELOOP : ENOTDIR;
  }
  return fd;
}

/// False with errno. Names are taken as they are: nobody makes a path with ".." in it.
bool find_place(const std::string& path, Place& place) {
  std::string rest;
  place.pool = pool_of(path, rest);
  if (!place.pool) {
    place.name = path;
    return true;
  }
  std::vector<std::string> names;
  for (size_t start = 0; start < rest.size();) {
    const size_t slash = std::min(rest.find('/', start), rest.size());
    if (slash > start)
      names.push_back(rest.substr(start, slash - start));
    start = slash + 1;
  }
  place.name = ".";
  for (size_t i = 0; i < names.size(); ++i) {
    if (names[i] == "..") {
      errno = EINVAL;
      return false;
    }
    if (i + 1 == names.size()) {
      place.name = names[i];
      break;
    }
    Descriptor next(open_folder_at(place.at(), names[i].c_str(), O_PATH));
    if (next.get() < 0)
      return false;
    place.owned = std::move(next);
  }
  return true;
}

bool remove_below(int at, const char* name) {
  struct stat status;
  if (::fstatat(at, name, &status, AT_SYMLINK_NOFOLLOW) != 0)
    return errno == ENOENT;
  if (!S_ISDIR(status.st_mode))
    return ::unlinkat(at, name, 0) == 0 || errno == ENOENT;
  const int fd = open_folder_at(at, name, O_RDONLY);
  if (fd < 0)
    return errno == ENOENT;
  DIR* const folder = ::fdopendir(fd);
  if (folder == nullptr) {
    ::close(fd);
    return false;
  }
  bool done = true;
  int code = 0;
  std::vector<std::string> names;
  errno = 0;
  while (const dirent* entry = ::readdir(folder))
    if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0)
      names.push_back(entry->d_name);
  if (errno != 0) {
    done = false;
    code = errno;
  }
  for (const std::string& inside : names)
    if (!remove_below(fd, inside.c_str())) {
      done = false;
      code = errno;
    }
  ::closedir(folder);
  errno = code;
  return done && (::unlinkat(at, name, AT_REMOVEDIR) == 0 || errno == ENOENT);
}

} // namespace

bool know_pool_folder(const std::string& folder) {
  auto at = std::make_shared<Descriptor>(::open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  const std::lock_guard<std::mutex> guard(known_mutex);
  std::deque<Known_Pool>& pools = known_pools();
  // Also where there is nothing any more: what was known of it must not be found through its old descriptor.
  pools.erase(std::remove_if(pools.begin(), pools.end(), [&](const Known_Pool& pool) { return pool.folder == folder; }),
              pools.end());
  if (at->get() < 0)
    return false;
  pools.push_back(Known_Pool{folder, std::move(at)});
  if (pools.size() > MAX_POOLS)
    pools.pop_front();
  return true;
}

int open_pool_file(const std::string& path, int flags) {
  Place place;
  if (!find_place(path, place))
    return -1;
  // Looked at before: opening a device may already do something.
  struct stat status;
  if (::fstatat(place.at(), place.name.c_str(), &status, place.pool ? AT_SYMLINK_NOFOLLOW : 0) == 0) {
    if (!S_ISREG(status.st_mode) && !(flags & O_EXCL)) {
      errno = S_ISLNK(status.st_mode) ? ELOOP : NO_FILE;
      return -1;
    }
  } else if (errno != ENOENT) {
    return -1;
  }
  Descriptor fd(
      ::openat(place.at(), place.name.c_str(), flags | place.no_link() | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0600));
  if (fd.get() < 0)
    return -1;
  if (::fstat(fd.get(), &status) != 0)
    return -1;
  if (!S_ISREG(status.st_mode)) {
    errno = NO_FILE;
    return -1;
  }
  return fd.release();
}

int open_pool_folder(const std::string& path) {
  Place place;
  if (!find_place(path, place))
    return -1;
  return place.pool ? open_folder_at(place.at(), place.name.c_str(), O_RDONLY)
                    : ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
}

bool make_pool_folder(const std::string& path) {
  Place place;
  return find_place(path, place) && ::mkdirat(place.at(), place.name.c_str(), 0700) == 0;
}

bool rename_pool_file(const std::string& from, const std::string& to) {
  Place source, target;
  return find_place(from, source) && find_place(to, target) &&
         ::renameat(source.at(), source.name.c_str(), target.at(), target.name.c_str()) == 0;
}

bool remove_pool_file(const std::string& path) {
  Place place;
  return find_place(path, place) && ::unlinkat(place.at(), place.name.c_str(), 0) == 0;
}

bool find_pool_file(const std::string& path, struct stat& status) {
  Place place;
  return find_place(path, place) && ::fstatat(place.at(), place.name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
}

bool read_pool_folder(const std::string& path, std::vector<std::string>& names) {
  names.clear();
  const int fd = open_pool_folder(path);
  if (fd < 0)
    return false;
  DIR* const folder = ::fdopendir(fd);
  if (folder == nullptr) {
    ::close(fd);
    return false;
  }
  errno = 0;
  while (const dirent* entry = ::readdir(folder))
    if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0)
      names.push_back(entry->d_name);
  const int code = errno;
  ::closedir(folder);
  std::sort(names.begin(), names.end());
  errno = code;
  return code == 0;
}

bool remove_pool_tree(const std::string& path, std::string& error) {
  Place place;
  if (find_place(path, place) ? remove_below(place.at(), place.name.c_str()) : errno == ENOENT)
    return true;
  error = "cannot remove " + path + ": " + pool_file_error(errno);
  return false;
}

std::string path_of_file(int fd) {
  char link[32], path[PATH_MAX];
  std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
  const ssize_t size = ::readlink(link, path, sizeof path);
  if (size <= 0 || static_cast<size_t>(size) == sizeof path)
    return std::string();
  return std::string(path, static_cast<size_t>(size));
}

std::string pool_file_error(int code) {
  if (code == ELOOP)
    return "it is a link, or lies behind one, which is not followed in a pool";
  if (code == NO_FILE)
    return "it is no regular file";
  return std::strerror(code);
}
