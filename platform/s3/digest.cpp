#include "platform/s3/digest.h"

#include <openssl/evp.h>

#include <memory>

namespace s3 {
namespace {

struct Md_Free {
  void operator()(EVP_MD* md) const { EVP_MD_free(md); }
};
struct Md_Ctx_Free {
  void operator()(EVP_MD_CTX* ctx) const { EVP_MD_CTX_free(ctx); }
};
typedef std::unique_ptr<EVP_MD, Md_Free> Md_ptr;
typedef std::unique_ptr<EVP_MD_CTX, Md_Ctx_Free> Md_Ctx_ptr;

/// Fetching an algorithm costs more than hashing a request with it, so it is done once.
const EVP_MD* sha256_md() {
  static const Md_ptr md(EVP_MD_fetch(nullptr, "SHA256", nullptr));
  return md.get();
}
const EVP_MD* sha1_md() {
  static const Md_ptr md(EVP_MD_fetch(nullptr, "SHA1", nullptr));
  return md.get();
}
const EVP_MD* md5_md() {
  static const Md_ptr md(EVP_MD_fetch(nullptr, "MD5", nullptr));
  return md.get();
}

std::string digest(const EVP_MD* md, std::string_view first, std::string_view second = {}) {
  thread_local const Md_Ctx_ptr ctx(EVP_MD_CTX_new());
  unsigned char out[EVP_MAX_MD_SIZE];
  unsigned size = 0;
  if (!md || !ctx || EVP_DigestInit_ex2(ctx.get(), md, nullptr) != 1 ||
      EVP_DigestUpdate(ctx.get(), first.data(), first.size()) != 1 ||
      EVP_DigestUpdate(ctx.get(), second.data(), second.size()) != 1 || EVP_DigestFinal_ex(ctx.get(), out, &size) != 1)
    return std::string();
  return std::string(reinterpret_cast<const char*>(out), size);
}

/// RFC 2104 over a hash of 64-byte blocks.
std::string hmac(const EVP_MD* md, std::string_view key, std::string_view data) {
  constexpr size_t BLOCK = 64;
  std::string inner(key.size() > BLOCK ? digest(md, key) : std::string(key));
  inner.resize(BLOCK, '\0');
  std::string outer(inner);
  for (size_t i = 0; i < BLOCK; ++i) {
    inner[i] = static_cast<char>(inner[i] ^ 0x36);
    outer[i] = static_cast<char>(outer[i] ^ 0x5c);
  }
  return digest(md, outer, digest(md, inner, data));
}

} // namespace

std::string sha256(std::string_view data) {
  return digest(sha256_md(), data);
}
std::string md5(std::string_view data) {
  return digest(md5_md(), data);
}
std::string hmac_sha256(std::string_view key, std::string_view data) {
  return hmac(sha256_md(), key, data);
}
std::string hmac_sha1(std::string_view key, std::string_view data) {
  return hmac(sha1_md(), key, data);
}

std::string to_hex(std::string_view bytes) {
  static const char digits[] = "0123456789abcdef";
  std::string out;
  out.reserve(bytes.size() * 2);
  for (const char c : bytes) {
    out.push_back(digits[static_cast<unsigned char>(c) >> 4]);
    out.push_back(digits[static_cast<unsigned char>(c) & 15]);
  }
  return out;
}

std::string to_base64(std::string_view bytes) {
  static const char digits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  for (size_t i = 0; i < bytes.size(); i += 3) {
    const size_t left = bytes.size() - i;
    const unsigned a = static_cast<unsigned char>(bytes[i]);
    const unsigned b = left > 1 ? static_cast<unsigned char>(bytes[i + 1]) : 0;
    const unsigned c = left > 2 ? static_cast<unsigned char>(bytes[i + 2]) : 0;
    out.push_back(digits[a >> 2]);
    out.push_back(digits[(a & 3) << 4 | b >> 4]);
    out.push_back(left > 1 ? digits[(b & 15) << 2 | c >> 6] : '=');
    out.push_back(left > 2 ? digits[c & 63] : '=');
  }
  return out;
}

} // namespace s3
