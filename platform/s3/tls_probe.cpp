#include "platform/s3/reachability.h"

#include <arpa/inet.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>

#include <cerrno>
#include <ctime>
#include <memory>

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

namespace s3 {
namespace {

typedef std::chrono::steady_clock Steady;

constexpr int SOON_DAYS = 14;

struct Ctx_Free {
  void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
};
struct Ssl_Free {
  void operator()(SSL* ssl) const { SSL_free(ssl); }
};
struct X509_Free {
  void operator()(X509* certificate) const { X509_free(certificate); }
};
struct Bio_Free {
  void operator()(BIO* bio) const { BIO_free(bio); }
};
typedef std::unique_ptr<SSL_CTX, Ctx_Free> Ctx_ptr;
typedef std::unique_ptr<SSL, Ssl_Free> Ssl_ptr;
typedef std::unique_ptr<X509, X509_Free> X509_ptr;

bool is_address(const std::string& host) {
  unsigned char bytes[16];
  return inet_pton(AF_INET, host.c_str(), bytes) == 1 || inet_pton(AF_INET6, host.c_str(), bytes) == 1;
}

/// "CN=localhost, until Nov 21 08:00:00 2026 GMT".
std::string described(X509* certificate) {
  const std::unique_ptr<BIO, Bio_Free> memory(BIO_new(BIO_s_mem()));
  if (!memory)
    return {};
  X509_NAME_print_ex(memory.get(), X509_get_subject_name(certificate), 0, XN_FLAG_ONELINE & ~XN_FLAG_SPC_EQ);
  BIO_puts(memory.get(), ", by ");
  X509_NAME_print_ex(memory.get(), X509_get_issuer_name(certificate), 0, XN_FLAG_ONELINE & ~XN_FLAG_SPC_EQ);
  BIO_puts(memory.get(), ", until ");
  ASN1_TIME_print(memory.get(), X509_get0_notAfter(certificate));
  char* text = nullptr;
  const long size = BIO_get_mem_data(memory.get(), &text);
  return std::string(text, size > 0 ? static_cast<size_t>(size) : 0);
}

const char* fault_of(long verified) {
  switch (verified) {
  case X509_V_ERR_CERT_HAS_EXPIRED:
    return "tls.expired";
  case X509_V_ERR_CERT_NOT_YET_VALID:
    return "tls.not-yet-valid";
  case X509_V_ERR_HOSTNAME_MISMATCH:
  case X509_V_ERR_IP_ADDRESS_MISMATCH:
    return "tls.other-name";
  default:
    return "tls.unknown-ca";
  }
}

/// OpenSSL writes to sockets in the plain way: a peer that is gone would end the process.
class No_Sigpipe {
public:
  No_Sigpipe() {
    sigemptyset(&pipe_);
    sigaddset(&pipe_, SIGPIPE);
    sigset_t pending;
    was_pending_ = sigpending(&pending) == 0 && sigismember(&pending, SIGPIPE) == 1;
    pthread_sigmask(SIG_BLOCK, &pipe_, &before_);
  }
  ~No_Sigpipe() {
    const timespec none = {};
    while (!was_pending_ && sigtimedwait(&pipe_, nullptr, &none) < 0 && errno == EINTR) {
    }
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
  }
  No_Sigpipe(const No_Sigpipe&) = delete;
  No_Sigpipe& operator=(const No_Sigpipe&) = delete;

private:
  sigset_t pipe_;
  sigset_t before_;
  bool was_pending_ = false;
};

/// 1: done; 0: ended by the peer or by time; -1: refused, and OpenSSL's queue says why.
int shake_hands(SSL* ssl, int fd, Steady::time_point end, bool& timed_out) {
  const No_Sigpipe no_sigpipe;
  for (;;) {
    ERR_clear_error();
    const int result = SSL_connect(ssl);
    if (result == 1)
      return 1;
    const int why = SSL_get_error(ssl, result);
    if (why != SSL_ERROR_WANT_READ && why != SSL_ERROR_WANT_WRITE)
      return why == SSL_ERROR_SSL && ERR_GET_REASON(ERR_peek_last_error()) != SSL_R_UNEXPECTED_EOF_WHILE_READING ? -1
                                                                                                                 : 0;
    pollfd wait = {fd, static_cast<short>(why == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT), 0};
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Steady::now()).count();
    const int ready = left > 0 ? ::poll(&wait, 1, static_cast<int>(left)) : 0;
    if (ready == 0) {
      timed_out = true;
      return 0;
    }
    if (ready < 0 && errno != EINTR)
      return 0;
  }
}

Ssl_ptr make_session(SSL_CTX* context, int fd, const std::string& host) {
  Ssl_ptr ssl(SSL_new(context));
  if (!ssl || SSL_set_fd(ssl.get(), fd) != 1)
    return nullptr;
  if (!is_address(host))
    SSL_set_tlsext_host_name(ssl.get(), host.c_str());
  return ssl;
}

/// Called where the service asks for a certificate and none is set.
int on_certificate_wanted(SSL* ssl, X509**, EVP_PKEY**) {
  *static_cast<bool*>(SSL_get_app_data(ssl)) = true;
  return 0;
}

} // namespace

bool speaks_tls(const Probe_Socket& socket, const std::string& host, std::chrono::milliseconds limit) {
  const Ctx_ptr context(SSL_CTX_new(TLS_client_method()));
  const Ssl_ptr ssl = context ? make_session(context.get(), socket.get(), host) : nullptr;
  bool timed_out = false;
  return ssl && shake_hands(ssl.get(), socket.get(), Steady::now() + limit, timed_out) == 1;
}

Finding try_tls(const Probe_Socket& socket, const std::string& host, const TLS_Files& files,
                std::chrono::milliseconds limit) {
  Finding finding;
  finding.tried = "TLS with " + host;
  const auto failed = [&](const char* fault, std::string found) {
    finding.fault = fault;
    finding.found = std::move(found);
    return finding;
  };
  const Ctx_ptr context(SSL_CTX_new(TLS_client_method()));
  if (!context)
    return failed("tls.failed", "no memory");
  SSL_CTX_set_min_proto_version(context.get(), TLS1_2_VERSION);
  if (files.ca_file.empty())
    SSL_CTX_set_default_verify_paths(context.get());
  else if (SSL_CTX_load_verify_locations(context.get(), files.ca_file.c_str(), nullptr) != 1)
    return failed("tls.ca-file", "no certificate can be read from " + files.ca_file);
  if (!files.client_cert.empty()) {
    const std::string& key = files.client_key.empty() ? files.client_cert : files.client_key;
    if (SSL_CTX_use_certificate_chain_file(context.get(), files.client_cert.c_str()) != 1 ||
        SSL_CTX_use_PrivateKey_file(context.get(), key.c_str(), SSL_FILETYPE_PEM) != 1)
      return failed("tls.client-file", "no certificate with its key can be read from " + files.client_cert);
  }
  const Ssl_ptr ssl = make_session(context.get(), socket.get(), host);
  if (!ssl)
    return failed("tls.failed", "no memory");
  SSL_CTX_set_client_cert_cb(context.get(), on_certificate_wanted);
  SSL_set_app_data(ssl.get(), &finding.wants_certificate);
  // The handshake goes on whatever is wrong with the certificate, so that all of it can be told.
  SSL_set_verify(ssl.get(), SSL_VERIFY_NONE, nullptr);
  X509_VERIFY_PARAM* const rules = SSL_get0_param(ssl.get());
  if (is_address(host))
    X509_VERIFY_PARAM_set1_ip_asc(rules, host.c_str());
  else
    X509_VERIFY_PARAM_set1_host(rules, host.c_str(), 0);
  bool timed_out = false;
  const int result = shake_hands(ssl.get(), socket.get(), Steady::now() + limit, timed_out);
  if (timed_out)
    return failed("tls.silent", "no answer within " + std::to_string(limit.count()) + " ms");
  if (result == 0)
    return failed("tls.closed", "the connection ended in the middle of the handshake");
  if (result < 0) {
    const unsigned long error = ERR_peek_last_error();
    const char* const reason = ERR_reason_error_string(error);
    const int code = ERR_GET_REASON(error);
    const bool other_protocol =
        code == SSL_R_WRONG_VERSION_NUMBER || code == SSL_R_HTTP_REQUEST || code == SSL_R_PACKET_LENGTH_TOO_LONG;
    return failed(other_protocol                                                                     ? "tls.not-tls"
                  : code == SSL_R_UNSUPPORTED_PROTOCOL || code == SSL_R_TLSV1_ALERT_PROTOCOL_VERSION ? "tls.too-old"
                                                                                                     : "tls.failed",
                  reason ? reason : "the handshake failed");
  }
  const X509_ptr certificate(SSL_get1_peer_certificate(ssl.get()));
  if (!certificate)
    return failed("tls.failed", "no certificate was shown");
  finding.found = std::string(SSL_get_version(ssl.get())) + ", " + described(certificate.get());
  const long verified = SSL_get_verify_result(ssl.get());
  if (verified != X509_V_OK)
    return failed(fault_of(verified), finding.found + ": " + X509_verify_cert_error_string(verified));
  int days = 0, seconds = 0;
  if (ASN1_TIME_diff(&days, &seconds, nullptr, X509_get0_notAfter(certificate.get())) == 1 && days < SOON_DAYS)
    finding.fault = "tls.expires-soon";
  return finding;
}

} // namespace s3
