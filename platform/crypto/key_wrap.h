#pragma once

#include "platform/crypto/master_key.h"

#include <string>

enum class Unwrap_Outcome {
  GOOD,
  WRONG_KEY, ///< the text is whole, and was wrapped under another key
  DAMAGED    ///< the text, or what it is bound to, is not what was written
};

/// Wraps `key` under another with AES-256-GCM, bound to `purpose`:
///
///     "obsk1:" base64( check of the wrapping key 8 | nonce 12 | key 32 | tag 16 | check of purpose and all before 8 )
///
/// Wrapping a key twice gives two texts. False when the library fails.
bool wrap_key(const Secret_Key& wrapping, const std::string& purpose, const Secret_Key& key, std::string& text);
Unwrap_Outcome unwrap_key(const Secret_Key& wrapping, const std::string& purpose, const std::string& text,
                          Secret_Key& key);

/// Eight bytes that tell keys apart and say nothing useful about them.
std::string key_check(const Secret_Key& key);
