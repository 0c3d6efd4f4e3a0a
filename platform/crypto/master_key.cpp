#include "platform/crypto/master_key.h"

#include <openssl/crypto.h>
#include <openssl/rand.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <mutex>

namespace {

constexpr const char* FILE_NAME = "master.key";

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

/// Makes a key file unless somebody else is faster: the file appears whole, by a link from a temporary name.
bool make_key(const std::string& folder, const std::string& path, std::string& error) {
  std::string temporary = folder + "/.master.key.XXXXXX";
  const File file(::mkostemp(temporary.data(), O_CLOEXEC));
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
  if (read_key(path, key, missing, error))
    return true;
  if (!missing || !make)
    return false;
  return make_key(folder, path, error) && read_key(path, key, missing, error);
}
