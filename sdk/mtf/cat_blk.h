#pragma once

#include "sdk/mtf/file_blk.h"

#include <ace/Basic_Types.h>

#include <memory>
#include <string>

/// Type codes of catalog blocks: four ASCII bytes as a little-endian number.
enum MTF_Cat_Blk_Type : ACE_UINT32 {
  MTF_CAT_VOLB_BLK = 0x424C4F56, ///< "VOLB"
  MTF_CAT_DIRB_BLK = 0x42524944, ///< "DIRB"
  MTF_CAT_FILE_BLK = 0x454C4946, ///< "FILE"
  MTF_CAT_FEND_BLK = 0x444E4546  ///< "FEND"
};

namespace MTF {

/// The 64 bytes that every catalog block begins with, little-endian:
///
///     0 type 4 | 4 length 4 | 8 sequence 2 | 10 string type 1 | 11 zero 1 | 12 backup-set attribute 4
///     16 size 8 | 24 inode 8 | 32 zero 30 | 62 checksum 2 (XOR of the 31 words before it)
///
/// A view: the bytes belong to the block.
class Cat_Hdr {
public:
  static constexpr unsigned SIZE = 64;
  explicit Cat_Hdr(unsigned char* at) : at_(at) {}

  void type(ACE_UINT32 value);
  void length(ACE_UINT32 value); ///< of the whole block, this header included
  void seq(ACE_UINT16 value);
  void size(ACE_UINT64 value);        ///< of the object, in bytes
  void str_type(unsigned char value); ///< 0 no names, 1 bytes, 2 UTF-16
  void backup_set_attr(ACE_UINT32 value);
  void ino(ACE_UINT64 value);
  void check(ACE_UINT16 value);
  ACE_UINT32 type() const;
  ACE_UINT32 length() const;
  ACE_UINT16 seq() const;
  ACE_UINT64 size() const;
  unsigned char str_type() const;
  ACE_UINT32 backup_set_attr() const;
  ACE_UINT64 ino() const;
  ACE_UINT16 check() const;
  ACE_UINT16 calc_checksum() const;

private:
  unsigned char* at_;
};

/// Writes an MTF tape address: 16-bit size, then 16-bit offset.
class Tape_Address_Setter {
public:
  explicit Tape_Address_Setter(unsigned char* at) : at_(at) {}
  void set(ACE_UINT16 size, ACE_UINT16 offset);

private:
  unsigned char* at_;
};

/// Writes `time` (seconds since the epoch, UTC) as the 5-byte packed MTF date and time; all zero for a time that the
/// 14-bit year cannot carry.
void time_to_mtf_date_time(long long time, unsigned char* dest);
/// The other way round; -1 for all zero.
long long mtf_date_time_to_time(const unsigned char* src);

/// One block of the catalog stream. Owns its bytes; movable, and moving from a derived class keeps everything, since
/// those add operations only.
class Cat_Blk {
public:
  Cat_Blk() = default;
  Cat_Blk(Cat_Blk&&) noexcept = default;
  Cat_Blk& operator=(Cat_Blk&&) noexcept = default;
  virtual ~Cat_Blk();

  /// Makes a buffer of `size` zero bytes. False when memory is short.
  bool alloc_buffer(unsigned size);
  unsigned char* buffer() { return buffer_.get(); }
  const unsigned char* buffer() const { return buffer_.get(); }
  unsigned buffer_size() const { return size_; }
  /// Only while there is a buffer.
  Cat_Hdr hdr() const { return Cat_Hdr(buffer_.get()); }
  /// The name of a VOL, DIR or FILE block (a DIR's with NUL behind each component); empty for any other and for a
  /// block whose addresses lead outside it.
  std::string name() const;
  /// The modification time of a FILE block, seconds since the epoch; -1 when it has none.
  long long mtime() const;
  /// Whether lengths, addresses and the checksum hold.
  bool valid() const;

private:
  std::unique_ptr<unsigned char[]> buffer_;
  unsigned size_ = 0;
};

/// 64-byte header, tape address of the name at 64, name at 68.
class Cat_Vol_Blk : public Cat_Blk {
public:
  static unsigned buffer_need(unsigned name_length) { return Cat_Hdr::SIZE + 4 + name_length; }
  /// Fills header, name and checksum. False when there is no buffer or it is too small.
  bool set(unsigned short seq, const std::string& name);
};

/// The same layout; the name is the path from the bucket down with a NUL behind each component.
class Cat_Dir_Blk : public Cat_Blk {
public:
  static unsigned buffer_need(unsigned name_length) { return Cat_Hdr::SIZE + 4 + name_length; }
  bool set(unsigned short seq, const std::string& path);
};

/// A block that lies in a directory: 64-byte header, modification time at 64, tape address of the name at 69, name at
/// 73. BLK is the data block that the file becomes on media, PARENT the type of the block it lies under, TYPE its own.
template <typename BLK, MTF_Cat_Blk_Type PARENT, ACE_UINT32 TYPE>
class Cat_File_Blk_T : public Cat_Blk {
public:
  typedef BLK Data_Blk;
  static constexpr MTF_Cat_Blk_Type PARENT_TYPE = PARENT;
  static constexpr unsigned TIME_OFFSET = Cat_Hdr::SIZE;
  static constexpr unsigned NAME_ADDRESS_OFFSET = TIME_OFFSET + 5;
  static constexpr unsigned NAME_OFFSET = NAME_ADDRESS_OFFSET + 4;

  static unsigned buffer_need(unsigned name_length) { return NAME_OFFSET + name_length; }
  /// Fills everything and the checksum. `mtime` in seconds since the epoch, `size` in bytes. False when there is no
  /// buffer or the name does not fit it.
  bool set(unsigned short seq, const std::string& name, long long mtime, ACE_UINT64 size, ACE_UINT32 attr,
           ACE_UINT64 ino) {
    if (buffer() == nullptr || buffer_size() < NAME_OFFSET || name.size() > 0xFFFF)
      return false;
    Cat_Hdr header = hdr();
    header.type(TYPE);
    header.length(NAME_OFFSET);
    header.seq(seq);
    header.size(size);
    header.str_type(1);
    header.backup_set_attr(attr);
    header.ino(ino);
    time_to_mtf_date_time(mtime, buffer() + TIME_OFFSET);
    if (!set_name(name))
      return false;
    header.check(header.calc_checksum());
    return true;
  }

private:
  bool set_name(const std::string& name) {
    Cat_Hdr header = hdr();
    const size_t end = static_cast<size_t>(header.length()) + name.size();
    if (end > buffer_size())
      return false;
    Tape_Address_Setter(buffer() + NAME_ADDRESS_OFFSET)
        .set(static_cast<ACE_UINT16>(name.size()), static_cast<ACE_UINT16>(NAME_OFFSET));
    name.copy(reinterpret_cast<char*>(buffer()) + NAME_OFFSET, name.size());
    header.length(static_cast<ACE_UINT32>(end));
    return true;
  }
};

} // namespace MTF
