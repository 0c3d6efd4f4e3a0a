#include "platform/base/utf8.h"

size_t utf8_length(const unsigned char* at, const unsigned char* end) {
  const unsigned char lead = *at;
  if (lead < 0x80)
    return 1;
  size_t length = 0;
  unsigned char low = 0x80;
  unsigned char high = 0xBF;
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    low = lead == 0xE0 ? 0xA0 : 0x80;
    high = lead == 0xED ? 0x9F : 0xBF;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    low = lead == 0xF0 ? 0x90 : 0x80;
    high = lead == 0xF4 ? 0x8F : 0xBF;
  } else {
    return 0;
  }
  if (static_cast<size_t>(end - at) < length || at[1] < low || at[1] > high)
    return 0;
  for (size_t i = 2; i < length; ++i)
    if ((at[i] & 0xC0) != 0x80)
      return 0;
  return length;
}
