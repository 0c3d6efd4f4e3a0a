#pragma once

#include "testing/s3_server/connection.h"
#include "testing/s3_server/operations.h"
#include "testing/s3_server/s3_server.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <list>
#include <mutex>
#include <thread>

namespace s3_testing {

// The sockets, the threads and the counters behind S3_Server; server.cpp holds the listening side and the counters,
// exchange.cpp what happens on one connection.
class S3_Server::Impl {
public:
  explicit Impl(S3_Server_Options options);
  ~Impl();

  void listen_on(std::uint16_t port);
  void stop_listening();
  void drop_connections();
  std::shared_ptr<const S3_Server_Settings> settings() const;

  Store store;
  Uploads uploads;
  Fault_Script faults;
  const std::uint64_t seed;
  std::uint16_t port = 0;
  std::string ca_pem, ca_file, client_certificate_file;
  Ssl_Ctx tls{nullptr, &SSL_CTX_free};

  mutable std::mutex settings_lock;
  std::shared_ptr<const S3_Server_Settings> settings_now; // replaced as a whole

  mutable std::mutex lock; // all below; no other lock is taken under it
  mutable std::condition_variable changed;
  bool stopping = false;
  std::uint64_t stall_release = 0;
  std::size_t stalled = 0;
  std::map<std::string, std::uint64_t> counts;
  std::uint64_t in_work = 0, max_in_work = 0, opened = 0, total = 0;
  bool logging = false;
  std::vector<Request_Info> log;
  std::atomic<std::uint64_t> body_bytes{0};
  std::atomic<std::uint64_t> objects_changed{0};
  double tokens = 0;       // requests that are admitted at once
  double tokens_at = -1e9; // seconds, by the settings' limit_clock; long ago

private:
  struct Peer {
    std::shared_ptr<Connection> connection; // null once it is closed
    std::thread thread;
  };

  // What the faults do to the reply's body on its way out.
  struct Body_Faults {
    std::optional<Fault> cut, stall, wrong_length, change, flip;
    bool any() const { return cut || stall || wrong_length || change || flip; }
  };
  struct Exchange;

  void accept_loop(int listener);
  void serve_peer(Connection& connection, std::uint64_t number);
  // False: the connection is over.
  bool serve_one(Connection& connection, std::uint64_t number, const std::string& head);
  bool receive_body(Connection& connection, Exchange& exchange);
  std::optional<Http_Response> replaced_reply(Exchange& exchange);
  bool send(Connection& connection, Exchange& exchange, Http_Response& response);
  bool send_body(Connection& connection, Exchange& exchange, const Http_Response& response, std::string head);
  bool stall_here(int milliseconds);
  bool pause(std::chrono::milliseconds time);
  void replace_object(const Exchange& exchange, const Fault& fault);
  void record(const Request_Info& info);
  // Whether the bound on requests per second lets one more in now.
  bool admits(const S3_Server_Settings& current);

  int listener_ = -1;
  int wake_[2] = {-1, -1}; // a pipe: a byte ends the accepting thread
  std::thread acceptor_;
  std::list<Peer> peers_; // guarded by peers_lock_, which is taken before `lock`
  std::mutex peers_lock_;
  std::atomic<std::uint64_t> request_number_{0};
};

} // namespace s3_testing
