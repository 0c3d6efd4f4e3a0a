#include "platform/mtf/sealed_stream.h"

#include <xxhash.h>

#include <new>

void append_private_stream(std::string& out, uint32_t id, const Object_Seal* seal, std::string_view data) {
  if (seal == nullptr)
    return append_stream(out, id, data);
  append_stream_header(out, id, MTF_Format::STREAM_ENCRYPTED, data.size() + SEALED_OVERHEAD);
  const size_t begin = out.size();
  out.append(data.size() + SEALED_OVERHEAD, '\0');
  unsigned char* const at = bytes_at(out, begin);
  put16(at, SEALED_VERSION);
  put32(at + 4, static_cast<uint32_t>(data.size()));
  const std::string_view fixed(out.data() + begin, SEALED_FIXED);
  if (!seal->seal(id, 0, fixed, data.data(), data.size(), at + SEALED_FIXED, at + SEALED_FIXED + data.size()))
    throw std::bad_alloc();
  const size_t covered = SEALED_FIXED + data.size() + AEAD_TAG;
  put64(at + covered, XXH3_64bits(at, covered));
}

bool sealed_stream_holds(std::string_view data, std::string& error) {
  const unsigned char* const at = bytes_of(data);
  if (data.size() < SEALED_OVERHEAD || get64(at + data.size() - 8) != XXH3_64bits(at, data.size() - 8)) {
    error = "an encrypted stream does not match its check";
    return false;
  }
  if (get16(at) != SEALED_VERSION || get16(at + 2) != 0 || get32(at + 4) != data.size() - SEALED_OVERHEAD) {
    error = "an encrypted stream of an unknown version, or one that contradicts itself";
    return false;
  }
  return true;
}

bool open_private_stream(uint32_t id, const Object_Seal* seal, std::string_view data, std::string& plain,
                         std::string_view& opened, std::string& error) {
  if (seal == nullptr) {
    opened = data;
    return true;
  }
  if (!sealed_stream_holds(data, error))
    return false;
  const unsigned char* const at = bytes_of(data);
  const size_t size = data.size() - SEALED_OVERHEAD;
  plain.resize(size);
  if (!seal->open(id, 0, data.substr(0, SEALED_FIXED), at + SEALED_FIXED, size, plain.data(),
                  at + SEALED_FIXED + size)) {
    error = "the encrypted stream " + four_text(id) + " is not the one that was written with this object";
    return false;
  }
  opened = plain;
  return true;
}
