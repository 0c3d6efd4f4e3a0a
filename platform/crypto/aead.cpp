#include "platform/crypto/aead.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <climits>
#include <cstring>
#include <memory>

namespace {

struct Free_Context {
  void operator()(EVP_CIPHER_CTX* context) const { EVP_CIPHER_CTX_free(context); }
  void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};

/// Fetched once: an implicit fetch for every message costs more than sealing a small one.
const EVP_CIPHER* cipher() {
  static EVP_CIPHER* const aes_256_gcm = EVP_CIPHER_fetch(nullptr, "AES-256-GCM", nullptr);
  return aes_256_gcm;
}

/// A thread's context, and the key that it is set up with: the parts of one object follow each other, and setting the
/// key up costs as much as sealing some hundred bytes.
struct Thread_Context {
  const std::unique_ptr<EVP_CIPHER_CTX, Free_Context> ctx{EVP_CIPHER_CTX_new()};
  Secret_Key key;
  bool ready = false;
  bool sealing = false;

  bool begin(bool seal, const Secret_Key& wanted, const unsigned char* nonce) {
    if (!ctx || cipher() == nullptr)
      return false;
    if (ready && sealing == seal && CRYPTO_memcmp(key.data(), wanted.data(), Secret_Key::SIZE) == 0)
      return EVP_CipherInit_ex2(ctx.get(), nullptr, nullptr, nonce, seal ? 1 : 0, nullptr) == 1;
    ready = EVP_CipherInit_ex2(ctx.get(), cipher(), wanted.data(), nonce, seal ? 1 : 0, nullptr) == 1;
    key = wanted;
    sealing = seal;
    return ready;
  }
};

Thread_Context& thread_context() {
  thread_local Thread_Context own;
  return own;
}

/// Everything but the tag.
bool crypt(Thread_Context& context, bool seal, const Secret_Key& key, const unsigned char* nonce, std::string_view aad,
           const void* in, size_t size, void* out) {
  int length = 0;
  EVP_CIPHER_CTX* const ctx = context.ctx.get();
  return size <= AEAD_MOST && aad.size() <= AEAD_MOST && context.begin(seal, key, nonce) &&
         (aad.empty() || EVP_CipherUpdate(ctx, nullptr, &length, reinterpret_cast<const unsigned char*>(aad.data()),
                                          static_cast<int>(aad.size())) == 1) &&
         (size == 0 || EVP_CipherUpdate(ctx, static_cast<unsigned char*>(out), &length,
                                        static_cast<const unsigned char*>(in), static_cast<int>(size)) == 1);
}

} // namespace

bool aead_seal(const Secret_Key& key, const unsigned char nonce[AEAD_NONCE], std::string_view aad, const void* in,
               size_t size, void* out, unsigned char tag[AEAD_TAG]) {
  Thread_Context& context = thread_context();
  EVP_CIPHER_CTX* const ctx = context.ctx.get();
  unsigned char end[EVP_MAX_BLOCK_LENGTH];
  int length = 0;
  return crypt(context, true, key, nonce, aad, in, size, out) && EVP_CipherFinal_ex(ctx, end, &length) == 1 &&
         EVP_CIPHER_CTX_ctrl(ctx, EVP_CTRL_AEAD_GET_TAG, static_cast<int>(AEAD_TAG), tag) == 1;
}

bool aead_open(const Secret_Key& key, const unsigned char nonce[AEAD_NONCE], std::string_view aad, const void* in,
               size_t size, void* out, const unsigned char tag[AEAD_TAG]) {
  Thread_Context& context = thread_context();
  EVP_CIPHER_CTX* const ctx = context.ctx.get();
  unsigned char end[EVP_MAX_BLOCK_LENGTH];
  int length = 0;
  if (crypt(context, false, key, nonce, aad, in, size, out) &&
      EVP_CIPHER_CTX_ctrl(ctx, EVP_CTRL_AEAD_SET_TAG, static_cast<int>(AEAD_TAG), const_cast<unsigned char*>(tag)) ==
          1 &&
      EVP_CipherFinal_ex(ctx, end, &length) == 1)
    return true;
  if (size != 0)
    OPENSSL_cleanse(out, size);
  return false;
}

// HMAC over info and a byte 1, with a context that is kept: the library's own one-shot form costs several times as much
// for every object.
bool derive_key(const Secret_Key& from, std::string_view info, Secret_Key& key) {
  static EVP_MD* const sha256 = EVP_MD_fetch(nullptr, "SHA256", nullptr);
  thread_local const std::unique_ptr<EVP_MD_CTX, Free_Context> context(EVP_MD_CTX_new());
  constexpr size_t BLOCK = 64;
  unsigned char pad[BLOCK];
  unsigned char inner[Secret_Key::SIZE];
  unsigned char outer[Secret_Key::SIZE];
  EVP_MD_CTX* const ctx = context.get();
  const unsigned char count = 1;
  const auto fill = [&](unsigned char with) {
    for (size_t i = 0; i < BLOCK; ++i)
      pad[i] = static_cast<unsigned char>((i < Secret_Key::SIZE ? from.data()[i] : 0) ^ with);
  };
  fill(0x36);
  bool good = ctx != nullptr && sha256 != nullptr && EVP_DigestInit_ex2(ctx, sha256, nullptr) == 1 &&
              EVP_DigestUpdate(ctx, pad, BLOCK) == 1 && EVP_DigestUpdate(ctx, info.data(), info.size()) == 1 &&
              EVP_DigestUpdate(ctx, &count, 1) == 1 && EVP_DigestFinal_ex(ctx, inner, nullptr) == 1;
  fill(0x5c);
  good = good && EVP_DigestInit_ex2(ctx, nullptr, nullptr) == 1 && EVP_DigestUpdate(ctx, pad, BLOCK) == 1 &&
         EVP_DigestUpdate(ctx, inner, sizeof inner) == 1 && EVP_DigestFinal_ex(ctx, outer, nullptr) == 1;
  if (good)
    std::memcpy(key.data(), outer, sizeof outer);
  OPENSSL_cleanse(pad, sizeof pad);
  OPENSSL_cleanse(inner, sizeof inner);
  OPENSSL_cleanse(outer, sizeof outer);
  return good;
}

bool random_bytes(void* data, size_t size) {
  return size <= INT_MAX && RAND_priv_bytes(static_cast<unsigned char*>(data), static_cast<int>(size)) == 1;
}
