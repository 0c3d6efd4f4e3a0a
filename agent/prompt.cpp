#include "agent/prompt.h"

#include "agent/context.h"
#include "platform/base/printable.h"

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

constexpr size_t MOST = 4096;

/// The terminal with its echo off; as it was when this ends.
class Silent_Terminal {
public:
  Silent_Terminal() : fd_(::open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY)) {
    if (fd_ < 0 || ::tcgetattr(fd_, &before_) != 0)
      return;
    termios silent = before_;
    silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    good_ = ::tcsetattr(fd_, TCSAFLUSH, &silent) == 0;
  }
  ~Silent_Terminal() {
    if (good_)
      ::tcsetattr(fd_, TCSAFLUSH, &before_);
    if (fd_ >= 0)
      ::close(fd_);
  }
  Silent_Terminal(const Silent_Terminal&) = delete;
  Silent_Terminal& operator=(const Silent_Terminal&) = delete;
  bool good() const { return good_; }
  int fd() const { return fd_; }

private:
  int fd_;
  termios before_ = {};
  bool good_ = false;
};

} // namespace

bool can_prompt() {
  return ::isatty(STDIN_FILENO) != 0 && ::isatty(STDERR_FILENO) != 0;
}

bool confirm(const std::string& question) {
  const std::string text = printable(question) + " [y/N] ";
  std::fwrite(text.data(), 1, text.size(), stderr);
  std::fflush(stderr);
  char line[64] = {};
  ssize_t got = 0;
  do
    got = ::read(STDIN_FILENO, line, sizeof line - 1);
  while (got < 0 && errno == EINTR);
  return got > 0 && (line[0] == 'y' || line[0] == 'Y');
}

std::string prompt_secret(const std::string& question) {
  const Silent_Terminal terminal;
  std::string text;
  text.reserve(MOST);
  char c = 0;
  ssize_t got = terminal.good() && ::write(terminal.fd(), question.data(), question.size()) >= 0 ? 1 : -1;
  while (got > 0 && text.size() < MOST && (got = ::read(terminal.fd(), &c, 1)) > 0 && c != '\n' && c != '\r')
    text.push_back(c);
  if (got < 0)
    throw Command_Error(std::string("the terminal cannot be read: ") + std::strerror(errno));
  if (::write(terminal.fd(), "\n", 1) < 0)
    throw Command_Error(std::string("the terminal cannot be written: ") + std::strerror(errno));
  return text;
}
