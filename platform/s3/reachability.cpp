#include "platform/s3/reachability.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <future>
#include <memory>
#include <thread>

namespace s3 {
namespace {

typedef std::chrono::steady_clock Steady;

int left_until(Steady::time_point end) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Steady::now()).count();
  return left > 0 ? static_cast<int>(left) : 0;
}

std::string text_of(const sockaddr* address, socklen_t length) {
  char text[NI_MAXHOST];
  return getnameinfo(address, length, text, sizeof text, nullptr, 0, NI_NUMERICHOST) == 0 ? text : "?";
}

struct Info_Free {
  void operator()(addrinfo* info) const { freeaddrinfo(info); }
};

struct Answer {
  int result = 0;
  std::vector<Host_Address> addresses;
};

/// 0 once connected, else an errno.
int connect_one(const Host_Address& to, Steady::time_point end, Probe_Socket& socket) {
  socket.reset(::socket(to.address.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (socket.get() < 0)
    return errno;
  if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&to.address), to.length) == 0)
    return 0;
  if (errno != EINPROGRESS)
    return errno;
  pollfd wait = {socket.get(), POLLOUT, 0};
  int ready;
  do {
    ready = ::poll(&wait, 1, left_until(end));
  } while (ready < 0 && errno == EINTR);
  if (ready <= 0)
    return ready == 0 ? ETIMEDOUT : errno;
  int failure = 0;
  socklen_t length = sizeof failure;
  ::getsockopt(socket.get(), SOL_SOCKET, SO_ERROR, &failure, &length);
  return failure;
}

} // namespace

void Probe_Socket::close() {
  if (fd_ >= 0)
    ::close(fd_);
  fd_ = -1;
}

int resolve_host(const std::string& host, unsigned short port, std::vector<Host_Address>& addresses) {
  addrinfo hints = {};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* list = nullptr;
  const int result = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &list);
  const std::unique_ptr<addrinfo, Info_Free> owner(list);
  if (result != 0)
    return result;
  for (const addrinfo* one = list; one; one = one->ai_next) {
    if (one->ai_addrlen > sizeof(sockaddr_storage))
      continue;
    Host_Address address;
    std::memcpy(&address.address, one->ai_addr, one->ai_addrlen);
    address.length = one->ai_addrlen;
    address.text = text_of(one->ai_addr, one->ai_addrlen);
    addresses.push_back(std::move(address));
  }
  return addresses.empty() ? EAI_NONAME : 0;
}

Finding look_up(const std::string& host, unsigned short port, const Resolver& resolver, std::chrono::milliseconds limit,
                std::vector<Host_Address>& addresses) {
  Finding finding;
  finding.tried = "look up " + host;
  // The system's resolver cannot be stopped: its thread keeps what it needs and is left to itself.
  const auto promise = std::make_shared<std::promise<Answer>>();
  std::future<Answer> future = promise->get_future();
  try {
    std::thread([promise, host, port, resolver] {
      try {
        Answer answer;
        answer.result = resolver(host, port, answer.addresses);
        promise->set_value(std::move(answer));
      } catch (...) {
        promise->set_exception(std::current_exception());
      }
    }).detach();
    if (future.wait_for(limit) != std::future_status::ready) {
      finding.fault = "name.no-answer";
      finding.found = "no answer within " + std::to_string(limit.count()) + " ms";
      return finding;
    }
    Answer answer = future.get();
    if (answer.result != 0) {
      const bool unknown = answer.result == EAI_NONAME || answer.result == EAI_NODATA;
      finding.fault = unknown ? "name.unknown" : "name.no-answer";
      finding.found = gai_strerror(answer.result);
      return finding;
    }
    addresses = std::move(answer.addresses);
  } catch (const std::exception& error) {
    finding.fault = "name.no-answer";
    finding.found = error.what();
    return finding;
  }
  for (const Host_Address& address : addresses)
    if (finding.found.find(address.text) == std::string::npos)
      finding.found += (finding.found.empty() ? "" : ", ") + address.text;
  return finding;
}

Finding try_connect(const std::vector<Host_Address>& addresses, unsigned short port, std::chrono::milliseconds limit,
                    Probe_Socket& socket) {
  Finding finding;
  const Steady::time_point start = Steady::now();
  int failure = EADDRNOTAVAIL;
  for (size_t i = 0; i < addresses.size(); ++i) {
    // Each address has its share of what is left, so that one that is silent does not take the turn of all others.
    const auto share = std::chrono::milliseconds(left_until(start + limit)) / static_cast<int>(addresses.size() - i);
    finding.tried = "connect to " + addresses[i].text + " port " + std::to_string(port);
    failure = connect_one(addresses[i], Steady::now() + share, socket);
    if (failure == 0) {
      const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(Steady::now() - start);
      finding.found = "connected within " + std::to_string(took.count()) + " ms";
      return finding;
    }
  }
  finding.found = std::strerror(failure);
  finding.fault = failure == ECONNREFUSED ? "connect.refused"
                  : failure == ETIMEDOUT  ? "connect.timeout"
                                          : "connect.failed";
  return finding;
}

} // namespace s3
