#pragma once

#include <string>
#include <string_view>

namespace s3 {

/// All but RFC 3986's unreserved characters become %XX; "/" stays where `keep_slash`.
std::string percent_encode(std::string_view bytes, bool keep_slash);
/// %XX becomes the byte, "+" a space where `plus_is_space`. False, with `out` undefined, for a malformed escape or a
/// character that an encoder would not have left (a space, a control character, a byte above 127).
bool percent_decode(std::string_view text, bool plus_is_space, std::string& out);

} // namespace s3
