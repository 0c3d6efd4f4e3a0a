#include "sdk/mtf/cat_blk.h"

#include <chrono>
#include <new>

namespace MTF {

namespace {

enum Header_Offset {
  TYPE_AT = 0,
  LENGTH_AT = 4,
  SEQ_AT = 8,
  STR_TYPE_AT = 10,
  SET_ATTR_AT = 12,
  SIZE_AT = 16,
  INO_AT = 24,
  CHECK_AT = 62
};

constexpr unsigned NAME_ADDRESS_AT = Cat_Hdr::SIZE; // VOL and DIR
constexpr unsigned NAME_AT = NAME_ADDRESS_AT + 4;
constexpr unsigned FILE_TIME_AT = Cat_Hdr::SIZE;
constexpr unsigned FILE_NAME_ADDRESS_AT = FILE_TIME_AT + 5;

template <typename NUMBER>
void store(unsigned char* at, NUMBER value) {
  for (unsigned i = 0; i < sizeof value; ++i)
    at[i] = static_cast<unsigned char>(value >> (8 * i));
}

template <typename NUMBER>
NUMBER load(const unsigned char* at) {
  NUMBER value = 0;
  for (unsigned i = 0; i < sizeof value; ++i)
    value = static_cast<NUMBER>(value | static_cast<NUMBER>(at[i]) << (8 * i));
  return value;
}

// Where the address of a block's name lies; 0 for a block without one.
unsigned name_address(ACE_UINT32 type) {
  switch (type) {
  case MTF_CAT_VOLB_BLK:
  case MTF_CAT_DIRB_BLK:
    return NAME_ADDRESS_AT;
  case MTF_CAT_FILE_BLK:
    return FILE_NAME_ADDRESS_AT;
  default:
    return 0;
  }
}

bool set_named(Cat_Blk& blk, ACE_UINT32 type, unsigned short seq, const std::string& name) {
  if (blk.buffer() == nullptr || blk.buffer_size() < NAME_AT || name.size() > 0xFFFF ||
      blk.buffer_size() - NAME_AT < name.size())
    return false;
  const ACE_UINT16 size = static_cast<ACE_UINT16>(name.size());
  Cat_Hdr header = blk.hdr();
  header.type(type);
  header.length(NAME_AT + size);
  header.seq(seq);
  header.str_type(1);
  Tape_Address_Setter(blk.buffer() + NAME_ADDRESS_AT).set(size, static_cast<ACE_UINT16>(NAME_AT));
  name.copy(reinterpret_cast<char*>(blk.buffer()) + NAME_AT, size);
  header.check(header.calc_checksum());
  return true;
}

} // namespace

void Cat_Hdr::type(ACE_UINT32 value) {
  store(at_ + TYPE_AT, value);
}
void Cat_Hdr::length(ACE_UINT32 value) {
  store(at_ + LENGTH_AT, value);
}
void Cat_Hdr::seq(ACE_UINT16 value) {
  store(at_ + SEQ_AT, value);
}
void Cat_Hdr::size(ACE_UINT64 value) {
  store(at_ + SIZE_AT, value);
}
void Cat_Hdr::str_type(unsigned char value) {
  at_[STR_TYPE_AT] = value;
}
void Cat_Hdr::backup_set_attr(ACE_UINT32 value) {
  store(at_ + SET_ATTR_AT, value);
}
void Cat_Hdr::ino(ACE_UINT64 value) {
  store(at_ + INO_AT, value);
}
void Cat_Hdr::check(ACE_UINT16 value) {
  store(at_ + CHECK_AT, value);
}
ACE_UINT32 Cat_Hdr::type() const {
  return load<ACE_UINT32>(at_ + TYPE_AT);
}
ACE_UINT32 Cat_Hdr::length() const {
  return load<ACE_UINT32>(at_ + LENGTH_AT);
}
ACE_UINT16 Cat_Hdr::seq() const {
  return load<ACE_UINT16>(at_ + SEQ_AT);
}
ACE_UINT64 Cat_Hdr::size() const {
  return load<ACE_UINT64>(at_ + SIZE_AT);
}
unsigned char Cat_Hdr::str_type() const {
  return at_[STR_TYPE_AT];
}
ACE_UINT32 Cat_Hdr::backup_set_attr() const {
  return load<ACE_UINT32>(at_ + SET_ATTR_AT);
}
ACE_UINT64 Cat_Hdr::ino() const {
  return load<ACE_UINT64>(at_ + INO_AT);
}
ACE_UINT16 Cat_Hdr::check() const {
  return load<ACE_UINT16>(at_ + CHECK_AT);
}

ACE_UINT16 Cat_Hdr::calc_checksum() const {
  ACE_UINT16 sum = 0;
  for (unsigned at = 0; at < CHECK_AT; at += 2)
    sum = static_cast<ACE_UINT16>(sum ^ load<ACE_UINT16>(at_ + at));
  return sum;
}

void Tape_Address_Setter::set(ACE_UINT16 size, ACE_UINT16 offset) {
  store(at_, size);
  store(at_ + 2, offset);
}

// 40 bits, most significant first: year 14, month 4, day 5, hour 5, minute 6, second 6.
void time_to_mtf_date_time(long long time, unsigned char* dest) {
  using namespace std::chrono;
  constexpr long long first = sys_seconds(sys_days(year(0) / January / 1)).time_since_epoch().count();
  constexpr long long behind = sys_seconds(sys_days(year(0x4000) / January / 1)).time_since_epoch().count();
  ACE_UINT64 packed = 0;
  if (time >= first && time < behind) {
    const sys_seconds at{seconds(time)};
    const sys_days day = floor<days>(at);
    const year_month_day date(day);
    const hh_mm_ss<seconds> clock(at - day);
    packed = static_cast<ACE_UINT64>(static_cast<int>(date.year())) << 26 |
             static_cast<ACE_UINT64>(static_cast<unsigned>(date.month())) << 22 |
             static_cast<ACE_UINT64>(static_cast<unsigned>(date.day())) << 17 |
             static_cast<ACE_UINT64>(clock.hours().count()) << 12 |
             static_cast<ACE_UINT64>(clock.minutes().count()) << 6 | static_cast<ACE_UINT64>(clock.seconds().count());
  }
  for (unsigned i = 0; i < 5; ++i)
    dest[i] = static_cast<unsigned char>(packed >> (32 - 8 * i));
}

long long mtf_date_time_to_time(const unsigned char* src) {
  using namespace std::chrono;
  ACE_UINT64 packed = 0;
  for (unsigned i = 0; i < 5; ++i)
    packed = packed << 8 | src[i];
  const year_month_day date(year(static_cast<int>(packed >> 26)), month(packed >> 22 & 15), day(packed >> 17 & 31));
  const unsigned hour = packed >> 12 & 31;
  const unsigned minute = packed >> 6 & 63;
  const unsigned second = packed & 63;
  if (!date.ok() || hour > 23 || minute > 59 || second > 59)
    return -1;
  return sys_seconds(sys_days(date)).time_since_epoch().count() + hour * 3600ll + minute * 60ll + second;
}

Cat_Blk::~Cat_Blk() = default;

bool Cat_Blk::alloc_buffer(unsigned size) {
  buffer_.reset(new (std::nothrow) unsigned char[size]());
  size_ = buffer_ ? size : 0;
  return buffer_ != nullptr;
}

std::string Cat_Blk::name() const {
  if (!buffer_ || size_ < Cat_Hdr::SIZE)
    return std::string();
  const unsigned address = name_address(hdr().type());
  if (address == 0 || size_ < address + 4)
    return std::string();
  const unsigned length = load<ACE_UINT16>(buffer_.get() + address);
  const unsigned offset = load<ACE_UINT16>(buffer_.get() + address + 2);
  if (offset > size_ || length > size_ - offset)
    return std::string();
  return std::string(reinterpret_cast<const char*>(buffer_.get()) + offset, length);
}

long long Cat_Blk::mtime() const {
  if (!buffer_ || size_ < FILE_NAME_ADDRESS_AT || hdr().type() != MTF_CAT_FILE_BLK)
    return -1;
  return mtf_date_time_to_time(buffer_.get() + FILE_TIME_AT);
}

bool Cat_Blk::valid() const {
  if (!buffer_ || size_ < Cat_Hdr::SIZE)
    return false;
  const Cat_Hdr header = hdr();
  const ACE_UINT32 length = header.length();
  if (length < Cat_Hdr::SIZE || length > size_ || header.check() != header.calc_checksum())
    return false;
  const unsigned address = name_address(header.type());
  if (address == 0)
    return header.type() == MTF_CAT_FEND_BLK;
  if (length < address + 4)
    return false;
  const unsigned name_length = load<ACE_UINT16>(buffer_.get() + address);
  const unsigned offset = load<ACE_UINT16>(buffer_.get() + address + 2);
  return offset >= address + 4 && offset <= length && name_length <= length - offset;
}

bool Cat_Vol_Blk::set(unsigned short seq, const std::string& name) {
  return set_named(*this, MTF_CAT_VOLB_BLK, seq, name);
}

bool Cat_Dir_Blk::set(unsigned short seq, const std::string& path) {
  return set_named(*this, MTF_CAT_DIRB_BLK, seq, path);
}

} // namespace MTF
