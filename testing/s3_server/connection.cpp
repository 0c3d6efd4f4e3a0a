#include "testing/s3_server/connection.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <sys/socket.h>
#include <unistd.h>

namespace s3_testing {
namespace {

constexpr std::size_t max_head_bytes = 64 * 1024;
constexpr std::size_t chunk_bytes = 256 * 1024;

} // namespace

Connection::~Connection() {
  ::close(fd_);
}

bool Connection::handshake(SSL_CTX* context) {
  ssl_.reset(SSL_new(context));
  return ssl_ && SSL_set_fd(ssl_.get(), fd_) == 1 && SSL_accept(ssl_.get()) == 1;
}

std::size_t Connection::receive(char* to, std::size_t room) {
  room = std::min(room, chunk_bytes);
  if (ssl_) {
    const int got = SSL_read(ssl_.get(), to, static_cast<int>(room));
    return got > 0 ? static_cast<std::size_t>(got) : 0;
  }
  for (;;) {
    const ssize_t got = ::recv(fd_, to, room, 0);
    if (got >= 0)
      return static_cast<std::size_t>(got);
    if (errno != EINTR)
      return 0;
  }
}

Connection::Head Connection::read_head(std::string& head) {
  std::size_t searched = 0;
  for (;;) {
    const auto end = ahead_.find("\r\n\r\n", searched);
    if (end != std::string::npos) {
      head.assign(ahead_, 0, end);
      ahead_.erase(0, end + 4);
      return Head::complete;
    }
    if (ahead_.size() > max_head_bytes)
      return Head::too_long;
    searched = ahead_.size() < 3 ? 0 : ahead_.size() - 3;
    std::array<char, 16 * 1024> room;
    const std::size_t got = receive(room.data(), room.size());
    if (got == 0)
      return ahead_.empty() ? Head::ended : Head::broken;
    ahead_.append(room.data(), got);
  }
}

bool Connection::read_body(std::size_t length, std::string& out) {
  const std::size_t ready = std::min(length, ahead_.size());
  const std::size_t start = out.size();
  out.append(ahead_, 0, ready);
  ahead_.erase(0, ready);
  std::size_t have = ready;
  // The buffer grows with what arrives, not with what a header promises.
  while (have < length) {
    const std::size_t step = std::min(length - have, std::max<std::size_t>(chunk_bytes, have));
    out.resize(start + have + step);
    std::size_t filled = 0;
    while (filled < step) {
      const std::size_t got = receive(out.data() + start + have + filled, step - filled);
      if (got == 0) {
        out.resize(start + have + filled);
        return false;
      }
      filled += got;
    }
    have += step;
  }
  return true;
}

bool Connection::skip_body(std::uint64_t length) {
  std::string scratch;
  while (length > 0) {
    scratch.clear();
    const std::size_t step = static_cast<std::size_t>(std::min<std::uint64_t>(length, chunk_bytes));
    if (!read_body(step, scratch))
      return false;
    length -= step;
  }
  return true;
}

bool Connection::write(std::string_view bytes) {
  while (!bytes.empty()) {
    std::size_t sent = 0;
    if (ssl_) {
      const int got = SSL_write(ssl_.get(), bytes.data(), static_cast<int>(std::min(bytes.size(), chunk_bytes)));
      if (got <= 0)
        return false;
      sent = static_cast<std::size_t>(got);
    } else {
      const ssize_t got = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (got < 0 && errno == EINTR)
        continue;
      if (got <= 0)
        return false;
      sent = static_cast<std::size_t>(got);
    }
    bytes.remove_prefix(sent);
  }
  return true;
}

void Connection::shut_down() {
  ::shutdown(fd_, SHUT_RDWR);
}

void Connection::close_with_reset() {
  const linger now{1, 0};
  ::setsockopt(fd_, SOL_SOCKET, SO_LINGER, &now, sizeof now);
}

} // namespace s3_testing
