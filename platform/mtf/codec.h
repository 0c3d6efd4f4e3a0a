#pragma once

#include "platform/mtf/object_stream.h"

/// Turns chunks of content into frames and back. No state: the libraries' working memory belongs to the calling
/// thread and is kept for its next call. Any thread.
class Codec {
public:
  /// Whether frames of this kind can be made and read here; else `error` says what is missing.
  static bool available(Frame_Method method, std::string& error);
  /// The most bytes that a compressed chunk of `size` bytes may take before it is known not to pay.
  static size_t bound(Frame_Method method, size_t size);
  /// Compresses `size` bytes (at most CHUNK) into `out`, which holds bound() bytes; 0 when the codec fails.
  static size_t compress(Frame_Method method, int level, const char* data, size_t size, char* out);
  /// Fills exactly `plain` bytes at `out`, or is false: what is stored is no such chunk.
  static bool decompress(Frame_Method method, const char* data, size_t size, char* out, size_t plain);
  static Frame_Method method(MTF_Compression compression);
};

/// Makes the segments of one object's OBSZ streams and decides whether to compress at all.
class Frame_Writer {
public:
  Frame_Writer(const Codec_Options& options, uint64_t size) : options_(options), size_(size) {}

  /// Whether content of this size is worth a trial.
  bool wanted() const { return options_.compression != MTF_COMPRESSION_NONE && size_ != 0; }
  /// Appends the next chunk as a segment to `out`, which begins at a multiple of 4 of the medium and ends at one
  /// afterwards. `check` is the chunk's own. False when memory is short.
  bool append(std::string& out, const char* data, size_t size, uint64_t check);
  /// Whether what was appended so far saves enough to keep it. Asked behind the first chunk, which decides how the
  /// whole object is stored: so an object gets the same bytes whether it lies in memory or streams.
  bool pays() const;

private:
  Codec_Options options_;
  uint64_t size_;
  uint64_t plain_ = 0;
  uint64_t stored_ = 0;
  uint32_t sequence_ = 0;
};
