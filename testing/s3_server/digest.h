#pragma once

#include <string>
#include <string_view>

namespace s3_testing {

// Digests as raw bytes, unless the name says otherwise.
std::string md5(std::string_view data);
std::string sha256(std::string_view data);
std::string hmac_sha256(std::string_view key, std::string_view data);
std::string hmac_sha1(std::string_view key, std::string_view data);

// Lower-case hexadecimal.
std::string to_hex(std::string_view bytes);
std::string to_base64(std::string_view bytes);

} // namespace s3_testing
