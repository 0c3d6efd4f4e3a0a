#pragma once

#include <cstdint>

/// Numbers of the MTF 1.00a layout as media are written here. All integers little-endian. See doc/format/medium.md.
namespace MTF_Format {

/// Four ASCII bytes as the number that they are on media.
constexpr uint32_t four(const char (&text)[5]) {
  return static_cast<uint32_t>(static_cast<unsigned char>(text[0])) |
         static_cast<uint32_t>(static_cast<unsigned char>(text[1])) << 8 |
         static_cast<uint32_t>(static_cast<unsigned char>(text[2])) << 16 |
         static_cast<uint32_t>(static_cast<unsigned char>(text[3])) << 24;
}

/// Format logical block and physical block, bytes: equal, so that every descriptor block may stand anywhere.
constexpr unsigned FLB = 1024;
constexpr unsigned DBLK_HEADER = 52;
constexpr unsigned STREAM_HEADER = 22;
constexpr unsigned STREAM_ALIGNMENT = 4;
/// Where the first stream may begin at most: its header ends inside the first FLB.
constexpr unsigned MAX_FIRST_EVENT = FLB - 24;

constexpr uint32_t TAPE = four("TAPE");
constexpr uint32_t SSET = four("SSET");
constexpr uint32_t VOLB = four("VOLB");
constexpr uint32_t DIRB = four("DIRB");
constexpr uint32_t FILE_ = four("FILE");
constexpr uint32_t CFIL = four("CFIL");
constexpr uint32_t ESPB = four("ESPB");
constexpr uint32_t ESET = four("ESET");
constexpr uint32_t EOTM = four("EOTM");
constexpr uint32_t SFMB = four("SFMB");

constexpr uint32_t STAN = four("STAN");
constexpr uint32_t SPAD = four("SPAD");
/// Our own streams.
constexpr uint32_t OBSC = four("OBSC"); ///< check of the descriptor block (all but FILE and SFMB)
constexpr uint32_t OBSI = four("OBSI"); ///< identity of the set (VOLB)
constexpr uint32_t OBSN = four("OBSN"); ///< exact path of a directory (DIRB)
constexpr uint32_t OBSH = four("OBSH"); ///< head of an object (FILE)
constexpr uint32_t OBSA = four("OBSA"); ///< attributes of an object (FILE)
constexpr uint32_t OBSZ = four("OBSZ"); ///< one frame of an object's content (FILE)
constexpr uint32_t OBSD = four("OBSD"); ///< digest of an object's content (FILE)
constexpr uint32_t OBST = four("OBST"); ///< totals of the set (ESET)
constexpr uint32_t OBSK = four("OBSK"); ///< wrapped data key of an encrypted set (VOLB, ESET)
constexpr uint32_t OBSX = four("OBSX"); ///< one encrypted frame of an object's content (FILE)
constexpr uint32_t OBSR = four("OBSR"); ///< copy of the set's record (ESET)
constexpr uint32_t OBSL = four("OBSL"); ///< one chunk of the copy of its catalog (ESET)

// Ends of the fixed parts, where strings begin.
constexpr unsigned TAPE_FIXED = 94;
constexpr unsigned SSET_FIXED = 98;
constexpr unsigned VOLB_FIXED = 74; ///< 73, and one byte to begin the strings at an even offset
constexpr unsigned DIRB_FIXED = 84;
constexpr unsigned FILE_FIXED = 88;
constexpr unsigned ESET_FIXED = 85;
constexpr unsigned SFMB_FIXED = 60;

constexpr unsigned char OS_UNIX = 28;
constexpr unsigned char STRINGS_NONE = 0;
constexpr unsigned char STRINGS_UTF16 = 2;

constexpr uint16_t STREAM_VARIABLE = 2;
constexpr uint16_t STREAM_VARIABLE_END = 4;
constexpr uint16_t STREAM_ENCRYPTED = 8;

/// Bytes that a name may take, so that the block with the header of its first stream, and for a directory the whole
/// check stream too, ends inside the first FLB.
constexpr unsigned MAX_FILE_NAME = MAX_FIRST_EVENT - FILE_FIXED;
constexpr unsigned MAX_DIRECTORY_NAME = 908;
static_assert(DIRB_FIXED + MAX_DIRECTORY_NAME + STREAM_HEADER + 8 <= FLB);

/// Entries of a soft filemark block.
constexpr unsigned SFMB_ENTRIES = (FLB - SFMB_FIXED) / 4;

/// Where the blocks before the first directory lie.
constexpr unsigned SSET_OFFSET = 2 * FLB;
constexpr unsigned VOLB_OFFSET = 3 * FLB;
constexpr unsigned ROOT_OFFSET = 4 * FLB; ///< of the first directory

} // namespace MTF_Format
