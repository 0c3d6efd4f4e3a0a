#include "bench/s3_source/connection.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <memory>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <unordered_map>

// An S3 service for measurements: buckets that are made up as they are asked for, next to no CPU, and as much delay
// before each answer as is asked for. Any signature is accepted. It listens on 127.0.0.1, prints its port, and ends
// when its standard input does.
//
//   s3-source NAME:TREE:SIZE[:text|:log]...      TREE: 100x100x100 folders, folders, objects
//   PUT /NAME                               a bucket that takes what is written to it and keeps the sizes
//   PUT /NAME/KEY                           of a made-up bucket: taken where the key is there, and changes nothing
//   GET /-/latency?us=N, /-/counts, /-/forget

namespace {

int64_t now_us() {
  return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

[[noreturn]] void give_up(const char* what) {
  std::fprintf(stderr, "s3-source: %s: %s\n", what, std::strerror(errno));
  std::exit(1);
}

int listen_somewhere() {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || ::listen(fd, 1024) != 0 ||
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0)
    give_up("listen");
  std::printf("%u\n", ntohs(address.sin_port));
  std::fflush(stdout);
  return fd;
}

class Server {
public:
  explicit Server(std::vector<Layout> layouts)
      : service_(std::move(layouts)), listener_(listen_somewhere()), epoll_(::epoll_create1(EPOLL_CLOEXEC)) {
    for (int kind = 0; kind < Pattern::KINDS; ++kind) {
      patterns_[kind] = Pattern::make(static_cast<Pattern::Kind>(kind));
      if (patterns_[kind].bytes == nullptr)
        give_up("pattern");
    }
    watch(listener_, EPOLLIN);
    watch(0, EPOLLIN);
  }

  void run() {
    epoll_event events[256];
    for (;;) {
      timespec timeout = {}, *until = nullptr;
      if (!waiting_.empty()) {
        const int64_t left = std::max<int64_t>(0, waiting_.front().due - now_us());
        timeout.tv_sec = left / 1000000;
        timeout.tv_nsec = left % 1000000 * 1000;
        until = &timeout;
      }
      const int count = ::epoll_pwait2(epoll_, events, 256, until, nullptr);
      if (count < 0 && errno != EINTR)
        give_up("epoll");
      for (int i = 0; i < count; ++i)
        if (!handle(events[i].data.fd))
          return;
      answer_due();
    }
  }

private:
  struct Waiting {
    int64_t due;
    int fd;
    uint64_t serial; ///< of the connection: the descriptor may be another's by then
  };
  struct Client {
    std::unique_ptr<Connection> connection;
    uint64_t serial;
  };

  void watch(int fd, uint32_t what) {
    epoll_event event = {};
    event.events = what;
    event.data.fd = fd;
    // Standard input may be a file, which is always ready and cannot be watched.
    if (::epoll_ctl(epoll_, EPOLL_CTL_ADD, fd, &event) != 0 && fd != 0)
      give_up("epoll");
  }

  /// False when it is time to go.
  bool handle(int fd) {
    if (fd == 0) {
      char bytes[64];
      return ::read(0, bytes, sizeof bytes) > 0;
    }
    if (fd == listener_) {
      int client;
      while ((client = ::accept4(listener_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC)) >= 0) {
        const int one = 1;
        ::setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        clients_[client] = {std::make_unique<Connection>(client), ++serial_};
        watch(client, EPOLLIN | EPOLLOUT | EPOLLET | EPOLLRDHUP);
      }
      return true;
    }
    const auto found = clients_.find(fd);
    if (found != clients_.end())
      go_on(found->second);
    return true;
  }

  void go_on(Client& client) {
    Connection& connection = *client.connection;
    for (;;) {
      if (connection.state() == Connection::SENDING)
        connection.send(patterns_);
      if (connection.state() != Connection::READING || !connection.receive())
        break;
      service_.answer(connection.request(), connection.answer());
      if (service_.latency() == 0 || connection.request().path.compare(0, 3, "/-/") == 0) {
        connection.due();
      } else {
        connection.wait();
        waiting_.push_back({now_us() + static_cast<int64_t>(service_.latency()), connection.fd(), client.serial});
      }
    }
    if (connection.state() == Connection::CLOSED)
      clients_.erase(connection.fd());
  }

  void answer_due() {
    const int64_t now = waiting_.empty() ? 0 : now_us();
    while (!waiting_.empty() && waiting_.front().due <= now) {
      const Waiting one = waiting_.front();
      waiting_.pop_front();
      const auto found = clients_.find(one.fd);
      if (found == clients_.end() || found->second.serial != one.serial)
        continue;
      found->second.connection->due();
      go_on(found->second);
    }
  }

  Pattern patterns_[Pattern::KINDS];
  Service service_;
  const int listener_;
  const int epoll_;
  uint64_t serial_ = 0;
  std::unordered_map<int, Client> clients_;
  std::deque<Waiting> waiting_;
};

} // namespace

int main(int argc, char** argv) {
  // A client that goes away while a file is sent to it ends that connection, not the service.
  ::signal(SIGPIPE, SIG_IGN);
  std::vector<Layout> layouts;
  for (int i = 1; i < argc; ++i) {
    layouts.emplace_back();
    if (!layouts.back().parse(argv[i])) {
      std::fprintf(stderr, "s3-source: '%s' is no NAME:TREE:SIZE[:text|:log]\n", argv[i]);
      return 2;
    }
  }
  Server(std::move(layouts)).run();
  return 0;
}
