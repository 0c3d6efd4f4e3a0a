#pragma once

#include <string>
#include <string_view>

/// Digests as raw bytes; empty where the library refuses the algorithm. Any thread.
namespace s3 {

std::string sha256(std::string_view data);
std::string md5(std::string_view data);
std::string hmac_sha256(std::string_view key, std::string_view data);
std::string hmac_sha1(std::string_view key, std::string_view data);

/// Lower-case hexadecimal.
std::string to_hex(std::string_view bytes);
std::string to_base64(std::string_view bytes);

} // namespace s3
