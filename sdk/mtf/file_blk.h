#pragma once

#include <ace/Basic_Types.h>

#include <string>

namespace MTF {

/// The header part of a data block that a resource may fill.
class DBLK_Hdr {
public:
  void size(ACE_UINT64 bytes) { size_ = bytes; } ///< the displayable size
  ACE_UINT64 size() const { return size_; }

private:
  ACE_UINT64 size_ = 0;
};

/// What a resource tells about a file for its FILE block on media. Dates are seconds since the epoch.
class File_Blk {
public:
  DBLK_Hdr& hdr() { return hdr_; }
  const DBLK_Hdr& hdr() const { return hdr_; }
  void access_date(long long time) { access_date_ = time; }
  void create_date(long long time) { create_date_ = time; }
  void modification_date(long long time) { modification_date_ = time; }
  long long access_date() const { return access_date_; }
  long long create_date() const { return create_date_; }
  long long modification_date() const { return modification_date_; }

private:
  DBLK_Hdr hdr_;
  long long access_date_ = 0;
  long long create_date_ = 0;
  long long modification_date_ = 0;
};

/// A file's status as a resource tells it.
struct Callback_Stat {
  ACE_UINT32 mode = 0;
  ACE_UINT32 nlink = 0;
  ACE_UINT32 uid = 0;
  ACE_UINT32 gid = 0;
  ACE_UINT64 dev = 0;
  ACE_UINT64 rdev = 0;
  ACE_UINT64 ino = 0;
  ACE_UINT64 size = 0; ///< bytes
  long long atime = 0; ///< seconds since the epoch
  long long mtime = 0;
  long long ctime = 0;
  ACE_UINT32 blksize = 0; ///< bytes
  ACE_UINT64 blocks = 0;  ///< of 512 bytes
  std::string owner;
  std::string group;

  void reset() { *this = Callback_Stat(); }
};

/// A piece of memory being filled. Does not own it.
class Buffer {
public:
  Buffer(char* base, size_t size) : base_(base), size_(size) {}
  char* base() { return base_; }
  size_t size() const { return size_; } ///< what fits
  size_t used() const { return used_; } ///< what was filled
  void used(size_t count) { used_ = count; }

private:
  char* base_;
  size_t size_;
  size_t used_ = 0;
};

} // namespace MTF
