#pragma once

#include <memory>
#include <openssl/ssl.h>
#include <string>

namespace s3_testing {

using Ssl_Ctx = std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)>;
using Ssl = std::unique_ptr<SSL, decltype(&SSL_free)>;

// A fresh self-signed certificate for `names` ("DNS:localhost,IP:127.0.0.1") with its key, ready to serve for so many
// seconds from now on. `pem` gets the certificate, which is its own CA; `client_pem` gets another one with its key,
// which clients have to show where `client_certificate` says so. Throws std::runtime_error where OpenSSL fails.
Ssl_Ctx make_server_context(const std::string& names, long valid_seconds, bool client_certificate, std::string& pem,
                            std::string& client_pem);

} // namespace s3_testing
