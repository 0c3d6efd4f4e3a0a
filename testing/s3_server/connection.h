#pragma once

#include "testing/s3_server/tls.h"

#include <cstddef>
#include <string>
#include <string_view>

namespace s3_testing {

// The server's end of one connection, plain or TLS. Used by the one thread that serves it; only shut_down may come
// from another. Closes the socket when destroyed.
class Connection {
public:
  explicit Connection(int fd) : fd_(fd) {}
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  bool handshake(SSL_CTX* context);

  enum class Head { complete, ended, broken, too_long };
  // Up to and with the empty line, which is not handed out. `ended`: the peer closed between two requests.
  Head read_head(std::string& head);
  // Exactly `length` bytes, appended. False where the connection ends before.
  bool read_body(std::size_t length, std::string& out);
  bool skip_body(std::uint64_t length);
  bool write(std::string_view bytes);

  // Wakes the serving thread up out of whatever it reads or writes.
  void shut_down();
  // What is closed now is seen by the peer as a reset, not as an orderly end.
  void close_with_reset();

private:
  // Received bytes, 0 at the end or on an error.
  std::size_t receive(char* to, std::size_t room);

  const int fd_;
  Ssl ssl_{nullptr, &SSL_free};
  std::string ahead_; // received and not yet taken
};

} // namespace s3_testing
