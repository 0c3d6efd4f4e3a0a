#include "platform/mtf/object_image.h"

#include "platform/mtf/codec.h"
#include "platform/mtf/sealed_frames.h"

#include <algorithm>
#include <new>

using namespace MTF_Format;

namespace {

/// Appends the content as frames; false when its first chunk says that plain storing is better.
bool append_frames(std::string& out, const Object_Head& head, const char* data, const Codec_Options& codec,
                   const std::vector<uint64_t>& chunks) {
  Frame_Writer frames(codec, head.size);
  if (!frames.wanted())
    return false;
  const size_t size = static_cast<size_t>(head.size);
  for (size_t at = 0; at < size; at += CHUNK) {
    if (!frames.append(out, data + at, std::min<size_t>(CHUNK, size - at), chunks[at / CHUNK]))
      throw std::bad_alloc();
    if (at == 0 && !frames.pays())
      return false;
  }
  return true;
}

/// The whole image, encrypted.
bool append_sealed(std::string& out, const Object_Head& head, const char* data, const Codec_Options& codec,
                   const unsigned char sha256[32], const std::vector<uint64_t>& chunks) {
  Object_Seal seal;
  if (!codec.cipher->new_object(head.ordinal, seal))
    return false;
  append_object_head(out, head, &seal);
  pad_to(out, STREAM_ALIGNMENT);
  append_attributes(out, head, &seal);
  Sealed_Frames frames(codec, head.size, seal);
  const size_t size = static_cast<size_t>(head.size);
  size_t at = 0;
  do {
    const size_t piece = std::min<size_t>(CHUNK, size - at);
    if (!frames.append(out, data + at, piece))
      return false;
    at += piece;
  } while (at < size);
  append_digest(out, head, sha256, chunks, &seal);
  return true;
}

} // namespace

bool Object_Image::encode(const Object_Head& head, const char* data, const Codec_Options& codec, std::string& error) {
  if (!Codec::available(Codec::method(codec.compression), error))
    return false;
  if (head.size > SIZE_MAX / 2) {
    error = "\"" + head.path + "\" is too large to be made ready in memory";
    return false;
  }
  try {
    const size_t size = static_cast<size_t>(head.size);
    Content_Digest& digest = thread_digest();
    if (!digest.begin()) {
      error = "the SHA-256 digest cannot be set up";
      return false;
    }
    digest.update(data, size);
    digest.finish(sha256_);

    head_ = head;
    bytes_.clear();
    bytes_.reserve(2 * FLB + head.path.size() + head.attributes.common.size() + head.attributes.own.size() + size +
                   CHECK * digest.chunks().size() + 512);
    cipher_ = codec.cipher;
    if (cipher_) {
      if (!append_sealed(bytes_, head, data, codec, sha256_, digest.chunks())) {
        bytes_ = std::string();
        error = "\"" + head.path + "\" cannot be encrypted: memory is short or the cryptographic library failed";
        return false;
      }
    } else {
      append_object_head(bytes_, head);
      pad_to(bytes_, STREAM_ALIGNMENT);
      append_attributes(bytes_, head);
      const size_t content = bytes_.size();
      if (!append_frames(bytes_, head, data, codec, digest.chunks())) {
        bytes_.resize(content);
        append_stream_header(bytes_, STAN, 0, size);
        bytes_.append(data, size);
      }
      append_digest(bytes_, head, sha256_, digest.chunks());
    }
    append_spad(bytes_, 0);
    // What compression saved is given back, so that the footprint tells what the image needs.
    if (bytes_.capacity() > bytes_.size() + bytes_.size() / 2 + 4 * FLB)
      bytes_.shrink_to_fit();
  } catch (const std::bad_alloc&) {
    bytes_ = std::string();
    error = "no memory for \"" + head.path + "\" with its " + std::to_string(head.size) + " bytes";
    return false;
  }
  return true;
}
