#include "platform/crypto/base64.h"

#include <openssl/evp.h>

#include <climits>

std::string to_base64(const std::string& data) {
  std::string text((data.size() + 2) / 3 * 4 + 1, '\0');
  const int length =
      EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()),
                      reinterpret_cast<const unsigned char*>(data.data()), static_cast<int>(data.size()));
  text.resize(static_cast<size_t>(length));
  return text;
}

bool from_base64(const std::string& text, std::string& data) {
  if (text.empty() || text.size() % 4 != 0 || text.size() > INT_MAX)
    return false;
  data.assign(text.size() / 4 * 3, '\0');
  if (EVP_DecodeBlock(reinterpret_cast<unsigned char*>(data.data()),
                      reinterpret_cast<const unsigned char*>(text.data()), static_cast<int>(text.size())) < 0)
    return false;
  for (size_t i = text.size(); i > text.size() - 2 && text[i - 1] == '='; --i)
    data.pop_back();
  return to_base64(data) == text;
}

std::string to_hex(const unsigned char* data, size_t size) {
  std::string text;
  text.reserve(2 * size);
  for (size_t i = 0; i < size; ++i) {
    text.push_back("0123456789abcdef"[data[i] >> 4]);
    text.push_back("0123456789abcdef"[data[i] & 15]);
  }
  return text;
}

bool from_hex(const std::string& text, std::string& data) {
  const auto digit = [](char c) { return c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1; };
  data.clear();
  for (size_t i = 0; i + 1 < text.size(); i += 2) {
    const int high = digit(text[i]);
    const int low = digit(text[i + 1]);
    if (high < 0 || low < 0)
      return false;
    data.push_back(static_cast<char>(high << 4 | low));
  }
  return text.size() % 2 == 0;
}
