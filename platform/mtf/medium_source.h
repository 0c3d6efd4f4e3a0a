#pragma once

#include "platform/mtf/dblk.h"
#include "platform/mtf/medium_blocks.h"
#include "platform/mtf/object_stream.h"

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <vector>

/// An open medium file. Any number of threads may read at the same time.
class Medium_Source {
public:
  ~Medium_Source();
  /// Null with the reason. `cipher`: of the set, when it is encrypted and its key is known.
  static std::shared_ptr<Medium_Source> open(const std::string& path, std::string& error,
                                             const Set_Cipher_ptr& cipher = nullptr);
  /// Fills `size` bytes from `offset`. False with the reason; what lies behind the end is a failure too.
  bool read(unsigned long long offset, unsigned char* buffer, size_t size, std::string& error) const;
  /// Whether a read has failed, by any thread, so that what was taken for damage may be none.
  bool failed() const { return failed_; }
  unsigned long long size() const { return size_; }
  const std::string& path() const { return path_; }
  const Set_Cipher* cipher() const { return cipher_.get(); }

  /// Path, place and size of a read; false from it makes the read fail, as a bad disk does.
  typedef std::function<bool(const std::string&, unsigned long long, size_t)> Watch;
  /// For tests of what is read, and in which order: `told` of every read, by all threads, until it is null again. Not
  /// while a medium is being read.
  static void watch(const Watch* told) { watch_ = told; }

private:
  static const Watch* watch_;
  int fd_ = -1;
  mutable std::atomic<bool> failed_{false};
  unsigned long long size_ = 0;
  std::string path_;
  Set_Cipher_ptr cipher_;
};

/// A piece of a medium in memory that moves on with what is asked for: whoever asks in order reads no byte twice. One
/// thread.
class Medium_Window {
public:
  /// `ahead`: bytes that are read at once at least, where the medium has them.
  Medium_Window(const Medium_Source& source, size_t ahead) : source_(source), ahead_(ahead) {}
  /// The `size` bytes at `offset`, valid until the next call; null, with `error` set, when the medium has not so
  /// many, or cannot be read (`failed`).
  const unsigned char* at(unsigned long long offset, size_t size);
  /// Nothing behind `end` is read ahead any more; what is asked for is read all the same.
  void limit(unsigned long long end) { limit_ = end; }
  /// Whether the bytes from `offset` on to `end` are in memory.
  bool holds(unsigned long long offset, unsigned long long end) const {
    return offset >= begin_ && end <= begin_ + used_;
  }
  bool failed() const { return failed_; }
  const std::string& error() const { return error_; }
  const Medium_Source& source() const { return source_; }

private:
  const Medium_Source& source_;
  size_t ahead_;
  std::vector<unsigned char> bytes_;
  unsigned long long begin_ = 0;
  unsigned long long limit_ = ~0ull;
  size_t used_ = 0;
  bool failed_ = false;
  std::string error_;
};

/// A stream as it lies on the medium.
struct Medium_Stream {
  Stream_Header header;
  unsigned long long offset = 0; ///< of its header
  unsigned long long data() const { return offset + MTF_Format::STREAM_HEADER; }
  /// Where the next stream header stands.
  unsigned long long next() const { return (data() + header.length + 3) / 4 * 4; }
};

/// Reads the stream header at `offset`, aligned. False with the reason, when its checksum does not hold or its data
/// leave the medium.
bool read_stream(Medium_Window& window, unsigned long long offset, Medium_Stream& stream, std::string& error);
/// Reads the block header at `offset` and checks what every block of these media must hold: checksum, address, the
/// place of its streams. False with the reason.
bool read_block(Medium_Window& window, unsigned long long offset, Dblk_Header& header, std::string& error);
/// Whether all `size` bytes at `offset` are zero; `bad` is the first that is not.
bool all_zero(Medium_Window& window, unsigned long long offset, unsigned long long size, unsigned long long& bad);
/// The name in a block's field of UTF-16, by the tape address at `field`; empty when it leads outside `size`.
std::string name_in_block(const unsigned char* block, size_t size, unsigned field);

/// What stands in front of an object's content.
struct Object_Start {
  Object_Head head;
  Head_Stream stream;
  Medium_Stream head_stream;       ///< OBSH
  unsigned long long head_end = 0; ///< behind the head stream's data
  Medium_Stream attributes;        ///< OBSA; its offset is 0 where the object has none
  std::string attributes_problem;  ///< why they cannot be read; empty: they can, or there are none
  Medium_Stream content;           ///< STAN, or the first OBSZ or OBSX
  bool block_holds = true;         ///< the FILE block matches the check in the head stream
  std::string block_problem;       ///< why it does not
};
/// Reads FILE block and head stream. When the block itself is damaged the head stream is looked for behind it.
/// False with the reason.
bool read_object_start(Medium_Window& window, unsigned long long offset, Object_Start& start, std::string& error);
/// What stands behind an object's content.
struct Object_End {
  Object_Digest digest; ///< empty when the object is encrypted and its key is not known
  Medium_Stream digest_stream;
  unsigned long long digest_end = 0; ///< behind the digest stream's data
  Medium_Stream padding;
  unsigned long long end = 0; ///< where the next block begins
};
/// Reads the digest stream at `offset`, compares it with the head, and finds the end of the object's streams.
bool read_object_end(Medium_Window& window, unsigned long long offset, const Object_Start& start, Object_End& end,
                     std::string& error);
