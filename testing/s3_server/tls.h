#pragma once

#include <memory>
#include <openssl/ssl.h>
#include <string>

namespace s3_testing {

using Ssl_Ctx = std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)>;
using Ssl = std::unique_ptr<SSL, decltype(&SSL_free)>;

// A fresh self-signed certificate for localhost, *.localhost and 127.0.0.1 with its key, ready to serve.
// Throws std::runtime_error where OpenSSL fails. `pem` gets the certificate, which is its own CA.
Ssl_Ctx make_server_context(std::string& pem);

} // namespace s3_testing
