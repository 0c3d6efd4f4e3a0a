#include "platform/crypto/secret.h"

#include "platform/crypto/base64.h"
#include "platform/crypto/master_key.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <cstring>
#include <memory>

namespace {

constexpr const char PREFIX[] = "obs1:";
constexpr size_t PREFIX_SIZE = sizeof PREFIX - 1;
constexpr size_t CHECK_SIZE = 8;
constexpr size_t NONCE_SIZE = 12;
constexpr size_t TAG_SIZE = 16;
constexpr size_t OVERHEAD = CHECK_SIZE + NONCE_SIZE + TAG_SIZE;
constexpr size_t MAX_SECRET = 1u << 20;

typedef std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> Cipher_Ctx;

unsigned char* bytes(std::string& text) {
  return reinterpret_cast<unsigned char*>(text.data());
}
const unsigned char* bytes(const std::string& text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}

/// Tells keys apart without saying anything useful about them.
bool master_key_check(const Secret_Key& key, std::string& check) {
  static const std::string label = "obs-agent master key check";
  std::string input = label + std::string(reinterpret_cast<const char*>(key.data()), Secret_Key::SIZE);
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned size = 0;
  const bool good = EVP_Digest(input.data(), input.size(), digest, &size, EVP_sha256(), nullptr) == 1;
  OPENSSL_cleanse(input.data(), input.size());
  check.assign(reinterpret_cast<const char*>(digest), CHECK_SIZE);
  return good;
}

/// AES-256-GCM in either direction; `tag` is written or checked.
bool crypt(bool seal, const Secret_Key& key, const std::string& aad, const std::string& nonce, const std::string& in,
           std::string& out, std::string& tag) {
  const Cipher_Ctx ctx(EVP_CIPHER_CTX_new(), &EVP_CIPHER_CTX_free);
  int length = 0;
  int rest = 0;
  out.assign(in.size(), '\0');
  tag.resize(TAG_SIZE);
  unsigned char end[EVP_MAX_BLOCK_LENGTH];
  return ctx && EVP_CipherInit_ex(ctx.get(), EVP_aes_256_gcm(), nullptr, key.data(), bytes(nonce), seal ? 1 : 0) == 1 &&
         EVP_CipherUpdate(ctx.get(), nullptr, &length, bytes(aad), static_cast<int>(aad.size())) == 1 &&
         (in.empty() ||
          EVP_CipherUpdate(ctx.get(), bytes(out), &length, bytes(in), static_cast<int>(in.size())) == 1) &&
         (seal || EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_AEAD_SET_TAG, static_cast<int>(TAG_SIZE), tag.data()) == 1) &&
         EVP_CipherFinal_ex(ctx.get(), end, &rest) == 1 &&
         (!seal || EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_AEAD_GET_TAG, static_cast<int>(TAG_SIZE), tag.data()) == 1);
}

} // namespace

bool seal_secret(const std::string& plain, std::string& sealed, std::string& error) {
  if (plain.empty() || plain.size() > MAX_SECRET) {
    error = plain.empty() ? "the secret is empty" : "the secret is too long";
    return false;
  }
  Secret_Key key;
  if (!load_master_key(true, key, error))
    return false;
  std::string check;
  std::string nonce(NONCE_SIZE, '\0');
  std::string cipher;
  std::string tag;
  if (!master_key_check(key, check) || RAND_bytes(bytes(nonce), static_cast<int>(NONCE_SIZE)) != 1 ||
      !crypt(true, key, PREFIX + check, nonce, plain, cipher, tag)) {
    error = "the secret cannot be sealed: the cryptographic library failed";
    return false;
  }
  sealed = PREFIX + to_base64(check + nonce + cipher + tag);
  return true;
}

bool open_secret(const std::string& sealed, std::string& plain, std::string& error) {
  std::string data;
  if (sealed.compare(0, PREFIX_SIZE, PREFIX) != 0 || !from_base64(sealed.substr(PREFIX_SIZE), data) ||
      data.size() <= OVERHEAD || data.size() > MAX_SECRET + OVERHEAD) {
    error = "the stored secret is no sealed text, or it is damaged";
    return false;
  }
  Secret_Key key;
  if (!load_master_key(false, key, error))
    return false;
  std::string check;
  if (!master_key_check(key, check)) {
    error = "the secret cannot be opened: the cryptographic library failed";
    return false;
  }
  const std::string nonce = data.substr(CHECK_SIZE, NONCE_SIZE);
  const std::string cipher = data.substr(CHECK_SIZE + NONCE_SIZE, data.size() - OVERHEAD);
  std::string tag = data.substr(data.size() - TAG_SIZE);
  std::string opened;
  if (crypt(false, key, PREFIX + data.substr(0, CHECK_SIZE), nonce, cipher, opened, tag)) {
    plain.swap(opened);
    return true;
  }
  OPENSSL_cleanse(opened.data(), opened.size());
  error = data.compare(0, CHECK_SIZE, check) == 0
              ? "the stored secret is damaged"
              : "the stored secret was sealed under another master key than the one in " + key_folder();
  return false;
}
