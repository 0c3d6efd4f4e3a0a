#include "platform/crypto/aead.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

#include <climits>
#include <memory>

namespace {

struct Free_Context {
  void operator()(EVP_CIPHER_CTX* context) const { EVP_CIPHER_CTX_free(context); }
};

/// Fetched once: an implicit fetch for every message costs more than sealing a small one.
const EVP_CIPHER* cipher() {
  static EVP_CIPHER* const aes_256_gcm = EVP_CIPHER_fetch(nullptr, "AES-256-GCM", nullptr);
  return aes_256_gcm;
}

EVP_CIPHER_CTX* context() {
  thread_local const std::unique_ptr<EVP_CIPHER_CTX, Free_Context> own(EVP_CIPHER_CTX_new());
  return own.get();
}

/// Everything but the tag.
bool crypt(EVP_CIPHER_CTX* ctx, bool seal, const Secret_Key& key, const unsigned char* nonce, std::string_view aad,
           const void* in, size_t size, void* out) {
  int length = 0;
  return ctx != nullptr && cipher() != nullptr && size <= AEAD_MOST && aad.size() <= AEAD_MOST &&
         EVP_CipherInit_ex2(ctx, cipher(), key.data(), nonce, seal ? 1 : 0, nullptr) == 1 &&
         (aad.empty() || EVP_CipherUpdate(ctx, nullptr, &length, reinterpret_cast<const unsigned char*>(aad.data()),
                                          static_cast<int>(aad.size())) == 1) &&
         (size == 0 || EVP_CipherUpdate(ctx, static_cast<unsigned char*>(out), &length,
                                        static_cast<const unsigned char*>(in), static_cast<int>(size)) == 1);
}

} // namespace

bool aead_seal(const Secret_Key& key, const unsigned char nonce[AEAD_NONCE], std::string_view aad, const void* in,
               size_t size, void* out, unsigned char tag[AEAD_TAG]) {
  EVP_CIPHER_CTX* const ctx = context();
  unsigned char end[EVP_MAX_BLOCK_LENGTH];
  int length = 0;
  return crypt(ctx, true, key, nonce, aad, in, size, out) && EVP_CipherFinal_ex(ctx, end, &length) == 1 &&
         EVP_CIPHER_CTX_ctrl(ctx, EVP_CTRL_AEAD_GET_TAG, static_cast<int>(AEAD_TAG), tag) == 1;
}

bool aead_open(const Secret_Key& key, const unsigned char nonce[AEAD_NONCE], std::string_view aad, const void* in,
               size_t size, void* out, const unsigned char tag[AEAD_TAG]) {
  EVP_CIPHER_CTX* const ctx = context();
  unsigned char end[EVP_MAX_BLOCK_LENGTH];
  int length = 0;
  if (crypt(ctx, false, key, nonce, aad, in, size, out) &&
      EVP_CIPHER_CTX_ctrl(ctx, EVP_CTRL_AEAD_SET_TAG, static_cast<int>(AEAD_TAG), const_cast<unsigned char*>(tag)) ==
          1 &&
      EVP_CipherFinal_ex(ctx, end, &length) == 1)
    return true;
  if (size != 0)
    OPENSSL_cleanse(out, size);
  return false;
}

bool derive_key(const Secret_Key& from, std::string_view info, Secret_Key& key) {
  std::string text(info);
  text.push_back('\1');
  unsigned size = 0;
  return HMAC(EVP_sha256(), from.data(), static_cast<int>(Secret_Key::SIZE),
              reinterpret_cast<const unsigned char*>(text.data()), text.size(), key.data(), &size) != nullptr &&
         size == Secret_Key::SIZE;
}

bool random_bytes(void* data, size_t size) {
  return size <= INT_MAX && RAND_priv_bytes(static_cast<unsigned char*>(data), static_cast<int>(size)) == 1;
}
