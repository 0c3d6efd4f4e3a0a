#include "platform/mtf/codec_lzop/codec_lzop.h"

#include <lzo/lzo1x.h>

namespace {

size_t bound(size_t size) {
  return size + size / 16 + 64 + 3;
}

size_t compress(const char* data, size_t size, char* out, void* work) {
  lzo_uint written = 0;
  const int result = lzo1x_1_compress(reinterpret_cast<const unsigned char*>(data), size,
                                      reinterpret_cast<unsigned char*>(out), &written, work);
  return result == LZO_E_OK ? written : 0;
}

bool decompress(const char* data, size_t size, char* out, size_t plain) {
  lzo_uint written = plain;
  const int result = lzo1x_decompress_safe(reinterpret_cast<const unsigned char*>(data), size,
                                           reinterpret_cast<unsigned char*>(out), &written, nullptr);
  return result == LZO_E_OK && written == plain;
}

} // namespace

extern "C" __attribute__((visibility("default"))) const Codec_Lzop* agent_codec_lzop() {
  static const bool ready = lzo_init() == LZO_E_OK;
  static const Codec_Lzop codec = {CODEC_LZOP_VERSION, LZO1X_1_MEM_COMPRESS, bound, compress, decompress};
  return ready ? &codec : nullptr;
}
