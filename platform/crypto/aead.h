#pragma once

#include "platform/crypto/master_key.h"

#include <string>
#include <string_view>

// AES-256-GCM and the derivation of keys. Functions of values; any thread. The library's working memory belongs to the
// calling thread and is kept for its next call.

constexpr size_t AEAD_NONCE = 12;
constexpr size_t AEAD_TAG = 16;
/// The most bytes of one message, far below what one nonce may cover.
constexpr size_t AEAD_MOST = 1u << 30;

/// Encrypts `size` bytes to `out`, which may be `in`, and writes the tag. One key must never see a nonce twice: who
/// chooses it answers for that. False when the library fails or the message is too long.
bool aead_seal(const Secret_Key& key, const unsigned char nonce[AEAD_NONCE], std::string_view aad, const void* in,
               size_t size, void* out, unsigned char tag[AEAD_TAG]);
/// Decrypts. False, with `out` wiped, when key, nonce, `aad`, bytes and tag do not belong together.
bool aead_open(const Secret_Key& key, const unsigned char nonce[AEAD_NONCE], std::string_view aad, const void* in,
               size_t size, void* out, const unsigned char tag[AEAD_TAG]);

/// A key for the use that `info` names, of which nobody can find `from` or the key of another use (HKDF-Expand with
/// SHA-256, one block). False when the library fails.
bool derive_key(const Secret_Key& from, std::string_view info, Secret_Key& key);

/// Fills `size` bytes for use as key, salt or nonce. False when the system has no random numbers.
bool random_bytes(void* data, size_t size);
