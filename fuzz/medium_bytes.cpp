#include "fuzz/medium_bytes.h"

#include "fuzz/fuzz_cipher.h"
#include "platform/mtf/object_stream.h"
#include "platform/mtf/sealed_stream.h"

#include <cstring>
#include <xxhash.h>

using namespace MTF_Format;

namespace {

constexpr unsigned SIZE_FIELD = 4; ///< of a head, sealed or not, and of any other sealed stream
constexpr unsigned HEAD_ORDINAL = 8;
constexpr unsigned HEAD_SALT = 16;
constexpr unsigned COPY_GUARDED = 2;
constexpr unsigned GUARD = 4;

void seal(unsigned char* data, size_t covered) {
  put64(data + covered, XXH3_64bits(data, covered));
}

/// The streams of one block.
class Streams {
public:
  Streams(std::string& input, size_t block, size_t first) : input_(input), block_(block), first_(first) {}

  void mend() {
    for (size_t at = block_ + first_; at + STREAM_HEADER <= input_.size();) {
      unsigned char* const header = bytes_at(input_, at);
      const uint64_t length = get64(header + 8);
      const size_t data = at + STREAM_HEADER;
      put16(header + 20, xor_words(header, 10));
      if (length > input_.size() - data || get32(header) == SPAD)
        return;
      mend_data(get32(header), get16(header + 6), header + STREAM_HEADER, static_cast<size_t>(length), data);
      at = (data + static_cast<size_t>(length) + 3) / 4 * 4;
    }
  }

private:
  void mend_data(uint32_t id, unsigned attributes, unsigned char* bytes, size_t size, size_t place) {
    switch (id) {
    case OBSC:
      if (size == CHECK)
        put64(bytes, block_check(bytes_at(input_, block_), first_));
      break;
    case OBSH:
      mend_head(bytes, size);
      break;
    case OBSZ:
      if (size >= FRAME_HEADER) {
        put64(bytes + 16, XXH3_64bits(bytes + FRAME_HEADER, size - FRAME_HEADER));
        seal(bytes, FRAME_HEADER - CHECK);
      }
      break;
    case OBSX:
      mend_sealed_frame(bytes, size, (attributes & STREAM_VARIABLE_END) != 0);
      break;
    case OBSR:
    case OBSL:
      mend_copy(id, bytes, size, place);
      break;
    case OBSA:
    case OBSD:
      if (have_seal_ && size >= SEALED_OVERHEAD) {
        put32(bytes + SIZE_FIELD, static_cast<uint32_t>(size - SEALED_OVERHEAD));
        retag(id, 0, std::string(bytes, bytes + SEALED_FIXED), bytes + SEALED_FIXED, size - SEALED_OVERHEAD, true);
      }
      [[fallthrough]];
    case OBSI:
    case OBSK:
    case OBST:
      if (size > CHECK)
        seal(bytes, size - CHECK);
      break;
    case OBSN:
      mend_path(bytes, size);
      break;
    default:
      break;
    }
  }

  void mend_head(unsigned char* bytes, size_t size) {
    if (size < HEAD_FIXED + CHECK)
      return;
    if (get16(bytes) == SEALED_VERSION && size >= HEAD_FIXED + AEAD_TAG + CHECK) {
      const size_t sealed = size - HEAD_FIXED - AEAD_TAG - CHECK;
      put32(bytes + SIZE_FIELD, static_cast<uint32_t>(sealed));
      have_seal_ = fuzz_cipher()->object(get64(bytes + HEAD_ORDINAL), bytes + HEAD_SALT, seal_);
      retag(OBSH, 0, std::string(bytes, bytes + HEAD_BLOCK_CHECK), bytes + HEAD_FIXED, sealed, false);
    } else {
      put32(bytes + SIZE_FIELD, static_cast<uint32_t>(size - HEAD_FIXED - CHECK));
    }
    put64(bytes + HEAD_BLOCK_CHECK, block_check(bytes_at(input_, block_), first_));
    seal(bytes, size - CHECK);
  }

  void mend_sealed_frame(unsigned char* bytes, size_t size, bool last) {
    if (size < FRAME_HEADER + AEAD_TAG || !have_seal_)
      return;
    const size_t stored = size - FRAME_HEADER - AEAD_TAG;
    put32(bytes + 12, static_cast<uint32_t>(stored));
    std::string bound(bytes, bytes + 16);
    bound.push_back(last ? 1 : 0);
    retag(OBSX, get32(bytes + 4), bound, bytes + FRAME_HEADER, stored, false);
    put64(bytes + 16, XXH3_64bits(bytes + FRAME_HEADER, size - FRAME_HEADER));
    seal(bytes, FRAME_HEADER - CHECK);
  }

  /// What is sealed is the plain text and a stream of bytes that depends on the key alone: sealing it once more shows
  /// the plain text as the mutation has changed it, and that one gets its tag.
  void retag(uint32_t id, uint32_t index, const std::string& bound, unsigned char* bytes, size_t size, bool checked) {
    std::string plain(size, '\0');
    unsigned char tag[AEAD_TAG];
    if (!have_seal_ || !seal_.seal(id, index, bound, bytes, size, plain.data(), tag))
      return;
    if (checked && size > CHECK)
      seal(bytes_at(plain, 0), size - CHECK);
    seal_.seal(id, index, bound, plain.data(), size, bytes, bytes + size);
  }

  void mend_copy(uint32_t id, unsigned char* bytes, size_t size, size_t place) {
    if (size < FRAME_HEADER)
      return;
    // The places that are no zeros put in.
    std::string plain;
    std::vector<size_t> places;
    for (size_t i = 0; i < size; ++i) {
      const size_t over = (place + i) % FLB;
      if (bytes[0] == COPY_GUARDED && over < GUARD && i >= over) {
        bytes[i] = 0;
      } else {
        plain.push_back(static_cast<char>(bytes[i]));
        places.push_back(i);
      }
    }
    unsigned char* const data = bytes_at(plain, 0);
    if (id == OBSR && plain.size() > CHECK) {
      seal(data, plain.size() - CHECK);
    } else if (id == OBSL && plain.size() >= FRAME_HEADER) {
      put32(data + 12, static_cast<uint32_t>(plain.size() - FRAME_HEADER));
      put64(data + 16, XXH3_64bits(data + FRAME_HEADER, plain.size() - FRAME_HEADER));
      seal(data, FRAME_HEADER - CHECK);
    }
    for (size_t i = 0; i < places.size(); ++i)
      bytes[places[i]] = data[i];
  }

  /// Digits, the last sixteen of them the check.
  static void mend_path(unsigned char* bytes, size_t size) {
    static const char digits[] = "0123456789abcdef";
    std::string path;
    if (size < 2 * CHECK || size % 2 != 0)
      return;
    for (size_t i = 0; i + 2 * CHECK < size; i += 2) {
      const char* const high = std::strchr(digits, bytes[i]);
      const char* const low = std::strchr(digits, bytes[i + 1]);
      if (bytes[i] == 0 || bytes[i + 1] == 0 || high == nullptr || low == nullptr)
        return;
      path.push_back(static_cast<char>((high - digits) << 4 | (low - digits)));
    }
    unsigned char check[CHECK];
    put64(check, XXH3_64bits(path.data(), path.size()));
    for (size_t i = 0; i < CHECK; ++i) {
      bytes[size - 2 * CHECK + 2 * i] = static_cast<unsigned char>(digits[check[i] >> 4]);
      bytes[size - 2 * CHECK + 2 * i + 1] = static_cast<unsigned char>(digits[check[i] & 15]);
    }
  }

  std::string& input_;
  const size_t block_, first_;
  Object_Seal seal_;
  bool have_seal_ = false;
};

} // namespace

void mend_medium(std::string& input) {
  for (size_t block = 0; block + DBLK_HEADER <= input.size(); block += FLB) {
    unsigned char* const at = bytes_at(input, block);
    if (!is_dblk_type(get32(at)))
      continue;
    const size_t first = get16(at + 8);
    seal_dblk_header(at);
    if (first >= DBLK_HEADER && first < FLB && block + first < input.size())
      Streams(input, block, first).mend();
  }
}

const std::vector<std::string>& medium_words() {
  static const std::vector<std::string> words = {"TAPE", "SSET", "VOLB", "DIRB", "FILE", "CFIL", "ESPB", "ESET",
                                                 "EOTM", "SFMB", "STAN", "SPAD", "OBSC", "OBSI", "OBSN", "OBSH",
                                                 "OBSA", "OBSZ", "OBSX", "OBSD", "OBST", "OBSK", "OBSR", "OBSL"};
  return words;
}
