#include "platform/crypto/key_wrap.h"

#include "platform/crypto/aead.h"
#include "platform/crypto/base64.h"

#include <openssl/evp.h>

#include <cstring>

namespace {

const std::string PREFIX = "obsk1:";
constexpr size_t CHECK_SIZE = 8;
constexpr size_t SIZE = CHECK_SIZE + AEAD_NONCE + Secret_Key::SIZE + AEAD_TAG + CHECK_SIZE;

const unsigned char* bytes(const std::string& text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}

/// Of what was written, against damage; no secret is in it.
std::string check_of(const std::string& purpose, const std::string& data) {
  const std::string all = PREFIX + purpose + '\0' + data;
  unsigned char digest[EVP_MAX_MD_SIZE] = {};
  unsigned size = 0;
  EVP_Digest(all.data(), all.size(), digest, &size, EVP_sha256(), nullptr);
  return std::string(reinterpret_cast<const char*>(digest), CHECK_SIZE);
}

} // namespace

std::string key_check(const Secret_Key& key) {
  Secret_Key derived;
  derive_key(key, "obs-agent key check", derived);
  return std::string(reinterpret_cast<const char*>(derived.data()), CHECK_SIZE);
}

bool wrap_key(const Secret_Key& wrapping, const std::string& purpose, const Secret_Key& key, std::string& text) {
  unsigned char nonce[AEAD_NONCE];
  unsigned char sealed[Secret_Key::SIZE];
  unsigned char tag[AEAD_TAG];
  Secret_Key own;
  if (!random_bytes(nonce, sizeof nonce) || !derive_key(wrapping, "obs-agent key wrap", own) ||
      !aead_seal(own, nonce, purpose, key.data(), Secret_Key::SIZE, sealed, tag))
    return false;
  std::string data = key_check(wrapping);
  data.append(reinterpret_cast<const char*>(nonce), sizeof nonce);
  data.append(reinterpret_cast<const char*>(sealed), sizeof sealed);
  data.append(reinterpret_cast<const char*>(tag), sizeof tag);
  text = PREFIX + to_base64(data + check_of(purpose, data));
  return true;
}

Unwrap_Outcome unwrap_key(const Secret_Key& wrapping, const std::string& purpose, const std::string& text,
                          Secret_Key& key) {
  std::string data;
  if (text.compare(0, PREFIX.size(), PREFIX) != 0 || !from_base64(text.substr(PREFIX.size()), data) ||
      data.size() != SIZE)
    return Unwrap_Outcome::DAMAGED;
  const std::string check = data.substr(SIZE - CHECK_SIZE);
  data.resize(SIZE - CHECK_SIZE);
  if (check_of(purpose, data) != check)
    return Unwrap_Outcome::DAMAGED;
  if (data.compare(0, CHECK_SIZE, key_check(wrapping)) != 0)
    return Unwrap_Outcome::WRONG_KEY;
  const unsigned char* const nonce = bytes(data) + CHECK_SIZE;
  const unsigned char* const sealed = nonce + AEAD_NONCE;
  Secret_Key own, opened;
  if (!derive_key(wrapping, "obs-agent key wrap", own) ||
      !aead_open(own, nonce, purpose, sealed, Secret_Key::SIZE, opened.data(), sealed + Secret_Key::SIZE))
    return Unwrap_Outcome::DAMAGED;
  key = opened;
  return Unwrap_Outcome::GOOD;
}
