#include "platform/s3/client_fixture.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>

namespace {

/// Answers one request with the head of a long body, and then with a byte each 20 ms until it has sent `most`.
class Dripping_Server {
public:
  explicit Dripping_Server(int most) : most_(most), listener_(socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    EXPECT_EQ(0, bind(listener_, reinterpret_cast<sockaddr*>(&address), size));
    EXPECT_EQ(0, listen(listener_, 1));
    EXPECT_EQ(0, getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size));
    port = ntohs(address.sin_port);
    thread_ = std::thread([this] { serve(); });
  }
  ~Dripping_Server() {
    thread_.join();
    close(listener_);
  }

  unsigned short port = 0;

private:
  void serve() {
    const int peer = accept(listener_, nullptr, nullptr);
    char request[65536];
    if (recv(peer, request, sizeof request, 0) > 0) {
      const std::string head = "HTTP/1.1 200 OK\r\nETag: \"x\"\r\nLast-Modified: Wed, 01 Jan 2020 00:00:00 GMT\r\n"
                               "Content-Length: 1000000\r\n\r\n";
      send(peer, head.data(), head.size(), MSG_NOSIGNAL);
      for (int i = 0; i < most_ && send(peer, "x", 1, MSG_NOSIGNAL) == 1; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    close(peer);
  }

  const int most_;
  const int listener_;
  std::thread thread_;
};

TEST(Slow_Body, service_that_drips_is_broken_off_as_one_that_stalls) {
  constexpr int MOST = 1000;
  Dripping_Server server(MOST);
  Endpoint_Settings settings;
  settings.idle_timeout = 1;
  Endpoint_Settings::set("127.0.0.1", server.port, "key", settings);
  S3_Service_Options options;
  options.type = "http";
  options.host = "127.0.0.1";
  options.port = server.port;
  options.access_key = "key";
  options.secret_key = "secret";
  const S3_Service_var s = make_s3_service(options);
  const HTTP_Connection_var connection = s->get_object("bucket", "key", 0, nullptr);
  ASSERT_EQ(HTTP_Connection::HEADERS_READ, connection->state()) << s->error();
  std::string buffer(1000000, '\0');
  EXPECT_GT(MOST / 2, static_cast<int>(connection->recv(&buffer[0], buffer.size(), nullptr)));
  EXPECT_EQ(HTTP_Connection::CLOSED, connection->state());
}

} // namespace
