#pragma once

#include "platform/crypto/set_cipher.h"
#include "platform/mtf/codec.h"

/// Makes the OBSX streams of one object: its chunks, compressed where that pays, and encrypted. The first chunk decides
/// whether the rest is worth compressing. An empty object has one empty frame.
class Sealed_Frames {
public:
  /// `size` is that of the whole content. `seal` must outlive the frames.
  Sealed_Frames(const Codec_Options& options, uint64_t size, const Object_Seal& seal);

  /// Appends the next chunk; `out` begins at a multiple of 4 of the medium and ends at one afterwards. False when
  /// memory is short or the cryptographic library fails.
  bool append(std::string& out, const char* data, size_t size);

private:
  bool pays(size_t plain, size_t stored) const;

  Frame_Method method_;
  int level_;
  bool strict_; ///< only what saves a tenth is worth it
  uint64_t size_;
  const Object_Seal& seal_;
  uint64_t done_ = 0;
  uint32_t sequence_ = 0;
};

/// Opens one frame into `out`, which has room for `frame.stored` bytes. `header` is the frame's header as it lies on
/// the medium, the encrypted bytes and the tag behind it. False when it is not that frame of that object.
bool open_sealed_frame(const Object_Seal& seal, const Frame& frame, bool last, const unsigned char* header,
                       unsigned char* out);
