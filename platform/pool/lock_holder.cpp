#include "platform/pool/lock_holder.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

namespace {

constexpr size_t LONGEST_HOLDER = 300;

std::string this_host() {
  char name[256] = {};
  return ::gethostname(name, sizeof name - 1) == 0 ? name : "";
}

} // namespace

std::string lock_holder(int fd, const char* unknown) {
  char text[LONGEST_HOLDER] = {};
  const ssize_t size = ::pread(fd, text, sizeof text - 1, 0);
  char* end = text;
  const long pid = size > 0 ? std::strtol(text, &end, 10) : 0;
  if (pid <= 0)
    return unknown;
  std::string host = *end == ' ' ? end + 1 : "";
  host.erase(std::min(host.find('\n'), host.size()));
  return "process " + std::to_string(pid) + (host.empty() ? "" : " on host " + host);
}

void name_lock_holder(int fd) {
  const std::string text = std::to_string(::getpid()) + " " + this_host() + "\n";
  if (::ftruncate(fd, 0) == 0 && ::pwrite(fd, text.data(), text.size(), 0) < 0)
    errno = 0;
}
