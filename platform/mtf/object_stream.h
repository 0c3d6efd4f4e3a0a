#pragma once

#include "platform/mtf/dblk.h"
#include "platform/mtf/object_image.h"

#include <openssl/evp.h>

#include <memory>
#include <vector>

struct XXH3_state_s;

// The private streams of a FILE block: head (OBSH), attributes (OBSA), frames (OBSZ) and digest (OBSD). Layouts in
// doc/format/medium.md.

/// Bytes of content that one check covers, and that one frame holds at most.
constexpr unsigned CHUNK = 1024 * 1024;

constexpr unsigned STREAM_VERSION = 1;
constexpr unsigned HEAD_FIXED = 48;        ///< before the path, or before the encrypted part
constexpr unsigned SEALED_HEAD_FIXED = 32; ///< of the encrypted part, before the path
constexpr unsigned HEAD_BLOCK_CHECK = 40;  ///< where the check of the descriptor block stands
constexpr unsigned CHECK = 8;              ///< XXH3-64
constexpr unsigned FRAME_HEADER = 40;
constexpr unsigned DIGEST_FIXED = 64;     ///< before the chunk checks
constexpr unsigned ATTRIBUTES_FIXED = 24; ///< before the texts
/// Of the attributes stream: far above what services keep of an object.
constexpr uint64_t MAX_ATTRIBUTES_STREAM = 4ull * 1024 * 1024;
/// What readers elsewhere keep of one stream at most.
constexpr uint64_t MAX_PRIVATE_STREAM = 64ull * 1024 * 1024;

inline uint64_t chunk_count(uint64_t size) {
  return size / CHUNK + (size % CHUNK != 0 ? 1 : 0);
}

/// Appends the FILE block and its head stream to `out`, which is empty. What depends on the place is left zero. With a
/// `seal` the head is encrypted and the block tells the ordinal only. Throws std::bad_alloc.
void append_object_head(std::string& out, const Object_Head& head, const Object_Seal* seal = nullptr);
/// What the FILE block of an encrypted object, and a reader without the key, call it.
std::string sealed_object_name(uint64_t ordinal);
/// Where an object stands in the data set.
struct Object_Place {
  uint64_t fla = 0;
  uint32_t control_id = 0;
  uint32_t directory_id = 0;
  uint32_t file_id = 0;
};
/// Writes the place, and all checks that depend on it, into what append_object_head made.
void place_object(unsigned char* block, const Object_Place& place);

/// What stands in a head stream beside the head.
struct Head_Stream {
  uint64_t block_check = 0; ///< of the FILE block
  bool sealed = false;      ///< the object is encrypted
  bool opened = false;      ///< `seal` opens its streams, and the head is known
  bool attributes = false;  ///< the head, opened, says that an attributes stream follows
  Object_Seal seal;
};
/// Reads the data of a head stream. Without a cipher, the head of an encrypted object has its ordinal, and a substitute
/// of that for its path. False, with the reason, when its check does not hold or it contradicts itself, and when it is
/// no head of this set's.
bool parse_object_head(const unsigned char* data, size_t size, const Set_Cipher* cipher, Object_Head& head,
                       Head_Stream& stream, std::string& error);

/// Appends the attributes stream where there is something to tell; `out` begins at a multiple of 4 of the medium and
/// ends at one afterwards. What is too long for the stream is left out. Encrypted with a `seal`.
void append_attributes(std::string& out, const Object_Head& head, const Object_Seal* seal = nullptr);
/// Reads the data of an attributes stream into `head`, whose ordinal is known. False, with the reason, when its check
/// does not hold, it contradicts itself or belongs to another object.
bool parse_attributes(const unsigned char* data, size_t size, Object_Head& head, std::string& error);

enum Frame_Method : unsigned char { FRAME_STORED = 0, FRAME_ZSTD = 1, FRAME_LZO1X = 2 };

/// What stands before each frame's bytes.
struct Frame {
  bool sealed = false; ///< of an OBSX stream: encrypted, with a tag behind the stored bytes
  Frame_Method method = FRAME_STORED;
  uint32_t sequence = 0;     ///< from 0 in each object
  uint32_t plain = 0;        ///< bytes
  uint32_t stored = 0;       ///< bytes
  uint64_t stored_check = 0; ///< of the bytes behind the header
  uint64_t plain_check = 0;  ///< of an encrypted frame 0: it would tell something about the content

  /// Bytes behind the header.
  size_t behind() const { return stored + (sealed ? AEAD_TAG : 0); }
  void put(unsigned char* at, unsigned char version = STREAM_VERSION) const;
  /// Reads 40 bytes. False, with the reason, when the header's check does not hold, its sizes cannot be, or it is of
  /// another version than `version`.
  bool parse(const unsigned char* at, std::string& error, unsigned char version = STREAM_VERSION);
};

/// Digest and chunk checks of a content as it comes. One thread at a time; `begin` makes it ready for the next one.
class Content_Digest {
public:
  Content_Digest();
  ~Content_Digest();
  Content_Digest(const Content_Digest&) = delete;
  Content_Digest& operator=(const Content_Digest&) = delete;

  bool begin();
  void update(const char* data, size_t size);
  /// A whole chunk, or the last one, whose check is known.
  void update_checked(const char* data, size_t size, uint64_t check);
  /// Ends the content: the digest, and the check of the last chunk.
  void finish(unsigned char sha256[32]);
  const std::vector<uint64_t>& chunks() const { return chunks_; }

private:
  struct Free_Context {
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
  };
  struct Free_Chunk_State {
    void operator()(XXH3_state_s* state) const;
  };
  std::unique_ptr<EVP_MD_CTX, Free_Context> context_;
  std::unique_ptr<XXH3_state_s, Free_Chunk_State> state_;
  std::vector<uint64_t> chunks_;
  size_t in_chunk_ = 0;
};

/// A digest of the calling thread's own, for contents that are in memory as a whole.
Content_Digest& thread_digest();

/// What the digest stream says.
struct Object_Digest {
  uint64_t ordinal = 0;
  uint64_t size = 0;
  unsigned char sha256[32] = {};
  std::vector<uint64_t> chunks;

  /// Reads the data of a digest stream; as parse_object_head.
  bool parse(const unsigned char* data, size_t length, std::string& error);
};
/// Appends the digest stream, encrypted with a `seal`; `out` begins at a multiple of 4 of the medium. Throws
/// std::bad_alloc.
void append_digest(std::string& out, const Object_Head& head, const unsigned char sha256[32],
                   const std::vector<uint64_t>& chunks, const Object_Seal* seal = nullptr);
