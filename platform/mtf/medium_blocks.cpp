#include "platform/mtf/medium_blocks.h"

#include "platform/mtf/dblk_name.h"
#include "sdk/mtf/cat_blk.h"

#include <xxhash.h>

#include <algorithm>

using namespace MTF_Format;

namespace {

constexpr uint16_t VENDOR = 0x424F;
constexpr uint32_t TAPE_SOFT_FILEMARKS = 1;
constexpr uint32_t SSET_NORMAL = 4;
constexpr uint32_t SSET_INCREMENTAL = 0x10;
constexpr uint32_t VOLB_NAME_OS_SPECIFIC = 0x10;
constexpr uint16_t SELF_VERSION = 1;
constexpr uint16_t SELF_INCREMENTAL = 1;

// Bounds of the texts, in UTF-16 units, that keep every block with its streams inside one FLB.
constexpr size_t NAME_UNITS = 100;
constexpr size_t SHORT_UNITS = 48;

void append_checked(std::string& data) {
  unsigned char check[8];
  put64(check, XXH3_64bits(data.data(), data.size()));
  data.append(reinterpret_cast<const char*>(check), sizeof check);
}

bool checked(const unsigned char* data, size_t size, size_t least) {
  return size >= least + 8 && get64(data + size - 8) == XXH3_64bits(data, size - 8);
}

uint32_t set_attributes(const Medium_Identity& identity) {
  return identity.incremental ? SSET_INCREMENTAL : SSET_NORMAL;
}

// 0 version 2 | 2 zero 2 | 4 uuid size 2 | 6 key size 2 | uuid | wrapped data key | XXH3-64
void append_set_key(std::string& out, const Medium_Identity& identity) {
  if (!identity.cipher)
    return;
  const std::string uuid = identity.cipher->set_uuid().substr(0, 64);
  unsigned char fixed[8] = {};
  put16(fixed, SELF_VERSION);
  put16(fixed + 4, static_cast<uint16_t>(uuid.size()));
  put16(fixed + 6, static_cast<uint16_t>(identity.cipher->wrapped().size()));
  std::string data(reinterpret_cast<const char*>(fixed), sizeof fixed);
  data += uuid;
  data += identity.cipher->wrapped();
  append_checked(data);
  append_stream(out, OBSK, data);
}

} // namespace

void make_tape(std::string& out, const Medium_Identity& identity) {
  Dblk_Builder block(out, TAPE, TAPE_FIXED, STRINGS_UTF16);
  put32(block.at(52), identity.family);
  put32(block.at(56), TAPE_SOFT_FILEMARKS);
  put16(block.at(60), 1);
  put16(block.at(64), FLB / 512);
  put16(block.at(84), FLB);
  put16(block.at(86), VENDOR);
  MTF::time_to_mtf_date_time(identity.write_date, block.at(88));
  block.at(93)[0] = 1;
  block.string(68, text_field(identity.media_name, NAME_UNITS));
  block.string(72, text_field(identity.description, NAME_UNITS));
  block.string(80, text_field(identity.software.empty() ? "obs-agent" : identity.software, SHORT_UNITS));
  block.finish(0, 0);
  append_block_check(out);
  append_spad(out, 0);
}

// A filemark's own number is the count of those before it, and one. Places beyond 32 bits cannot be told.
void make_filemark(std::string& out, uint64_t place, const std::vector<uint64_t>& earlier) {
  Dblk_Builder block(out, SFMB, SFMB_FIXED, STRINGS_NONE);
  out.append(FLB - SFMB_FIXED, '\0');
  unsigned used = 0;
  for (auto at = earlier.rbegin(); at != earlier.rend() && used < SFMB_ENTRIES; ++at)
    if (*at <= UINT32_MAX)
      put32(block.at(SFMB_FIXED + 4 * used++), static_cast<uint32_t>(*at));
  put32(block.at(52), SFMB_ENTRIES);
  put32(block.at(56), used);
  block.finish(place, static_cast<uint32_t>(earlier.size() + 1));
}

void make_set_start(std::string& out, const Medium_Identity& identity) {
  Dblk_Builder block(out, SSET, SSET_FIXED, STRINGS_UTF16);
  put32(block.at(52), set_attributes(identity));
  put16(block.at(60), VENDOR);
  put16(block.at(62), 1);
  put64(block.at(80), SSET_OFFSET / FLB);
  MTF::time_to_mtf_date_time(identity.write_date, block.at(88));
  block.at(93)[0] = 1;
  block.string(64, text_field(identity.set_name, NAME_UNITS));
  block.string(68, text_field(identity.description, NAME_UNITS));
  block.string(76, text_field(identity.user, SHORT_UNITS));
  block.finish(0, 0);
  append_block_check(out);
  append_spad(out, 0);
}

// 0 version 2 | 2 flags 2 | 4 family 4 | 8 write date 8 | 16 uuid size 2 | 18 name size 2 | uuid | name | XXH3-64
void make_volume(std::string& out, const Medium_Identity& identity, uint32_t control_id) {
  Dblk_Builder block(out, VOLB, VOLB_FIXED, STRINGS_UTF16);
  put32(block.at(52), VOLB_NAME_OS_SPECIFIC);
  MTF::time_to_mtf_date_time(identity.write_date, block.at(68));
  block.string(56, text_field(identity.device.empty() ? "OBS" : identity.device, SHORT_UNITS));
  block.string(60, text_field(identity.set_name, SHORT_UNITS));
  block.string(64, text_field(identity.machine, SHORT_UNITS));
  block.finish((VOLB_OFFSET - SSET_OFFSET) / FLB, control_id);
  append_block_check(out);

  const std::string uuid = identity.set_uuid.substr(0, 64);
  const std::string name = identity.set_name.substr(0, 128);
  unsigned char fixed[20] = {};
  put16(fixed, SELF_VERSION);
  put16(fixed + 2, identity.incremental ? SELF_INCREMENTAL : 0);
  put32(fixed + 4, identity.family);
  put64(fixed + 8, static_cast<uint64_t>(identity.write_date));
  put16(fixed + 16, static_cast<uint16_t>(uuid.size()));
  put16(fixed + 18, static_cast<uint16_t>(name.size()));
  std::string data(reinterpret_cast<const char*>(fixed), sizeof fixed);
  data += uuid;
  data += name;
  append_checked(data);
  append_stream(out, OBSI, data);
  append_set_key(out, identity);
  append_spad(out, 0);
}

bool Medium_Key::parse(const unsigned char* data, size_t size) {
  if (!checked(data, size, 8) || get16(data) != SELF_VERSION || size != 16u + get16(data + 4) + get16(data + 6))
    return false;
  const char* text = reinterpret_cast<const char*>(data) + 8;
  set_uuid.assign(text, get16(data + 4));
  wrapped.assign(text + get16(data + 4), get16(data + 6));
  return true;
}

bool Medium_Self::parse(const unsigned char* data, size_t size) {
  if (!checked(data, size, 20) || get16(data) != SELF_VERSION || size != 28u + get16(data + 16) + get16(data + 18))
    return false;
  incremental = (get16(data + 2) & SELF_INCREMENTAL) != 0;
  family = get32(data + 4);
  write_date = static_cast<long long>(get64(data + 8));
  const char* text = reinterpret_cast<const char*>(data) + 20;
  set_uuid.assign(text, get16(data + 16));
  set_name.assign(text + get16(data + 16), get16(data + 18));
  return true;
}

// The exact path stands in hexadecimal digits: some readers look for blocks at every FLB boundary behind a directory,
// and small letters and digits never look like one.
void make_directory(std::string& out, const std::string& path, uint32_t directory_id, uint64_t fla,
                    uint32_t control_id) {
  const Dblk_Name name = directory_name_field(path);
  Dblk_Builder block(out, DIRB, DIRB_FIXED, STRINGS_UTF16);
  put32(block.at(76), directory_id);
  block.string(80, name.utf16);
  block.finish(fla, control_id);
  append_block_check(out);
  if (!name.exact) {
    std::string data = path;
    append_checked(data);
    std::string digits;
    digits.reserve(2 * data.size());
    for (const char c : data) {
      digits.push_back("0123456789abcdef"[static_cast<unsigned char>(c) >> 4]);
      digits.push_back("0123456789abcdef"[static_cast<unsigned char>(c) & 15]);
    }
    append_stream(out, OBSN, digits);
  }
  append_spad(out, 0);
}

bool parse_directory_path(const unsigned char* data, size_t size, std::string& path) {
  const auto digit = [](unsigned char c) {
    return c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
  };
  std::string bytes;
  for (size_t i = 0; i + 1 < size; i += 2) {
    const int high = digit(data[i]);
    const int low = digit(data[i + 1]);
    if (high < 0 || low < 0)
      return false;
    bytes.push_back(static_cast<char>(high << 4 | low));
  }
  if (size % 2 != 0 || !checked(bytes_of(bytes), bytes.size(), 0))
    return false;
  path.assign(bytes, 0, bytes.size() - 8);
  return true;
}

// OBST: 0 version 2 | 2 zero 6 | 8 objects 8 | 16 bytes 8 | XXH3-64
void make_set_end(std::string& out, const Medium_Identity& identity, const Medium_Totals& totals, uint64_t place,
                  uint32_t control_id, bool open) {
  Dblk_Builder block(out, ESET, ESET_FIXED, STRINGS_NONE);
  put32(block.at(52), set_attributes(identity));
  put64(block.at(60), place);
  put16(block.at(78), 1);
  MTF::time_to_mtf_date_time(identity.write_date, block.at(80));
  block.finish(0, control_id);
  append_block_check(out);
  unsigned char fixed[24] = {};
  put16(fixed, SELF_VERSION);
  put64(fixed + 8, totals.objects);
  put64(fixed + 16, totals.bytes);
  std::string data(reinterpret_cast<const char*>(fixed), sizeof fixed);
  append_checked(data);
  append_stream(out, OBST, data);
  append_set_key(out, identity);
  if (open)
    pad_to(out, STREAM_ALIGNMENT);
  else
    append_spad(out, 0);
}

bool Medium_Totals::parse(const unsigned char* data, size_t size) {
  if (size != 32 || !checked(data, size, 24) || get16(data) != SELF_VERSION)
    return false;
  objects = get64(data + 8);
  bytes = get64(data + 16);
  return true;
}
