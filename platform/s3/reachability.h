#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include <sys/socket.h>

namespace s3 {

/// What one look at the way to a service came to. `fault` is empty where nothing is wrong.
struct Finding {
  std::string fault; ///< "connect.refused"; see diagnosis_faults.h
  std::string tried;
  std::string found;
  bool wants_certificate = false; ///< TLS: the service asked for a client's certificate that it was not given
};

/// One address of a host.
struct Host_Address {
  sockaddr_storage address = {};
  socklen_t length = 0;
  std::string text; ///< "127.0.0.1"
};

/// Takes the place of the system's resolver: fills the addresses and answers 0, else what `getaddrinfo` would.
typedef std::function<int(const std::string& host, unsigned short port, std::vector<Host_Address>& addresses)> Resolver;

/// The system's.
int resolve_host(const std::string& host, unsigned short port, std::vector<Host_Address>& addresses);

/// Looks the host up, for `limit` at the most; the look-up itself may go on behind the caller's back.
Finding look_up(const std::string& host, unsigned short port, const Resolver& resolver, std::chrono::milliseconds limit,
                std::vector<Host_Address>& addresses);

/// A connected socket, closed with its owner.
class Probe_Socket {
public:
  Probe_Socket() = default;
  ~Probe_Socket() { close(); }
  Probe_Socket(const Probe_Socket&) = delete;
  Probe_Socket& operator=(const Probe_Socket&) = delete;
  int get() const { return fd_; }
  void reset(int fd) {
    close();
    fd_ = fd;
  }

private:
  void close();
  int fd_ = -1;
};

/// Connects to the first address that takes it, for `limit` at the most altogether.
Finding try_connect(const std::vector<Host_Address>& addresses, unsigned short port, std::chrono::milliseconds limit,
                    Probe_Socket& socket);

struct TLS_Files {
  std::string ca_file;     ///< PEM; empty: the system's
  std::string client_cert; ///< PEM; empty: none
  std::string client_key;
};

/// Shakes hands over `socket` and looks at the certificate that is shown for `host`. Fault "tls.expires-soon" does not
/// keep anybody from talking.
Finding try_tls(const Probe_Socket& socket, const std::string& host, const TLS_Files& files,
                std::chrono::milliseconds limit);
/// Whether whoever listens speaks TLS at all; the certificate is not looked at.
bool speaks_tls(const Probe_Socket& socket, const std::string& host, std::chrono::milliseconds limit);

} // namespace s3
