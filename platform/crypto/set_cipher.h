#pragma once

#include "platform/crypto/aead.h"
#include "platform/crypto/key_wrap.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

/// The key of one object of a sealed set, and of this one writing of it: an object that is written again gets another.
/// So the nonces, which only tell the parts of an object apart, never repeat under a key. A value; any thread.
class Object_Seal {
public:
  static constexpr size_t SALT = 24;

  const unsigned char* salt() const { return salt_; }
  /// Encrypts one part of the object: `size` bytes from `in` to `out`, which may be the same, and the tag. `stream` is
  /// the id of the stream that holds it and `index` its place among those of that id; no pair may come twice. `aad` is
  /// what else stands in clear and shall not change. False when the library fails.
  bool seal(uint32_t stream, uint32_t index, std::string_view aad, const void* in, size_t size, void* out,
            unsigned char tag[AEAD_TAG]) const;
  /// Decrypts it. False when it is not that part of that object of that set, unchanged.
  bool open(uint32_t stream, uint32_t index, std::string_view aad, const void* in, size_t size, void* out,
            const unsigned char tag[AEAD_TAG]) const;

private:
  friend class Set_Cipher;
  std::string bound(std::string_view aad) const;

  Secret_Key key_;
  unsigned char salt_[SALT] = {};
  std::string identity_; ///< set and ordinal
};

/// Seals and opens what a set holds. Every set of an encrypted pool has a random data key, which is kept wrapped under
/// the pool's key: in the set's record, and on its media. What is sealed under it is bound to the set's uuid.
/// Any thread.
class Set_Cipher {
public:
  /// With a new data key. Null with the reason.
  static std::shared_ptr<const Set_Cipher> make(const Secret_Key& pool_key, const std::string& set_uuid,
                                                std::string& error);
  /// From a wrapped data key. Null with the reason, which tells a wrong pool key from damage.
  static std::shared_ptr<const Set_Cipher> open(const Secret_Key& pool_key, const std::string& set_uuid,
                                                const std::string& wrapped, std::string& error);

  const std::string& set_uuid() const { return set_uuid_; }
  /// The data key as it is kept: a text of about 110 characters.
  const std::string& wrapped() const { return wrapped_; }

  /// For an object that is to be written. False when the library fails.
  bool new_object(uint64_t ordinal, Object_Seal& seal) const;
  /// For one that is to be read.
  bool object(uint64_t ordinal, const unsigned char salt[Object_Seal::SALT], Object_Seal& seal) const;

  /// A key for another use, told apart by `purpose` and `salt`.
  bool derive(std::string_view purpose, std::string_view salt, Secret_Key& key) const;

  /// A text of any bytes, sealed as base64 and bound to `purpose`, for members of the set's record. Sealing a text
  /// twice gives two. False when the library fails.
  bool seal_text(const std::string& purpose, const std::string& plain, std::string& sealed) const;
  /// False when it is no such text or was changed.
  bool open_text(const std::string& purpose, const std::string& sealed, std::string& plain) const;

private:
  Set_Cipher() = default;

  std::string set_uuid_;
  std::string wrapped_;
  Secret_Key key_;
  unsigned char salt_[Object_Seal::SALT - 8] = {}; ///< random, of this instance: no other gives the same salts
  mutable std::atomic<uint64_t> objects_{0};
};

typedef std::shared_ptr<const Set_Cipher> Set_Cipher_ptr;
