#pragma once

#include "platform/crypto/master_key.h"
#include "sdk/json/json_spirit.h"

#include <string>

/// What the key of an encrypted pool is locked with. Wipes itself.
class Pool_Secret {
public:
  enum Kind { PASSPHRASE, KEY_FILE };
  static constexpr size_t LEAST_PASSPHRASE = 8;
  static constexpr size_t LEAST_KEY_FILE = 32;
  static constexpr size_t MOST = 1u << 20;

  Pool_Secret() = default;
  /// Takes the bytes over.
  Pool_Secret(Kind kind, std::string bytes) : kind_(kind), bytes_(std::move(bytes)) {}
  Pool_Secret(Pool_Secret&&) = default;
  Pool_Secret& operator=(Pool_Secret&&) = default;
  ~Pool_Secret();

  /// Reads it from a file, or from standard input for "-". A line end behind a passphrase does not count; a key file
  /// counts byte by byte. False with the reason, also when it is too short to protect anything.
  bool read(Kind kind, const std::string& path, std::string& error);
  Kind kind() const { return kind_; }
  const std::string& bytes() const { return bytes_; }

private:
  Kind kind_ = PASSPHRASE;
  std::string bytes_;
};

/// What deriving a key from a passphrase costs: 128 * n * r bytes of memory.
struct Scrypt_Cost {
  unsigned long long n = 1u << 17;
  unsigned r = 8;
  unsigned p = 1;
};

/// The key of a pool, locked, as it stands in the pool's file: kind of the secret, parameters, salt and the wrapped
/// key. Bound to the pool's uuid. False with the reason.
bool lock_pool_key(const Secret_Key& key, const std::string& pool_uuid, const Pool_Secret& secret,
                   const Scrypt_Cost& cost, json_spirit::Object& locked, std::string& error);
/// Unlocks it. False with the reason, which tells a wrong secret from damage.
bool unlock_pool_key(const json_spirit::Object& locked, const std::string& pool_uuid, const Pool_Secret& secret,
                     Secret_Key& key, std::string& error);
