#pragma once

#include <cstddef>

/// What the codec's shared object exports, by one symbol, `agent_codec_lzop`. It is loaded when it is there: the
/// library behind it stands under another licence than the rest.
struct Codec_Lzop {
  unsigned version; ///< CODEC_LZOP_VERSION
  size_t work_size; ///< bytes of working memory that `compress` needs
  /// The most bytes that `size` bytes can become.
  size_t (*bound)(size_t size);
  /// Bytes written to `out`, or 0 on failure.
  size_t (*compress)(const char* data, size_t size, char* out, void* work);
  /// True when exactly `plain` bytes came out; never writes beyond them.
  bool (*decompress)(const char* data, size_t size, char* out, size_t plain);
};
constexpr unsigned CODEC_LZOP_VERSION = 1;
