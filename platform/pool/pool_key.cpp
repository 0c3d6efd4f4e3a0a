#include "platform/pool/pool_key.h"

#include "platform/crypto/aead.h"
#include "platform/crypto/base64.h"
#include "platform/crypto/key_wrap.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace {

using json_spirit::Object;

constexpr size_t SALT = 32;
/// A pool's file must not make its reader work or allocate without bounds.
constexpr unsigned long long MOST_MEMORY = 1ull << 30;
constexpr unsigned MOST_LANES = 64;

const char* name_of(Pool_Secret::Kind kind) {
  return kind == Pool_Secret::PASSPHRASE ? "passphrase" : "key-file";
}

unsigned char* bytes(std::string& text) {
  return reinterpret_cast<unsigned char*>(text.data());
}
const unsigned char* bytes(const std::string& text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}

/// The key that wraps the pool's key.
bool wrapping_key(const Pool_Secret& secret, const Scrypt_Cost& cost, const std::string& salt, Secret_Key& key,
                  std::string& error) {
  if (secret.kind() == Pool_Secret::KEY_FILE) {
    Secret_Key digest;
    if (EVP_Digest(secret.bytes().data(), secret.bytes().size(), digest.data(), nullptr, EVP_sha256(), nullptr) == 1 &&
        derive_key(digest, "obs-agent key file " + salt, key))
      return true;
    error = "the key file cannot be used: the cryptographic library failed";
    return false;
  }
  const unsigned long long memory = 128ull * cost.n * cost.r;
  if (EVP_PBE_scrypt(secret.bytes().data(), secret.bytes().size(), bytes(salt), salt.size(), cost.n, cost.r, cost.p,
                     memory + (32ull << 20), key.data(), Secret_Key::SIZE) == 1)
    return true;
  error = "no key can be made from the passphrase: it takes " + std::to_string(memory >> 20) + " MiB of memory";
  return false;
}

/// What the wrapped key is bound to: whatever changes here is told as damage.
std::string purpose_of(const std::string& pool_uuid, Pool_Secret::Kind kind, const Scrypt_Cost& cost,
                       const std::string& salt) {
  std::string text = "obs-agent pool key " + pool_uuid + " " + name_of(kind) + " ";
  if (kind == Pool_Secret::PASSPHRASE)
    text += std::to_string(cost.n) + " " + std::to_string(cost.r) + " " + std::to_string(cost.p) + " ";
  return text + to_hex(bytes(salt), salt.size());
}

unsigned long long number(const Object& json, const char* name) {
  const json_spirit::Value* value = json_spirit::find(json, name);
  if (value == nullptr)
    throw json_spirit::Type_Error(std::string("\"") + name + "\" is missing");
  return value->get_uint64();
}

/// Reads what `lock_pool_key` wrote. Throws for what cannot be.
void read_locked(const Object& locked, Pool_Secret::Kind& kind, Scrypt_Cost& cost, std::string& salt) {
  const std::string& name = json_spirit::require_str(locked, "kind");
  if (name != name_of(Pool_Secret::PASSPHRASE) && name != name_of(Pool_Secret::KEY_FILE))
    throw json_spirit::Type_Error("the kind \"" + name + "\" is not known");
  kind = name == name_of(Pool_Secret::PASSPHRASE) ? Pool_Secret::PASSPHRASE : Pool_Secret::KEY_FILE;
  if (!from_hex(json_spirit::require_str(locked, "salt"), salt) || salt.size() != SALT)
    throw json_spirit::Type_Error("the salt cannot be");
  if (kind == Pool_Secret::KEY_FILE)
    return;
  const unsigned long long r = number(locked, "scrypt_r");
  const unsigned long long p = number(locked, "scrypt_p");
  cost.n = number(locked, "scrypt_n");
  if (cost.n < 2 || (cost.n & (cost.n - 1)) != 0 || r == 0 || r > 1024 || p == 0 || p > MOST_LANES ||
      cost.n > MOST_MEMORY / 128 / r)
    throw json_spirit::Type_Error("the scrypt parameters cannot be");
  cost.r = static_cast<unsigned>(r);
  cost.p = static_cast<unsigned>(p);
}

} // namespace

Pool_Secret::~Pool_Secret() {
  if (!bytes_.empty())
    OPENSSL_cleanse(bytes_.data(), bytes_.size());
}

bool Pool_Secret::read(Kind kind, const std::string& path, std::string& error) {
  const std::string what = kind == PASSPHRASE ? "the passphrase" : "the key";
  const std::string where = path == "-" ? " on standard input" : " in '" + path + "'";
  const int fd = path == "-" ? ::dup(STDIN_FILENO) : ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  // Reserved at once: bytes that a growing text leaves behind would not be wiped.
  std::string text(MOST + 1, '\0');
  size_t size = 0;
  ssize_t got = fd < 0 ? -1 : 1;
  while (got > 0 && size < text.size()) {
    got = ::read(fd, text.data() + size, text.size() - size);
    if (got < 0 && errno == EINTR)
      got = 1;
    else if (got > 0)
      size += static_cast<size_t>(got);
  }
  const int code = errno;
  if (fd >= 0)
    ::close(fd);
  if (kind == PASSPHRASE && got >= 0)
    while (size != 0 && (text[size - 1] == '\n' || text[size - 1] == '\r'))
      --size;
  const size_t least = kind == PASSPHRASE ? LEAST_PASSPHRASE : LEAST_KEY_FILE;
  bool good = false;
  if (got < 0)
    error = what + where + " cannot be read: " + std::strerror(code);
  else if (size < least)
    error = what + where + " is too short: it must have " + std::to_string(least) + " bytes at least";
  else if (size > MOST)
    error = what + where + " is too long";
  else
    good = true;
  if (good) {
    kind_ = kind;
    bytes_.assign(text, 0, size);
  }
  OPENSSL_cleanse(text.data(), text.size());
  return good;
}

bool lock_pool_key(const Secret_Key& key, const std::string& pool_uuid, const Pool_Secret& secret,
                   const Scrypt_Cost& cost, Object& locked, std::string& error) {
  std::string salt(SALT, '\0');
  std::string wrapped;
  Secret_Key wrapping;
  if (!random_bytes(salt.data(), salt.size())) {
    error = "the system has no random numbers";
    return false;
  }
  if (!wrapping_key(secret, cost, salt, wrapping, error))
    return false;
  if (!wrap_key(wrapping, purpose_of(pool_uuid, secret.kind(), cost, salt), key, wrapped)) {
    error = "the pool's key cannot be locked: the cryptographic library failed";
    return false;
  }
  locked.clear();
  locked["kind"] = name_of(secret.kind());
  if (secret.kind() == Pool_Secret::PASSPHRASE) {
    locked["scrypt_n"] = cost.n;
    locked["scrypt_r"] = cost.r;
    locked["scrypt_p"] = cost.p;
  }
  locked["salt"] = to_hex(bytes(salt), salt.size());
  locked["wrapped"] = wrapped;
  return true;
}

bool unlock_pool_key(const Object& locked, const std::string& pool_uuid, const Pool_Secret& secret, Secret_Key& key,
                     std::string& error) {
  Pool_Secret::Kind kind = Pool_Secret::PASSPHRASE;
  Scrypt_Cost cost;
  std::string salt;
  try {
    read_locked(locked, kind, cost, salt);
    if (kind != secret.kind()) {
      error = std::string("the pool is locked with a ") +
              (kind == Pool_Secret::PASSPHRASE ? "passphrase, not with a key file" : "key file, not with a passphrase");
      return false;
    }
    Secret_Key wrapping;
    if (!wrapping_key(secret, cost, salt, wrapping, error))
      return false;
    switch (unwrap_key(wrapping, purpose_of(pool_uuid, kind, cost, salt), json_spirit::require_str(locked, "wrapped"),
                       key)) {
    case Unwrap_Outcome::GOOD:
      return true;
    case Unwrap_Outcome::WRONG_KEY:
      error = kind == Pool_Secret::PASSPHRASE ? "the passphrase is not the pool's" : "the key file is not the pool's";
      return false;
    default:
      error = "the pool's locked key is damaged";
      return false;
    }
  } catch (const std::exception& e) {
    error = std::string("the pool's locked key is damaged: ") + e.what();
    return false;
  }
}
