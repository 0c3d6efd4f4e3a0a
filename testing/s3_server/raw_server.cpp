#include "testing/s3_server/raw_server.h"

#include <arpa/inet.h>
#include <cerrno>
#include <netinet/in.h>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace s3_testing {

Raw_Server::Raw_Server(std::string answer, bool hang_up) : answer_(std::move(answer)), hang_up_(hang_up) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (listener_ < 0 || ::pipe(wake_) != 0 || ::bind(listener_, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
      ::listen(listener_, 16) != 0 || ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0)
    throw std::runtime_error("listening on 127.0.0.1");
  port_ = ntohs(address.sin_port);
  thread_ = std::thread([this] { serve(); });
}

Raw_Server::~Raw_Server() {
  const char byte = 0;
  while (::write(wake_[1], &byte, 1) < 0 && errno == EINTR) {
  }
  thread_.join();
  ::close(listener_);
  ::close(wake_[0]);
  ::close(wake_[1]);
}

void Raw_Server::serve() {
  std::vector<pollfd> waits{{wake_[0], POLLIN, 0}, {listener_, POLLIN, 0}};
  const auto end_of = [&](std::size_t at) {
    ::close(waits[at].fd);
    waits.erase(waits.begin() + static_cast<std::ptrdiff_t>(at));
  };
  for (;;) {
    if (::poll(waits.data(), waits.size(), -1) < 0)
      continue;
    if (waits[0].revents)
      break;
    for (std::size_t at = waits.size(); at-- > 2;) {
      if (!waits[at].revents)
        continue;
      char room[16 * 1024];
      if (::recv(waits[at].fd, room, sizeof room, 0) <= 0) {
        end_of(at);
      } else if (hang_up_ || !answer_.empty()) {
        std::size_t sent = 0;
        while (sent < answer_.size()) {
          const ssize_t count = ::send(waits[at].fd, answer_.data() + sent, answer_.size() - sent, MSG_NOSIGNAL);
          if (count <= 0)
            break;
          sent += static_cast<std::size_t>(count);
        }
        ::shutdown(waits[at].fd, SHUT_WR);
        end_of(at);
      }
    }
    if (waits[1].revents) {
      const int fd = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
      if (fd >= 0)
        waits.push_back({fd, POLLIN, 0});
    }
  }
  while (waits.size() > 2)
    end_of(waits.size() - 1);
}

} // namespace s3_testing
