#include "fuzz/fuzz_target.h"

#include <cstdlib>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

// What a target need not define.
__attribute__((weak)) const std::vector<std::string>& fuzz_words() {
  static const std::vector<std::string> none;
  return none;
}
__attribute__((weak)) void fuzz_mend(std::string&) {}

Fuzz_File::Fuzz_File()
    : fd_(::memfd_create("fuzz", MFD_CLOEXEC)), named_(false), path_("/proc/self/fd/" + std::to_string(fd_)) {
  if (fd_ < 0)
    std::abort();
}

Fuzz_File::Fuzz_File(const std::string& path)
    : fd_(::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600)), named_(true), path_(path) {
  if (fd_ < 0)
    std::abort();
}

Fuzz_File::~Fuzz_File() {
  ::close(fd_);
  if (named_)
    ::unlink(path_.c_str());
}

void Fuzz_File::fill(std::string_view bytes) {
  if (::ftruncate(fd_, static_cast<off_t>(bytes.size())) != 0)
    std::abort();
  size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t count = ::pwrite(fd_, bytes.data() + done, bytes.size() - done, static_cast<off_t>(done));
    if (count <= 0)
      std::abort();
    done += static_cast<size_t>(count);
  }
}
