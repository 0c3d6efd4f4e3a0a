#pragma once

#include <cstddef>

/// Bytes of the UTF-8 character at `at`, which lies before `end` (RFC 3629: no overlong forms, no surrogates, nothing
/// beyond U+10FFFF); 0 when there is none.
size_t utf8_length(const unsigned char* at, const unsigned char* end);
