#pragma once

#include "platform/crypto/set_cipher.h"
#include "sdk/mtf/file_attributes.h"
#include "sdk/mtf/mtf_backup.h"

#include <string>

/// What is stored about an object beside its content. Also what a catalog is rebuilt from.
struct Object_Head {
  std::string path;                ///< "bucket/key": bytes
  unsigned long long ordinal = 0;  ///< place in the set's listing, from 1
  unsigned long long size = 0;     ///< bytes of the content
  long long mtime = 0;             ///< seconds since the epoch
  unsigned seq = 0;                ///< the set's sequence number
  unsigned flags = 0;              ///< see Object_Flag
  MTF::File_Attributes attributes; ///< what else belongs to it; empty: nothing is known
};

enum Object_Flag : unsigned {
  /// By the service's own clock the object was modified less than two seconds before it was read: another one of the
  /// same size may have the same date.
  OBJECT_FRESH = 1,
  /// On the media of a merged set: it is none of that set's objects; catalogs of other sets point to it.
  OBJECT_OF_OTHERS = 2
};

struct Codec_Options {
  MTF_Compression compression = MTF_COMPRESSION_NONE;
  int level = 1;
  Set_Cipher_ptr cipher = nullptr; ///< of an encrypted set; null: nothing is encrypted
};

/// An object made ready for a medium in memory: its FILE block with all streams, lacking only what depends on the
/// place. Encoding (hashing, compressing) is the expensive part and runs on whatever thread read the object.
class Object_Image {
public:
  /// Builds the image of `head` with the content `data`, whose length is `head.size`. False when memory is short or
  /// the codec is missing; `error` says which.
  bool encode(const Object_Head& head, const char* data, const Codec_Options& codec, std::string& error);

  const Object_Head& head() const { return head_; }
  const unsigned char* sha256() const { return sha256_; }
  /// What it was encrypted with; null: it was not.
  const Set_Cipher_ptr& cipher() const { return cipher_; }
  std::string& bytes() { return bytes_; }
  /// Bytes of memory that the image holds.
  size_t footprint() const { return bytes_.capacity() + sizeof *this; }

private:
  Object_Head head_;
  unsigned char sha256_[32] = {};
  Set_Cipher_ptr cipher_;
  std::string bytes_;
};
