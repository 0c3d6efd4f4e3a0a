#include "platform/mtf/medium_rules.h"

#include "platform/mtf/dblk_name.h"
#include "platform/mtf/object_stream.h"
#include "sdk/mtf/cat_blk.h"

#include <cstring>

using namespace MTF_Format;

namespace {

constexpr uint32_t TAPE_SOFT_FILEMARKS = 1;
constexpr unsigned BLOCK_OS_DATA = 44;
constexpr uint32_t VOLUME_NAME_KINDS = 4 | 8 | 0x10 | 0x20;
constexpr unsigned DIRECTORY_NAME = 80; // tape addresses
constexpr unsigned FILE_NAME = 84;
constexpr unsigned MTF_DATE = 5;
constexpr unsigned FILE_MODIFIED = 56, FILE_CREATED = 61, FILE_SAVED = 66, FILE_ACCESSED = 71;
constexpr uint16_t STREAM_CONTINUE = 1;
constexpr uint16_t STREAM_COMPRESSED = 0x10;

std::string_view string_at(const Dblk_Header& header, const unsigned char* block, unsigned field) {
  const size_t size = get16(block + field), offset = get16(block + field + 2);
  if (offset > header.first_event || size > header.first_event - offset)
    return std::string_view();
  return std::string_view(reinterpret_cast<const char*>(block) + offset, size);
}

/// A string that leaves its block, is no UTF-16, or lies in the fixed part.
bool bad_string(const Dblk_Header& header, const unsigned char* block, unsigned field, unsigned fixed) {
  const size_t size = get16(block + field), offset = get16(block + field + 2);
  return size != 0 &&
         (size % 2 != 0 || offset < fixed || offset > header.first_event || size > header.first_event - offset);
}

std::string broken_tape_rule(const Dblk_Header& header, const unsigned char* block) {
  if ((get32(block + 56) & TAPE_SOFT_FILEMARKS) == 0)
    return "it does not say that filemarks are blocks";
  if (get16(block + 64) != FLB / 512)
    return "it gives the size of filemark blocks as " + std::to_string(get16(block + 64)) + " times 512 bytes";
  if (get16(block + 84) != FLB)
    return "it gives the size of logical blocks as " + std::to_string(get16(block + 84));
  if (get16(block + 60) != 1)
    return "it has the sequence number " + std::to_string(get16(block + 60)) + " in a family of one medium each";
  if (get16(block + 66) != 0)
    return "it announces a catalog in a form that is not there";
  if (block[93] != 1)
    return "it is of the format's version " + std::to_string(block[93]);
  if (string_at(header, block, 80).empty())
    return "it names no software";
  return std::string();
}

std::string broken_directory_rule(const Dblk_Header& header, const unsigned char* block) {
  const std::string_view name = string_at(header, block, DIRECTORY_NAME);
  if (name.size() < 2 || name.substr(name.size() - 2) != std::string_view("\0\0", 2))
    return "its name does not end with a NUL";
  if (get32(block + 76) == 0)
    return "it has the number 0";
  return std::string();
}

std::string broken_rule_of_kind(const Dblk_Header& header, const unsigned char* block) {
  switch (header.type) {
  case TAPE:
    return broken_tape_rule(header, block);
  case SSET:
    if (get16(block + 62) != 1 || get64(block + 80) != SSET_OFFSET / FLB)
      return "it is not the first set of the medium";
    return block[95] != 0 ? "its times are not said to be UTC" : std::string();
  case VOLB: {
    const uint32_t kind = get32(block + 52) & VOLUME_NAME_KINDS;
    if (kind == 0 || (kind & (kind - 1)) != 0)
      return "it does not say of which kind its device name is";
    return string_at(header, block, 56).empty() ? "its device name is empty" : std::string();
  }
  case DIRB:
    return broken_directory_rule(header, block);
  case FILE_:
    if (string_at(header, block, FILE_NAME).empty())
      return "its name is empty";
    return get32(block + 76) == 0 || get32(block + 80) == 0 ? "it has the number 0" : std::string();
  case ESET:
    return get16(block + 78) != 1 ? "it ends another set than the first" : std::string();
  default:
    return std::string();
  }
}

/// Offsets of the tape addresses of a kind of block, ended by 0, and where its fixed part ends.
const unsigned* string_fields(uint32_t type, unsigned& fixed) {
  static const unsigned of_tape[] = {68, 72, 76, 80, 0}, of_set[] = {64, 68, 72, 76, 0}, of_volume[] = {56, 60, 64, 0},
                        of_directory[] = {80, 0}, of_file[] = {84, 0}, none[] = {0};
  switch (type) {
  case TAPE:
    fixed = TAPE_FIXED;
    return of_tape;
  case SSET:
    fixed = SSET_FIXED;
    return of_set;
  case VOLB:
    fixed = VOLB_FIXED - 1;
    return of_volume;
  case DIRB:
    fixed = DIRB_FIXED;
    return of_directory;
  case FILE_:
    fixed = FILE_FIXED;
    return of_file;
  default:
    fixed = DBLK_HEADER;
    return none;
  }
}

} // namespace

std::string broken_block_rule(const Dblk_Header& header, const unsigned char* block) {
  const std::string who = "the block " + four_text(header.type) + ": ";
  if (header.attributes != 0)
    return who + "its attributes say that it is continued, compressed or the last of its medium (" +
           std::to_string(header.attributes) + ")";
  if (header.os_id != OS_UNIX || header.os_version != 0 || get32(block + BLOCK_OS_DATA) != 0)
    return who + "it is of the operating system " + std::to_string(header.os_id) + ", version " +
           std::to_string(header.os_version) + ", or has data of one";
  unsigned fixed = 0;
  const unsigned* const fields = string_fields(header.type, fixed);
  if (header.string_type != (*fields == 0 ? STRINGS_NONE : STRINGS_UTF16))
    return who + "its strings are of the type " + std::to_string(header.string_type);
  for (const unsigned* field = fields; *field != 0; ++field)
    if (bad_string(header, block, *field, fixed))
      return who + "a string of it lies where none can be";
  const std::string broken = broken_rule_of_kind(header, block);
  return broken.empty() ? std::string() : who + broken;
}

std::string broken_directory_name_rule(const Dblk_Header& header, const unsigned char* block, const std::string& path,
                                       bool exact_beside) {
  const Dblk_Name name = directory_name_field(path);
  if (name.utf16 != string_at(header, block, DIRECTORY_NAME))
    return "the block DIRB: its name is not that of its folder";
  return name.exact || exact_beside ? std::string() : "the block DIRB: its name needs a substitute";
}

std::string broken_file_rule(const Dblk_Header& header, const unsigned char* block, const Object_Head& head,
                             bool sealed) {
  const std::string who = "the block FILE: ";
  const uint64_t size = sealed ? 0 : head.size;
  if (header.displayable != size)
    return who + "its displayable size is " + std::to_string(header.displayable) + ", and should be " +
           std::to_string(size);
  unsigned char date[MTF_DATE] = {}, none[MTF_DATE] = {};
  if (!sealed)
    MTF::time_to_mtf_date_time(head.mtime, date);
  for (const unsigned at : {FILE_MODIFIED, FILE_CREATED, FILE_ACCESSED})
    if (std::memcmp(block + at, date, MTF_DATE) != 0)
      return who + "one of its dates is not the object's";
  if (std::memcmp(block + FILE_SAVED, none, MTF_DATE) != 0)
    return who + "its backup date is not zero";
  const size_t slash = head.path.rfind('/');
  const std::string last = head.path.substr(slash == std::string::npos ? 0 : slash + 1);
  if (file_name_field(sealed ? sealed_object_name(head.ordinal) : last).utf16 != string_at(header, block, FILE_NAME))
    return who + "its name is not that of its object";
  return std::string();
}

std::string broken_stream_rule(uint32_t type, const Stream_Header& stream, bool sealed) {
  const std::string who = "the stream " + four_text(stream.id) + ": ";
  const bool frame = type == FILE_ && (stream.id == OBSZ || stream.id == OBSX);
  const bool plain = type != FILE_ || stream.id == STAN || stream.id == SPAD || stream.id == OBSZ;
  uint16_t expected = 0;
  if (frame)
    expected = STREAM_VARIABLE;
  if (!plain && sealed)
    expected = static_cast<uint16_t>(expected | STREAM_ENCRYPTED);
  // Which of its object's frames is the last is for whoever counts their bytes.
  const uint16_t told =
      static_cast<uint16_t>(frame ? stream.format_attributes & ~STREAM_VARIABLE_END : stream.format_attributes);
  if ((told & STREAM_CONTINUE) != 0)
    return who + "it is said to go on from another medium";
  if ((told & STREAM_COMPRESSED) != 0 || stream.compression != 0 || stream.encryption != 0)
    return who + "it is said to be compressed or encrypted by a method of the format";
  if (stream.system_attributes != 0)
    return who + "it has attributes of a file system";
  const uint16_t kinds = STREAM_VARIABLE | STREAM_VARIABLE_END | STREAM_ENCRYPTED;
  if ((told & kinds & ~expected) != 0)
    return who + "it is said to be encrypted or of variable length";
  if ((expected & ~told) != 0)
    return who + "it is not said to be encrypted or of variable length, as it is";
  if (told != expected)
    return who + "it has the attributes " + std::to_string(stream.format_attributes);
  if (stream.id != STAN && stream.length > MAX_PRIVATE_STREAM)
    return who + "it has " + std::to_string(stream.length) + " bytes, more than readers elsewhere keep of a stream";
  return std::string();
}
