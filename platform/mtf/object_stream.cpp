#include "platform/mtf/object_stream.h"

#include "platform/mtf/dblk_name.h"
#include "platform/mtf/sealed_stream.h"
#include "sdk/mtf/cat_blk.h"

#include <xxhash.h>

#include <algorithm>
#include <cstring>

using namespace MTF_Format;

namespace {

constexpr unsigned DIGEST_SHA256 = 1;
constexpr unsigned char METHOD_SEALED = 128;
constexpr unsigned HEAD_SALT = 16; ///< where the salt of an encrypted object stands
static_assert(HEAD_SALT + Object_Seal::SALT == HEAD_BLOCK_CHECK);

void put_check(unsigned char* data, size_t covered) {
  put64(data + covered, XXH3_64bits(data, covered));
}
bool check_holds(const unsigned char* data, size_t covered) {
  return get64(data + covered) == XXH3_64bits(data, covered);
}

constexpr uint32_t SEALED_HEAD_ATTRIBUTES = 1;

bool has_attributes(const Object_Head& head) {
  return !head.attributes.empty() &&
         head.attributes.common.size() + head.attributes.own.size() <= MAX_ATTRIBUTES_STREAM - ATTRIBUTES_FIXED - CHECK;
}

void append_sealed_head(std::string& out, const Object_Head& head, const Object_Seal& seal) {
  const Dblk_Name name = file_name_field(sealed_object_name(head.ordinal));
  Dblk_Builder block(out, FILE_, FILE_FIXED, STRINGS_UTF16);
  block.string(84, name.utf16);
  block.finish(0, 0);

  const size_t size = SEALED_HEAD_FIXED + head.path.size();
  append_stream_header(out, OBSH, STREAM_ENCRYPTED, HEAD_FIXED + size + AEAD_TAG + CHECK);
  const size_t begin = out.size();
  out.append(HEAD_FIXED + size + AEAD_TAG + CHECK, '\0');
  unsigned char* const at = bytes_at(out, begin);
  put16(at, SEALED_VERSION);
  put32(at + 4, static_cast<uint32_t>(size));
  put64(at + 8, head.ordinal);
  std::memcpy(at + HEAD_SALT, seal.salt(), Object_Seal::SALT);
  unsigned char* const plain = at + HEAD_FIXED;
  put64(plain, head.size);
  put64(plain + 8, static_cast<uint64_t>(head.mtime));
  put32(plain + 16, head.seq);
  put32(plain + 20, CHUNK);
  put32(plain + 24, has_attributes(head) ? SEALED_HEAD_ATTRIBUTES : 0);
  put32(plain + 28, head.flags);
  std::copy(head.path.begin(), head.path.end(), plain + SEALED_HEAD_FIXED);
  // The block's check comes later, with the place, and is no part of what is sealed.
  if (!seal.seal(OBSH, 0, std::string_view(out.data() + begin, HEAD_BLOCK_CHECK), plain, size, plain, plain + size))
    throw std::bad_alloc();
}

bool parse_sealed_head(const unsigned char* data, size_t size, const Set_Cipher* cipher, Object_Head& head,
                       Head_Stream& stream, std::string& error) {
  const size_t least = HEAD_FIXED + SEALED_HEAD_FIXED + AEAD_TAG + CHECK;
  const size_t sealed = size < least ? 0 : size - HEAD_FIXED - AEAD_TAG - CHECK;
  if (size < least || get32(data + 4) != sealed || get16(data + 2) != 0) {
    error = "the head stream contradicts itself";
    return false;
  }
  stream.sealed = true;
  head = Object_Head();
  head.ordinal = get64(data + 8);
  if (cipher == nullptr) {
    head.path = sealed_object_name(head.ordinal);
    return true;
  }
  std::string plain(sealed, '\0');
  if (!cipher->object(head.ordinal, data + HEAD_SALT, stream.seal) ||
      !stream.seal.open(OBSH, 0, std::string_view(reinterpret_cast<const char*>(data), HEAD_BLOCK_CHECK),
                        data + HEAD_FIXED, sealed, plain.data(), data + HEAD_FIXED + sealed)) {
    error = "the head of " + sealed_object_name(head.ordinal) + " was not written with this set";
    return false;
  }
  const unsigned char* const at = bytes_of(plain);
  if (get32(at + 20) != CHUNK) {
    error = "the head stream contradicts itself";
    return false;
  }
  head.size = get64(at);
  head.mtime = static_cast<long long>(get64(at + 8));
  head.seq = get32(at + 16);
  head.path.assign(plain, SEALED_HEAD_FIXED);
  head.flags = get32(at + 28);
  stream.attributes = (get32(at + 24) & SEALED_HEAD_ATTRIBUTES) != 0;
  stream.opened = true;
  return true;
}

} // namespace

std::string sealed_object_name(uint64_t ordinal) {
  return "object-" + std::to_string(ordinal);
}

void append_object_head(std::string& out, const Object_Head& head, const Object_Seal* seal) {
  if (seal != nullptr)
    return append_sealed_head(out, head, *seal);
  const size_t slash = head.path.rfind('/');
  const Dblk_Name name =
      file_name_field(std::string_view(head.path).substr(slash == std::string::npos ? 0 : slash + 1));
  Dblk_Builder block(out, FILE_, FILE_FIXED, STRINGS_UTF16);
  put64(block.at(12), head.size);
  MTF::time_to_mtf_date_time(head.mtime, block.at(56));
  MTF::time_to_mtf_date_time(head.mtime, block.at(61));
  MTF::time_to_mtf_date_time(head.mtime, block.at(71));
  block.string(84, name.utf16);
  block.finish(0, 0);

  append_stream_header(out, OBSH, 0, HEAD_FIXED + head.path.size() + CHECK);
  unsigned char fixed[HEAD_FIXED] = {};
  put16(fixed, STREAM_VERSION);
  put16(fixed + 2, static_cast<uint16_t>(head.flags));
  put32(fixed + 4, static_cast<uint32_t>(head.path.size()));
  put64(fixed + 8, head.ordinal);
  put64(fixed + 16, head.size);
  put64(fixed + 24, static_cast<uint64_t>(head.mtime));
  put32(fixed + 32, head.seq);
  put32(fixed + 36, CHUNK);
  out.append(reinterpret_cast<const char*>(fixed), sizeof fixed);
  out.append(head.path);
  out.append(CHECK, '\0');
}

void place_object(unsigned char* block, const Object_Place& place) {
  put64(block + 20, place.fla);
  put32(block + 36, place.control_id);
  put32(block + 76, place.directory_id);
  put32(block + 80, place.file_id);
  seal_dblk_header(block);
  const unsigned first = get16(block + 8);
  unsigned char* data = block + first + STREAM_HEADER;
  put64(data + HEAD_BLOCK_CHECK, block_check(block, first));
  put_check(data, HEAD_FIXED + get32(data + 4) + (get16(data) == SEALED_VERSION ? AEAD_TAG : 0));
}

bool parse_object_head(const unsigned char* data, size_t size, const Set_Cipher* cipher, Object_Head& head,
                       Head_Stream& stream, std::string& error) {
  stream.sealed = stream.opened = stream.attributes = false;
  if (size < HEAD_FIXED + CHECK || !check_holds(data, size - CHECK)) {
    error = "the head stream does not match its check";
    return false;
  }
  stream.block_check = get64(data + HEAD_BLOCK_CHECK);
  if (get16(data) == SEALED_VERSION)
    return parse_sealed_head(data, size, cipher, head, stream, error);
  if (get16(data) != STREAM_VERSION) {
    error = "the head stream has the unknown version " + std::to_string(get16(data));
    return false;
  }
  if (get32(data + 4) != size - HEAD_FIXED - CHECK || get32(data + 36) != CHUNK) {
    error = "the head stream contradicts itself";
    return false;
  }
  head.ordinal = get64(data + 8);
  head.size = get64(data + 16);
  head.mtime = static_cast<long long>(get64(data + 24));
  head.seq = get32(data + 32);
  head.flags = get16(data + 2);
  head.path.assign(reinterpret_cast<const char*>(data) + HEAD_FIXED, size - HEAD_FIXED - CHECK);
  return true;
}

// 0 version 2 | 2 zero 2 | 4 size of the common text 4 | 8 size of the own text 4 | 12 zero 4 | 16 ordinal 8
// 24 common text | own text | XXH3-64 of all before
void append_attributes(std::string& out, const Object_Head& head, const Object_Seal* seal) {
  const std::string& common = head.attributes.common;
  const std::string& own = head.attributes.own;
  if (!has_attributes(head))
    return;
  std::string data(ATTRIBUTES_FIXED, '\0');
  unsigned char* const at = bytes_at(data, 0);
  put16(at, STREAM_VERSION);
  put32(at + 4, static_cast<uint32_t>(common.size()));
  put32(at + 8, static_cast<uint32_t>(own.size()));
  put64(at + 16, head.ordinal);
  data += common;
  data += own;
  const size_t covered = data.size();
  data.append(CHECK, '\0');
  put_check(bytes_at(data, 0), covered);
  append_private_stream(out, OBSA, seal, data);
  pad_to(out, STREAM_ALIGNMENT);
}

bool parse_attributes(const unsigned char* data, size_t size, Object_Head& head, std::string& error) {
  if (size < ATTRIBUTES_FIXED + CHECK || !check_holds(data, size - CHECK)) {
    error = "the attributes stream does not match its check";
    return false;
  }
  if (get16(data) != STREAM_VERSION) {
    error = "the attributes stream has the unknown version " + std::to_string(get16(data));
    return false;
  }
  const uint64_t common = get32(data + 4), own = get32(data + 8);
  if (common + own != size - ATTRIBUTES_FIXED - CHECK || get64(data + 16) != head.ordinal) {
    error = "the attributes stream contradicts itself, or belongs to another object";
    return false;
  }
  const char* const text = reinterpret_cast<const char*>(data) + ATTRIBUTES_FIXED;
  head.attributes.common.assign(text, static_cast<size_t>(common));
  head.attributes.own.assign(text + common, static_cast<size_t>(own));
  return true;
}

void Frame::put(unsigned char* at, unsigned char version) const {
  at[0] = version;
  at[1] = static_cast<unsigned char>(method | (sealed ? METHOD_SEALED : 0));
  put16(at + 2, 0);
  put32(at + 4, sequence);
  put32(at + 8, plain);
  put32(at + 12, stored);
  put64(at + 16, stored_check);
  put64(at + 24, plain_check);
  put_check(at, 32);
}

bool Frame::parse(const unsigned char* at, std::string& error, unsigned char version) {
  if (!check_holds(at, 32)) {
    error = "a frame's header does not match its check";
    return false;
  }
  sealed = (at[1] & METHOD_SEALED) != 0;
  const unsigned kind = at[1] & ~METHOD_SEALED & 0xFFu;
  if (at[0] != version || kind > FRAME_LZO1X || get16(at + 2) != 0) {
    error = "a frame of an unknown kind";
    return false;
  }
  method = static_cast<Frame_Method>(kind);
  sequence = get32(at + 4);
  plain = get32(at + 8);
  stored = get32(at + 12);
  stored_check = get64(at + 16);
  plain_check = get64(at + 24);
  // Only the one frame of an empty object that is encrypted is empty.
  const bool empty = sealed && sequence == 0 && method == FRAME_STORED;
  if ((plain == 0 && !empty) || plain > CHUNK || (stored == 0 && !empty) || stored > plain ||
      (method == FRAME_STORED && stored != plain) || (sealed && plain_check != 0)) {
    error = "a frame's sizes cannot be";
    return false;
  }
  return true;
}

void Content_Digest::Free_Chunk_State::operator()(XXH3_state_s* state) const {
  XXH3_freeState(state);
}

Content_Digest::Content_Digest() : context_(EVP_MD_CTX_new()), state_(XXH3_createState()) {}
Content_Digest::~Content_Digest() = default;

bool Content_Digest::begin() {
  // Fetched once: the implicit fetch of EVP_sha256 costs more than hashing a small object.
  static EVP_MD* const sha256 = EVP_MD_fetch(nullptr, "SHA256", nullptr);
  chunks_.clear();
  in_chunk_ = 0;
  return context_ && state_ && sha256 != nullptr && EVP_DigestInit_ex2(context_.get(), sha256, nullptr) == 1;
}

void Content_Digest::update(const char* data, size_t size) {
  while (size != 0) {
    const size_t piece = std::min<size_t>(size, CHUNK - in_chunk_);
    EVP_DigestUpdate(context_.get(), data, piece);
    if (in_chunk_ == 0 && piece == CHUNK) {
      chunks_.push_back(XXH3_64bits(data, piece));
    } else {
      if (in_chunk_ == 0)
        XXH3_64bits_reset(state_.get());
      XXH3_64bits_update(state_.get(), data, piece);
      in_chunk_ += piece;
      if (in_chunk_ == CHUNK) {
        chunks_.push_back(XXH3_64bits_digest(state_.get()));
        in_chunk_ = 0;
      }
    }
    data += piece;
    size -= piece;
  }
}

void Content_Digest::update_checked(const char* data, size_t size, uint64_t check) {
  EVP_DigestUpdate(context_.get(), data, size);
  chunks_.push_back(check);
}

void Content_Digest::finish(unsigned char sha256[32]) {
  unsigned length = 0;
  EVP_DigestFinal_ex(context_.get(), sha256, &length);
  if (in_chunk_ != 0)
    chunks_.push_back(XXH3_64bits_digest(state_.get()));
  in_chunk_ = 0;
}

Content_Digest& thread_digest() {
  thread_local Content_Digest digest;
  return digest;
}

// 0 version 2 | 2 kind of digest 2 | 4 chunk size 4 | 8 size 8 | 16 chunks 4 | 20 zero 4 | 24 ordinal 8 | 32 SHA-256
// 64 chunk checks | XXH3-64 of all before
void append_digest(std::string& out, const Object_Head& head, const unsigned char sha256[32],
                   const std::vector<uint64_t>& chunks, const Object_Seal* seal) {
  const size_t covered = DIGEST_FIXED + CHECK * chunks.size();
  std::string data(covered + CHECK, '\0');
  unsigned char* at = bytes_at(data, 0);
  put16(at, STREAM_VERSION);
  put16(at + 2, DIGEST_SHA256);
  put32(at + 4, CHUNK);
  put64(at + 8, head.size);
  put32(at + 16, static_cast<uint32_t>(chunks.size()));
  put64(at + 24, head.ordinal);
  std::memcpy(at + 32, sha256, 32);
  for (size_t i = 0; i < chunks.size(); ++i)
    put64(at + DIGEST_FIXED + CHECK * i, chunks[i]);
  put_check(at, covered);
  append_private_stream(out, OBSD, seal, data);
}

bool Object_Digest::parse(const unsigned char* data, size_t length, std::string& error) {
  if (length < DIGEST_FIXED + CHECK || !check_holds(data, length - CHECK)) {
    error = "the digest stream does not match its check";
    return false;
  }
  if (get16(data) != STREAM_VERSION || get16(data + 2) != DIGEST_SHA256) {
    error = "the digest stream is of an unknown version or kind";
    return false;
  }
  size = get64(data + 8);
  ordinal = get64(data + 24);
  const uint64_t count = get32(data + 16);
  if (get32(data + 4) != CHUNK || count != chunk_count(size) || length != DIGEST_FIXED + CHECK * (count + 1)) {
    error = "the digest stream contradicts itself";
    return false;
  }
  std::memcpy(sha256, data + 32, 32);
  chunks.resize(static_cast<size_t>(count));
  for (size_t i = 0; i < chunks.size(); ++i)
    chunks[i] = get64(data + DIGEST_FIXED + CHECK * i);
  return true;
}
