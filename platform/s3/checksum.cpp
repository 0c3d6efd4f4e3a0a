#include "platform/s3/checksum.h"

#include "platform/s3/digest.h"

#include <openssl/evp.h>

#include <array>
#include <cstdint>

namespace s3 {
namespace {

/// A cyclic redundancy check of bytes with their lowest bit first, from all ones, its end inverted.
template <typename WORD, WORD POLYNOMIAL>
class Crc {
public:
  static std::string of(std::string_view data) {
    static const std::array<WORD, 256> table = make_table();
    WORD value = static_cast<WORD>(~WORD(0));
    for (const char c : data)
      value = static_cast<WORD>(table[(value ^ static_cast<unsigned char>(c)) & 0xFF] ^ (value >> 8));
    value = static_cast<WORD>(~value);
    std::string bytes;
    for (int shift = static_cast<int>(sizeof value) * 8 - 8; shift >= 0; shift -= 8)
      bytes.push_back(static_cast<char>(value >> shift & 0xFF));
    return bytes;
  }

private:
  static std::array<WORD, 256> make_table() {
    std::array<WORD, 256> table;
    for (unsigned i = 0; i < 256; ++i) {
      WORD value = i;
      for (int bit = 0; bit < 8; ++bit)
        value = (value & 1) != 0 ? static_cast<WORD>(value >> 1 ^ POLYNOMIAL) : static_cast<WORD>(value >> 1);
      table[i] = value;
    }
    return table;
  }
};

std::string sha1(std::string_view data) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned length = 0;
  if (EVP_Digest(data.data(), data.size(), digest, &length, EVP_sha1(), nullptr) != 1)
    return std::string();
  return std::string(reinterpret_cast<const char*>(digest), length);
}

} // namespace

bool knows_checksum(std::string_view algorithm) {
  return algorithm == "crc32" || algorithm == "crc32c" || algorithm == "crc64nvme" || algorithm == "sha1" ||
         algorithm == "sha256";
}

std::string checksum(std::string_view algorithm, std::string_view data) {
  if (algorithm == "crc32")
    return to_base64(Crc<uint32_t, 0xEDB88320u>::of(data));
  if (algorithm == "crc32c")
    return to_base64(Crc<uint32_t, 0x82F63B78u>::of(data));
  if (algorithm == "crc64nvme")
    return to_base64(Crc<uint64_t, 0x9A6C9329AC4BC9B5ull>::of(data));
  if (algorithm == "sha1")
    return to_base64(sha1(data));
  if (algorithm == "sha256")
    return to_base64(sha256(data));
  return std::string();
}

} // namespace s3
