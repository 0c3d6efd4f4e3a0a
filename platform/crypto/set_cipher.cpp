#include "platform/crypto/set_cipher.h"

#include "platform/crypto/base64.h"

#include <cstring>

namespace {

constexpr size_t TEXT_SALT = 16;
const std::string TEXT_PREFIX = "obst1:";

void append64(std::string& text, uint64_t value) {
  for (unsigned shift = 0; shift < 64; shift += 8)
    text.push_back(static_cast<char>(value >> shift));
}

std::string identity_of(const std::string& set_uuid, uint64_t ordinal) {
  std::string text = set_uuid;
  text.push_back('\0');
  append64(text, ordinal);
  return text;
}

void make_nonce(uint32_t stream, uint32_t index, unsigned char nonce[AEAD_NONCE]) {
  std::memset(nonce, 0, AEAD_NONCE);
  for (unsigned i = 0; i < 4; ++i) {
    nonce[i] = static_cast<unsigned char>(stream >> 8 * i);
    nonce[4 + i] = static_cast<unsigned char>(index >> 8 * i);
  }
}

std::string purpose_of(const std::string& set_uuid) {
  return "obs-agent set data key " + set_uuid;
}

} // namespace

std::string Object_Seal::bound(std::string_view aad) const {
  std::string all;
  all.reserve(identity_.size() + aad.size());
  all.append(identity_).append(aad);
  return all;
}

bool Object_Seal::seal(uint32_t stream, uint32_t index, std::string_view aad, const void* in, size_t size, void* out,
                       unsigned char tag[AEAD_TAG]) const {
  unsigned char nonce[AEAD_NONCE];
  make_nonce(stream, index, nonce);
  return aead_seal(key_, nonce, bound(aad), in, size, out, tag);
}

bool Object_Seal::open(uint32_t stream, uint32_t index, std::string_view aad, const void* in, size_t size, void* out,
                       const unsigned char tag[AEAD_TAG]) const {
  unsigned char nonce[AEAD_NONCE];
  make_nonce(stream, index, nonce);
  return aead_open(key_, nonce, bound(aad), in, size, out, tag);
}

Set_Cipher_ptr Set_Cipher::make(const Secret_Key& pool_key, const std::string& set_uuid, std::string& error) {
  std::shared_ptr<Set_Cipher> cipher(new Set_Cipher);
  cipher->set_uuid_ = set_uuid;
  if (random_bytes(cipher->key_.data(), Secret_Key::SIZE) && random_bytes(cipher->salt_, sizeof cipher->salt_) &&
      wrap_key(pool_key, purpose_of(set_uuid), cipher->key_, cipher->wrapped_))
    return cipher;
  error = "no data key can be made for the set: the cryptographic library failed";
  return nullptr;
}

Set_Cipher_ptr Set_Cipher::open(const Secret_Key& pool_key, const std::string& set_uuid, const std::string& wrapped,
                                std::string& error) {
  std::shared_ptr<Set_Cipher> cipher(new Set_Cipher);
  cipher->set_uuid_ = set_uuid;
  cipher->wrapped_ = wrapped;
  switch (unwrap_key(pool_key, purpose_of(set_uuid), wrapped, cipher->key_)) {
  case Unwrap_Outcome::WRONG_KEY:
    error = "the set " + set_uuid + " was encrypted under the key of another pool";
    return nullptr;
  case Unwrap_Outcome::DAMAGED:
    error = "the data key of the set " + set_uuid + " is damaged";
    return nullptr;
  case Unwrap_Outcome::GOOD:
    break;
  }
  if (random_bytes(cipher->salt_, sizeof cipher->salt_))
    return cipher;
  error = "the system has no random numbers";
  return nullptr;
}

bool Set_Cipher::new_object(uint64_t ordinal, Object_Seal& seal) const {
  unsigned char salt[Object_Seal::SALT];
  const uint64_t number = objects_.fetch_add(1, std::memory_order_relaxed);
  std::memcpy(salt, salt_, sizeof salt_);
  for (unsigned i = 0; i < 8; ++i)
    salt[sizeof salt_ + i] = static_cast<unsigned char>(number >> 8 * i);
  return object(ordinal, salt, seal);
}

bool Set_Cipher::object(uint64_t ordinal, const unsigned char salt[Object_Seal::SALT], Object_Seal& seal) const {
  seal.identity_ = identity_of(set_uuid_, ordinal);
  std::memcpy(seal.salt_, salt, Object_Seal::SALT);
  std::string info = "object ";
  info.append(reinterpret_cast<const char*>(salt), Object_Seal::SALT).append(seal.identity_);
  return derive_key(key_, info, seal.key_);
}

bool Set_Cipher::derive(std::string_view purpose, std::string_view salt, Secret_Key& key) const {
  std::string info = "use ";
  info.append(purpose).push_back('\0');
  append64(info, salt.size());
  info.append(salt).append(set_uuid_);
  return derive_key(key_, info, key);
}

// "obst1:" base64( salt 16 | bytes | tag 16 ). Each text has a key of its own, so the nonce may be fixed.
bool Set_Cipher::seal_text(const std::string& purpose, const std::string& plain, std::string& sealed) const {
  const unsigned char nonce[AEAD_NONCE] = {};
  std::string data(TEXT_SALT + plain.size() + AEAD_TAG, '\0');
  Secret_Key key;
  if (!random_bytes(data.data(), TEXT_SALT) || !derive(purpose, std::string_view(data).substr(0, TEXT_SALT), key) ||
      !aead_seal(key, nonce, std::string_view(), plain.data(), plain.size(), data.data() + TEXT_SALT,
                 reinterpret_cast<unsigned char*>(data.data()) + TEXT_SALT + plain.size()))
    return false;
  sealed = TEXT_PREFIX + to_base64(data);
  return true;
}

bool Set_Cipher::open_text(const std::string& purpose, const std::string& sealed, std::string& plain) const {
  const unsigned char nonce[AEAD_NONCE] = {};
  std::string data;
  Secret_Key key;
  if (sealed.compare(0, TEXT_PREFIX.size(), TEXT_PREFIX) != 0 ||
      !from_base64(sealed.substr(TEXT_PREFIX.size()), data) || data.size() < TEXT_SALT + AEAD_TAG ||
      !derive(purpose, std::string_view(data).substr(0, TEXT_SALT), key))
    return false;
  std::string opened(data.size() - TEXT_SALT - AEAD_TAG, '\0');
  if (!aead_open(key, nonce, std::string_view(), data.data() + TEXT_SALT, opened.size(), opened.data(),
                 reinterpret_cast<const unsigned char*>(data.data()) + data.size() - AEAD_TAG))
    return false;
  plain.swap(opened);
  return true;
}
