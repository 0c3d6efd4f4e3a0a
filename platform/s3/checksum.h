#pragma once

#include <string>
#include <string_view>

namespace s3 {

/// The checksum of `data` as services write it, in base64: `algorithm` is "crc32", "crc32c", "crc64nvme", "sha1" or
/// "sha256"; empty for any other. Any thread.
std::string checksum(std::string_view algorithm, std::string_view data);
bool knows_checksum(std::string_view algorithm);

} // namespace s3
