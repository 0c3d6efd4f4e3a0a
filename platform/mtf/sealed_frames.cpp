#include "platform/mtf/sealed_frames.h"

#include <xxhash.h>

#include <cstring>
#include <new>

using namespace MTF_Format;

namespace {

/// Of the header, what is encrypted with the frame: version, method, sequence and sizes. Its checks are made from them.
constexpr size_t BOUND = 16;

/// The bound part of the header, and whether the frame is the last.
struct Frame_Bound {
  Frame_Bound(const unsigned char* header, bool last) {
    std::memcpy(bytes, header, BOUND);
    bytes[BOUND] = last ? 1 : 0;
  }
  std::string_view view() const { return std::string_view(bytes, sizeof bytes); }
  char bytes[BOUND + 1];
};

} // namespace

Sealed_Frames::Sealed_Frames(const Codec_Options& options, uint64_t size, const Object_Seal& seal)
    : method_(Codec::method(options.compression)), level_(options.level),
      strict_(options.compression == MTF_COMPRESSION_AUTO), size_(size), seal_(seal) {}

bool Sealed_Frames::pays(size_t plain, size_t stored) const {
  return stored != 0 && (strict_ ? stored <= plain - plain / 10 : stored < plain);
}

bool Sealed_Frames::append(std::string& out, const char* data, size_t size) {
  Frame frame;
  frame.sealed = true;
  frame.method = method_;
  frame.sequence = sequence_++;
  frame.plain = static_cast<uint32_t>(size);
  frame.stored = frame.plain;
  const bool last = done_ + size == size_;
  try {
    append_stream_header(out, OBSX, 0, 0);
    const size_t header = out.size();
    const size_t payload = header + FRAME_HEADER;
    const char* source = data;
    if (method_ != FRAME_STORED && size != 0) {
      out.resize(payload + Codec::bound(method_, size) + AEAD_TAG);
      const size_t stored = Codec::compress(method_, level_, data, size, out.data() + payload);
      if (frame.sequence == 0 && !pays(size, stored))
        method_ = FRAME_STORED;
      if (stored != 0 && stored < size && method_ != FRAME_STORED) {
        frame.stored = static_cast<uint32_t>(stored);
        source = out.data() + payload;
      }
    }
    if (source == data)
      frame.method = FRAME_STORED;
    const size_t sealed = frame.stored + AEAD_TAG;
    // Grows at most as far as above, so that `source` stays.
    out.resize(payload + sealed);
    frame.put(bytes_at(out, header));
    const Frame_Bound bound(bytes_at(out, header), last);
    if (!seal_.seal(OBSX, frame.sequence, bound.view(), source, frame.stored, out.data() + payload,
                    bytes_at(out, payload + frame.stored)))
      return false;
    frame.stored_check = XXH3_64bits(out.data() + payload, sealed);
    frame.put(bytes_at(out, header));
    put_stream_header(bytes_at(out, header - STREAM_HEADER), OBSX,
                      static_cast<uint16_t>(STREAM_VARIABLE | STREAM_ENCRYPTED | (last ? STREAM_VARIABLE_END : 0)),
                      FRAME_HEADER + sealed);
    pad_to(out, STREAM_ALIGNMENT);
    done_ += size;
  } catch (const std::bad_alloc&) {
    return false;
  }
  return true;
}

bool open_sealed_frame(const Object_Seal& seal, const Frame& frame, bool last, const unsigned char* header,
                       unsigned char* out) {
  const Frame_Bound bound(header, last);
  return seal.open(OBSX, frame.sequence, bound.view(), header + FRAME_HEADER, frame.stored, out,
                   header + FRAME_HEADER + frame.stored);
}
