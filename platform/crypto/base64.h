#pragma once

#include <string>

/// RFC 4648 with padding, one line.
std::string to_base64(const std::string& data);
/// Takes exactly what `to_base64` writes: one text for one value, so that no character can change unnoticed. False for
/// anything else, the empty text too.
bool from_base64(const std::string& text, std::string& data);

/// Small hexadecimal digits.
std::string to_hex(const unsigned char* data, size_t size);
/// False for an odd number of digits and for anything but small digits.
bool from_hex(const std::string& text, std::string& data);
