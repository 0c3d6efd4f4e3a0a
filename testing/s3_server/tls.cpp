#include "testing/s3_server/tls.h"

#include <algorithm>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>
#include <stdexcept>

namespace s3_testing {
namespace {

using Key = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;
using Certificate = std::unique_ptr<X509, decltype(&X509_free)>;
using Extension = std::unique_ptr<X509_EXTENSION, decltype(&X509_EXTENSION_free)>;
using Memory = std::unique_ptr<BIO, decltype(&BIO_free)>;

void require(bool good, const char* what) {
  if (!good)
    throw std::runtime_error(std::string("TLS set-up failed: ") + what);
}

void add_extension(X509* certificate, int nid, const char* value) {
  X509V3_CTX context;
  X509V3_set_ctx_nodb(&context);
  X509V3_set_ctx(&context, certificate, certificate, nullptr, nullptr, 0);
  const Extension extension(X509V3_EXT_conf_nid(nullptr, &context, nid, value), &X509_EXTENSION_free);
  require(extension && X509_add_ext(certificate, extension.get(), -1) == 1, value);
}

Certificate make_certificate(EVP_PKEY* key, const char* common_name, const std::string& names, long valid_seconds) {
  Certificate certificate(X509_new(), &X509_free);
  require(certificate != nullptr, "certificate");
  std::uint64_t serial = 0;
  require(RAND_bytes(reinterpret_cast<unsigned char*>(&serial), sizeof serial) == 1, "random serial");
  X509* x = certificate.get();
  X509_set_version(x, 2);
  ASN1_INTEGER_set_uint64(X509_get_serialNumber(x), serial >> 1);
  // A day of grace: tests may run under a shifted clock.
  X509_gmtime_adj(X509_getm_notBefore(x), -24 * 3600 + std::min(valid_seconds, 0L));
  X509_gmtime_adj(X509_getm_notAfter(x), valid_seconds);
  X509_set_pubkey(x, key);
  X509_NAME* name = X509_get_subject_name(x);
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>(common_name), -1, -1, 0);
  X509_set_issuer_name(x, name);
  add_extension(x, NID_basic_constraints, "critical,CA:TRUE");
  add_extension(x, NID_subject_alt_name, names.c_str());
  add_extension(x, NID_subject_key_identifier, "hash");
  require(X509_sign(x, key, EVP_sha256()) > 0, "signing the certificate");
  return certificate;
}

std::string text_of(BIO* memory) {
  char* text = nullptr;
  const long length = BIO_get_mem_data(memory, &text);
  return std::string(text, static_cast<std::size_t>(length));
}

std::string pem_of(X509* certificate, EVP_PKEY* key) {
  const Memory memory(BIO_new(BIO_s_mem()), &BIO_free);
  require(memory && PEM_write_bio_X509(memory.get(), certificate) == 1, "PEM");
  require(!key || PEM_write_bio_PrivateKey(memory.get(), key, nullptr, nullptr, 0, nullptr, nullptr) == 1, "PEM");
  return text_of(memory.get());
}

} // namespace

Ssl_Ctx make_server_context(const std::string& names, long valid_seconds, bool client_certificate, std::string& pem,
                            std::string& client_pem) {
  const Key key(EVP_EC_gen("P-256"), &EVP_PKEY_free);
  const Key client_key(EVP_EC_gen("P-256"), &EVP_PKEY_free);
  require(key && client_key, "key");
  const Certificate certificate = make_certificate(key.get(), "localhost", names, valid_seconds);
  const Certificate client = make_certificate(client_key.get(), "client", "DNS:client", 24 * 3600);
  pem = pem_of(certificate.get(), nullptr);
  client_pem = pem_of(client.get(), client_key.get());

  Ssl_Ctx context(SSL_CTX_new(TLS_server_method()), &SSL_CTX_free);
  require(context && SSL_CTX_use_certificate(context.get(), certificate.get()) == 1 &&
              SSL_CTX_use_PrivateKey(context.get(), key.get()) == 1,
          "server context");
  SSL_CTX_set_min_proto_version(context.get(), TLS1_2_VERSION);
  if (client_certificate) {
    require(X509_STORE_add_cert(SSL_CTX_get_cert_store(context.get()), client.get()) == 1, "client certificate");
    SSL_CTX_set_verify(context.get(), SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
  }
  return context;
}

} // namespace s3_testing
