#include "testing/s3_server/digest.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>

namespace s3_testing {
namespace {

std::string digest(const EVP_MD* type, std::string_view data) {
  unsigned char out[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_Digest(data.data(), data.size(), out, &length, type, nullptr);
  return {reinterpret_cast<const char*>(out), length};
}

std::string hmac(const EVP_MD* type, std::string_view key, std::string_view data) {
  unsigned char out[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  HMAC(type, key.data(), static_cast<int>(key.size()), reinterpret_cast<const unsigned char*>(data.data()), data.size(),
       out, &length);
  return {reinterpret_cast<const char*>(out), length};
}

} // namespace

std::string md5(std::string_view data) {
  return digest(EVP_md5(), data);
}
std::string sha256(std::string_view data) {
  return digest(EVP_sha256(), data);
}
std::string hmac_sha256(std::string_view key, std::string_view data) {
  return hmac(EVP_sha256(), key, data);
}
std::string hmac_sha1(std::string_view key, std::string_view data) {
  return hmac(EVP_sha1(), key, data);
}

std::string to_hex(std::string_view bytes) {
  static const char digits[] = "0123456789abcdef";
  std::string out;
  out.reserve(bytes.size() * 2);
  for (unsigned char c : bytes) {
    out += digits[c >> 4];
    out += digits[c & 15];
  }
  return out;
}

std::string to_base64(std::string_view bytes) {
  std::string out((bytes.size() + 2) / 3 * 4 + 1, '\0');
  const int length =
      EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                      reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<int>(bytes.size()));
  out.resize(static_cast<std::size_t>(length));
  return out;
}

} // namespace s3_testing
