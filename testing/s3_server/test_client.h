#pragma once

#include "testing/s3_server/digest.h"
#include "testing/s3_server/http_message.h"
#include "testing/s3_server/s3_server.h"

#include <arpa/inet.h>
#include <ctime>
#include <map>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

namespace s3_testing {

struct Test_Reply {
  int status = 0; // 0: the connection ended before a whole head
  std::map<std::string, std::string> headers;
  std::string body;
  bool complete = false; // as many body bytes as Content-Length says
  bool has(const std::string& text) const { return body.find(text) != std::string::npos; }
};

// A client of the server's tests: one connection, V2 signatures, no mercy and no retries.
class Test_Client {
public:
  explicit Test_Client(const S3_Server& server) : server_(server) { connect(); }
  ~Test_Client() { ::close(fd_); }

  std::string access_key = S3_Server_Options().access_key, secret_key = S3_Server_Options().secret_key;
  std::int64_t clock_offset = 0;

  bool connected() const { return connected_; }

  // `target` is sent as it is; sub-resources among its parameters must be given by `sub` ("?uploads").
  std::string request(const std::string& method, const std::string& target, const std::string& body = {},
                      const std::string& more_headers = {}, const std::string& sub = {},
                      const std::string& content_type = {}) const {
    const std::string date = http_date(static_cast<std::int64_t>(std::time(nullptr)) + clock_offset);
    const std::string path = target.substr(0, target.find('?'));
    const std::string to_sign = method + "\n\n" + content_type + "\n" + date + "\n" + path + sub;
    std::string out = method + " " + target + " HTTP/1.1\r\nHost: " + server_.endpoint() + "\r\nDate: " + date +
                      "\r\nAuthorization: AWS " + access_key + ":" + to_base64(hmac_sha1(secret_key, to_sign)) +
                      "\r\n" + more_headers;
    if (!content_type.empty())
      out += "Content-Type: " + content_type + "\r\n";
    if (method == "PUT" || !body.empty())
      out += "Content-Length: " + std::to_string(body.size()) + "\r\n";
    return out + "\r\n" + body;
  }

  Test_Reply call(const std::string& method, const std::string& target, const std::string& body = {},
                  const std::string& more_headers = {}, const std::string& sub = {}) {
    return exchange(request(method, target, body, more_headers, sub), method == "HEAD");
  }

  Test_Reply exchange(const std::string& bytes, bool head_only = false) {
    send(bytes);
    return read(head_only);
  }

  void send(const std::string& bytes) { (void)!::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL); }

  // Reads one reply. Where it is cut off, what came of it; the next call goes over a fresh connection then.
  Test_Reply read(bool head_only = false) {
    Test_Reply reply;
    std::size_t end = 0;
    while ((end = ahead_.find("\r\n\r\n")) == std::string::npos)
      if (!more()) {
        reconnect();
        return reply;
      }
    std::string head = ahead_.substr(0, end);
    ahead_.erase(0, end + 4);
    reply.status = std::stoi(head.substr(9, 3));
    for (std::size_t at = head.find("\r\n"); at != std::string::npos;) {
      const std::size_t next = head.find("\r\n", at + 2);
      const std::string line = head.substr(at + 2, next == std::string::npos ? next : next - at - 2);
      const std::size_t colon = line.find(": ");
      reply.headers[to_lower(line.substr(0, colon))] = line.substr(colon + 2);
      at = next;
    }
    std::size_t length = 0;
    if (!head_only && reply.headers.count("content-length"))
      length = std::stoul(reply.headers["content-length"]);
    bool open = true;
    while (ahead_.size() < length && (open = more())) {
    }
    reply.complete = ahead_.size() >= length;
    reply.body = ahead_.substr(0, length);
    ahead_.erase(0, length);
    if (!open || reply.headers["connection"] == "close")
      reconnect();
    return reply;
  }

  void reconnect() {
    ::close(fd_);
    ahead_.clear();
    connect();
  }

private:
  void connect() {
    fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(server_.port());
    connected_ = ::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  }
  bool more() {
    char room[65536];
    const ssize_t got = ::recv(fd_, room, sizeof room, 0);
    if (got <= 0)
      return false;
    ahead_.append(room, static_cast<std::size_t>(got));
    return true;
  }

  const S3_Server& server_;
  int fd_ = -1;
  bool connected_ = false;
  std::string ahead_;
};

} // namespace s3_testing
