#include "platform/crypto/master_key.h"

#include <openssl/crypto.h>
#include <openssl/rand.h>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <vector>

namespace {

constexpr const char* FILE_NAME = "master.key";
/// What the names of key files that are being made begin with.
constexpr const char* TEMPORARY = ".master.key.";

std::mutex folder_mutex; // guards `folder_name`
std::string folder_name;

std::string reason(const char* what, const std::string& path) {
  return std::string(what) + " " + path + ": " + std::strerror(errno);
}

class File {
public:
  explicit File(int fd) : fd_(fd) {}
  ~File() {
    if (fd_ >= 0)
      ::close(fd_);
  }
  File(const File&) = delete;
  File& operator=(const File&) = delete;
  int fd() const { return fd_; }

private:
  int fd_;
};

/// Reads up to `size` bytes; how many, or -1.
ssize_t read_whole(int fd, unsigned char* data, size_t size) {
  size_t done = 0;
  while (done < size) {
    const ssize_t got = ::read(fd, data + done, size - done);
    if (got < 0 && errno == EINTR)
      continue;
    if (got < 0)
      return -1;
    if (got == 0)
      break;
    done += static_cast<size_t>(got);
  }
  return static_cast<ssize_t>(done);
}

bool write_whole(int fd, const unsigned char* data, size_t size) {
  while (size > 0) {
    const ssize_t put = ::write(fd, data, size);
    if (put < 0 && errno == EINTR)
      continue;
    if (put <= 0)
      return false;
    data += put;
    size -= static_cast<size_t>(put);
  }
  return true;
}

/// Reads the key. False with the reason; `missing` tells that there is no file.
bool read_key(const std::string& path, Secret_Key& key, bool& missing, std::string& error) {
  missing = false;
  const File file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
  if (file.fd() < 0) {
    missing = errno == ENOENT;
    error = reason("cannot read the master key", path);
    return false;
  }
  struct stat status;
  if (::fstat(file.fd(), &status) != 0 || !S_ISREG(status.st_mode)) {
    error = "the master key " + path + " is no plain file";
    return false;
  }
  if ((status.st_mode & 077) != 0) {
    error = "the master key " + path +
            " can be read by others: run chmod 600 on it, and replace the accounts' keys if " + "others had access";
    return false;
  }
  unsigned char bytes[Secret_Key::SIZE + 1];
  const ssize_t got = read_whole(file.fd(), bytes, sizeof bytes);
  const bool whole = got == static_cast<ssize_t>(Secret_Key::SIZE);
  if (got < 0)
    error = reason("cannot read the master key", path);
  else if (!whole)
    error = "the master key " + path + " is damaged: it must have " + std::to_string(Secret_Key::SIZE) + " bytes";
  else
    std::memcpy(key.data(), bytes, Secret_Key::SIZE);
  OPENSSL_cleanse(bytes, sizeof bytes);
  return whole;
}

int lock_file(int fd, int how) {
  int result;
  do {
    result = ::flock(fd, how);
  } while (result != 0 && errno == EINTR);
  return result;
}

/// A new file for a key, locked as long as it is open; its name ends up in `path`. -1 with `errno`.
int make_temporary(const std::string& folder, std::string& path) {
  for (;;) {
    path = folder + "/" + TEMPORARY + "XXXXXX";
    const int fd = ::mkostemp(path.data(), O_CLOEXEC);
    if (fd < 0)
      return -1;
    struct stat status;
    const bool locked = lock_file(fd, LOCK_EX) == 0 && ::fstat(fd, &status) == 0;
    // Before it was locked somebody may have taken it for left over.
    if (locked && status.st_nlink != 0)
      return fd;
    const int code = errno;
    ::unlink(path.c_str());
    ::close(fd);
    if (!locked) {
      errno = code;
      return -1;
    }
  }
}

/// Removes the temporary files of processes that have ended: nobody else's can be locked.
void remove_left_over(const std::string& folder) {
  std::error_code code;
  std::vector<std::string> paths;
  for (std::filesystem::directory_iterator it(folder, code), end; !code && it != end; it.increment(code))
    if (it->path().filename().string().compare(0, std::strlen(TEMPORARY), TEMPORARY) == 0)
      paths.push_back(it->path().string());
  for (const std::string& path : paths) {
    const File file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    if (file.fd() >= 0 && lock_file(file.fd(), LOCK_EX | LOCK_NB) == 0)
      ::unlink(path.c_str());
  }
}

/// Makes a key file unless somebody else is faster: the file appears whole, by a link from a temporary name.
bool make_key(const std::string& folder, const std::string& path, std::string& error) {
  std::string temporary;
  const File file(make_temporary(folder, temporary));
  if (file.fd() < 0) {
    error = reason("cannot make the master key", path);
    return false;
  }
  Secret_Key key;
  bool made = false;
  if (RAND_priv_bytes(key.data(), static_cast<int>(Secret_Key::SIZE)) != 1)
    error = "cannot make the master key " + path + ": no random numbers";
  else if (::fchmod(file.fd(), 0600) != 0 || !write_whole(file.fd(), key.data(), Secret_Key::SIZE) ||
           ::fsync(file.fd()) != 0 || (::link(temporary.c_str(), path.c_str()) != 0 && errno != EEXIST))
    error = reason("cannot make the master key", path);
  else
    made = true;
  ::unlink(temporary.c_str());
  const File entries(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (made && (entries.fd() < 0 || ::fsync(entries.fd()) != 0)) {
    error = reason("cannot make the master key durable in", folder);
    return false;
  }
  return made;
}

} // namespace

Secret_Key::~Secret_Key() {
  OPENSSL_cleanse(bytes_.data(), bytes_.size());
}

void set_key_folder(const std::string& folder) {
  const std::lock_guard<std::mutex> guard(folder_mutex);
  folder_name = folder;
}

std::string key_folder() {
  const std::lock_guard<std::mutex> guard(folder_mutex);
  return folder_name;
}

bool load_master_key(bool make, Secret_Key& key, std::string& error) {
  const std::string folder = key_folder();
  if (folder.empty()) {
    error = "no folder for the master key is set";
    return false;
  }
  const std::string path = folder + "/" + FILE_NAME;
  bool missing = false;
  if (make)
    remove_left_over(folder);
  if (read_key(path, key, missing, error))
    return true;
  if (!missing || !make)
    return false;
  return make_key(folder, path, error) && read_key(path, key, missing, error);
}
