#pragma once

#include <string>

/// Opens a secret key that the agent stored: AES-256-GCM under the master key of the state folder.
class OBS_SK_Decryptor {
public:
  explicit OBS_SK_Decryptor(const std::string& cipher_text);
  /// The plain key; empty when the text is no cipher text of ours, was tampered with, or the master key is another or
  /// missing.
  const std::string& str() const { return plain_; }

private:
  std::string plain_;
};
