#pragma once

#include "platform/mtf/backup_limits.h"
#include "sdk/mtf/backup_callback.h"
#include "sdk/mtf/file_attributes.h"

#include <openssl/evp.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

/// How reading one object of the source ended.
enum class Reading_Outcome {
  DONE,
  SKIPPED,  ///< it cannot be had: gone, or may not be read
  FAILED,   ///< what came is not the object as it was announced
  ABANDONED ///< the receiver of the bytes wants no more
};

/// Reads one object through a reader, holding it to what it announces: exactly as many bytes as its size, no fewer and
/// no more. Where the source breaks off, reading goes on from there, a bounded number of times without progress. One
/// thread at a time.
class Object_Reading {
public:
  Object_Reading(MTF::IFile_Reader_var reader, const Backup_Limits& limits) : reader_(reader), limits_(limits) {}
  ~Object_Reading() { close(); }
  Object_Reading(const Object_Reading&) = delete;
  Object_Reading& operator=(const Object_Reading&) = delete;

  /// Opens `path` ("bucket/key") and asks for its status. DONE, SKIPPED or FAILED. An answer that gives another size
  /// than `listed_size` counts only when a second one agrees with it, and never under the date that was listed: the
  /// object was replaced since, or the answer's length is wrong.
  Reading_Outcome open(const std::string& path, unsigned long long listed_size, long long listed_mtime);
  /// Whether what `open` found has another size than was listed, so that the object's ETag should speak for it too.
  bool doubtful() const { return doubtful_; }
  /// The MD5, in hexadecimal digits, that the content must have; nothing else may be one.
  void expect_md5(const std::string& digest);
  /// Takes up an object that another reading has opened and let go.
  void adopt(unsigned long long size, long long mtime);
  /// Gives the open reader away; this reading is over.
  MTF::IFile_Reader_var let_go();

  /// What else belongs to the open object, where its reader can tell; `problems` gets a text for each thing that could
  /// not be had.
  void attributes(MTF::File_Attributes& attributes, std::vector<std::string>& problems);
  /// Fills `buffer`, which has room for one byte more than the object's size.
  Reading_Outcome read_whole(char* buffer);
  /// Reads through `buffer` of `size` bytes; `take` gets each piece and returns false to stop.
  Reading_Outcome read_through(char* buffer, size_t size, const std::function<bool(const char*, size_t)>& take);
  void close();

  unsigned long long size() const { return size_; }
  long long mtime() const { return mtime_; }
  unsigned long long bytes() const { return bytes_; } ///< that came, wanted or not
  int number() const { return number_; }              ///< an errno value; 0: none
  const std::string& message() const { return message_; }
  bool changed() const { return changed_; } ///< FAILED, because what stood at the end was not what was opened

private:
  Reading_Outcome look(const std::string& path);
  enum Piece { SOME, END, BROKEN };
  Piece read_piece(char* buffer, size_t size, size_t& used);
  Reading_Outcome finish();
  bool has_expected_md5();
  Reading_Outcome fail(int number, const std::string& message);

  MTF::IFile_Reader_var reader_;
  const Backup_Limits& limits_;
  bool opened_ = false;
  bool changed_ = false;
  bool doubtful_ = false;
  std::string expected_md5_;
  std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> md5_{nullptr, EVP_MD_CTX_free}; ///< of what came; null: not asked
  unsigned long long size_ = 0;
  long long mtime_ = 0;
  unsigned long long bytes_ = 0;
  int number_ = 0;
  std::string message_;
};
