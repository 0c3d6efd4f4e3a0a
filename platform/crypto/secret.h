#pragma once

#include <string>

/// Seals a secret for the agent's database with AES-256-GCM under the master key, which is made at first use:
///
///     "obs1:" base64( key check 8 | nonce 12 | cipher text | tag 16 )
///
/// "obs1:" and the key check (the first bytes of a SHA-256 over the key) are authenticated with it. Sealing the same
/// secret twice gives two texts. False with the reason.
bool seal_secret(const std::string& plain, std::string& sealed, std::string& error);

/// Opens what `seal_secret` made. False with the reason: no sealed text, sealed under another master key, damaged, or
/// the key is missing or unsafe. The reason holds no part of the secret.
bool open_secret(const std::string& sealed, std::string& plain, std::string& error);
