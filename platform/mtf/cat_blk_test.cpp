#include "sdk/mtf/cat_blk.h"

#include "sdk/mtf/backup_callback.h"
#include "sdk/mtf/restore_callback.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <list>

namespace {

typedef MTF::Cat_File_Blk_T<MTF::File_Blk, MTF_CAT_DIRB_BLK, MTF_CAT_FILE_BLK> Cat_File_Blk;

std::string hex(const unsigned char* at, size_t count) {
  static const char digits[] = "0123456789ABCDEF";
  std::string text;
  for (size_t i = 0; i < count; ++i) {
    text += digits[at[i] >> 4];
    text += digits[at[i] & 15];
  }
  return text;
}

std::string packed(long long time) {
  unsigned char bytes[5];
  MTF::time_to_mtf_date_time(time, bytes);
  return hex(bytes, 5);
}

long long round_trip(long long time) {
  unsigned char bytes[5];
  MTF::time_to_mtf_date_time(time, bytes);
  return MTF::mtf_date_time_to_time(bytes);
}

TEST(Cat_Header, fields_lie_where_the_format_says_in_little_endian) {
  unsigned char bytes[64] = {};
  MTF::Cat_Hdr header(bytes);
  header.type(MTF_CAT_FILE_BLK);
  header.length(0x01020304);
  header.seq(0x0506);
  header.str_type(1);
  header.backup_set_attr(0x0708090A);
  header.size(0x1112131415161718ull);
  header.ino(0x2122232425262728ull);
  header.check(0x3132);
  EXPECT_EQ("46494C45"
            "04030201"
            "0605"
            "01"
            "00"
            "0A090807",
            hex(bytes, 16));
  EXPECT_EQ("1817161514131211"
            "2827262524232221",
            hex(bytes + 16, 16));
  EXPECT_EQ(std::string(60, '0'), hex(bytes + 32, 30));
  EXPECT_EQ("3231", hex(bytes + 62, 2));
  EXPECT_EQ(0x454C4946u, header.type());
  EXPECT_EQ(0x01020304u, header.length());
  EXPECT_EQ(0x0506, header.seq());
  EXPECT_EQ(1, header.str_type());
  EXPECT_EQ(0x0708090Au, header.backup_set_attr());
  EXPECT_EQ(0x1112131415161718ull, header.size());
  EXPECT_EQ(0x2122232425262728ull, header.ino());
  EXPECT_EQ(0x3132, header.check());
}

TEST(Cat_Header, type_codes_are_their_letters) {
  for (const auto& code : {std::make_pair(MTF_CAT_VOLB_BLK, "VOLB"), std::make_pair(MTF_CAT_DIRB_BLK, "DIRB"),
                           std::make_pair(MTF_CAT_FILE_BLK, "FILE"), std::make_pair(MTF_CAT_FEND_BLK, "FEND")}) {
    unsigned char bytes[64] = {};
    MTF::Cat_Hdr(bytes).type(code.first);
    EXPECT_EQ(0, std::memcmp(bytes, code.second, 4)) << code.second;
  }
}

TEST(Cat_Header, checksum_is_the_xor_of_the_31_words_before_it) {
  unsigned char bytes[64] = {};
  bytes[0] = 0x01;
  bytes[1] = 0x80;
  bytes[60] = 0x10;
  bytes[61] = 0x01;
  bytes[62] = 0xFF;
  EXPECT_EQ(0x8111, MTF::Cat_Hdr(bytes).calc_checksum());
}

TEST(Mtf_Date_Time, known_vector) {
  // 1996-12-31 20:07:30
  EXPECT_EQ("1F333F41DE", packed(852062850));
  const unsigned char bytes[5] = {0x1F, 0x33, 0x3F, 0x41, 0xDE};
  EXPECT_EQ(852062850, MTF::mtf_date_time_to_time(bytes));
}

TEST(Mtf_Date_Time, times_come_back_to_the_second) {
  for (const long long time : {0ll, 1ll, -2ll, 951782399ll, 951782400ll, 1709164800ll, 4102444799ll, 253402300800ll,
                               -62167219200ll, 454861871999ll, -1000000000ll})
    EXPECT_EQ(time, round_trip(time));
}

TEST(Mtf_Date_Time, time_beyond_the_year_field_is_all_zero) {
  for (const long long time : {-62167219201ll, 454861872000ll, LLONG_MAX, LLONG_MIN})
    EXPECT_EQ("0000000000", packed(time)) << time;
}

TEST(Mtf_Date_Time, bytes_that_are_no_date_are_minus_one) {
  const unsigned char none[5] = {};
  EXPECT_EQ(-1, MTF::mtf_date_time_to_time(none));
  const unsigned char ones[5] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
  EXPECT_EQ(-1, MTF::mtf_date_time_to_time(ones));
  const unsigned char hour_24[5] = {0x1F, 0x33, 0x3F, 0x81, 0xDE};
  EXPECT_EQ(-1, MTF::mtf_date_time_to_time(hour_24));
}

TEST(Tape_Address, is_size_then_offset) {
  unsigned char bytes[4];
  MTF::Tape_Address_Setter(bytes).set(0x0102, 0x0304);
  EXPECT_EQ("02010403", hex(bytes, 4));
}

TEST(Cat_Vol, one_nul_byte_is_its_name) {
  MTF::Cat_Vol_Blk blk;
  ASSERT_EQ(69u, MTF::Cat_Vol_Blk::buffer_need(1));
  ASSERT_TRUE(blk.alloc_buffer(MTF::Cat_Vol_Blk::buffer_need(1)));
  ASSERT_TRUE(blk.set(7, std::string(1, '\0')));
  EXPECT_EQ(69u, blk.hdr().length());
  EXPECT_EQ(7, blk.hdr().seq());
  EXPECT_EQ("01004400"
            "00",
            hex(blk.buffer() + 64, 5));
  EXPECT_EQ(std::string(1, '\0'), blk.name());
  EXPECT_EQ(-1, blk.mtime());
  EXPECT_TRUE(blk.valid());
}

TEST(Cat_Dir, keeps_the_nul_behind_each_component) {
  const std::string path("bkt\0a\0", 6);
  MTF::Cat_Dir_Blk blk;
  ASSERT_TRUE(blk.alloc_buffer(MTF::Cat_Dir_Blk::buffer_need(6)));
  ASSERT_TRUE(blk.set(1, path));
  EXPECT_EQ(path, blk.name());
  EXPECT_EQ(static_cast<ACE_UINT32>(MTF_CAT_DIRB_BLK), blk.hdr().type());
  EXPECT_TRUE(blk.valid());
}

TEST(Cat_File, bytes_are_laid_out_as_the_format_says) {
  Cat_File_Blk blk;
  ASSERT_EQ(78u, Cat_File_Blk::buffer_need(5));
  ASSERT_TRUE(blk.alloc_buffer(78));
  ASSERT_TRUE(blk.set(3, "a.txt", 852062850, 0x100000001ull, 0, 0));
  EXPECT_EQ("46494C45"
            "4E000000"
            "0300"
            "01"
            "00"
            "00000000"
            "0100000001000000",
            hex(blk.buffer(), 24));
  EXPECT_EQ("1F333F41DE"
            "0500"
            "4900"
            "612E747874",
            hex(blk.buffer() + 64, 14));
  EXPECT_EQ("a.txt", blk.name());
  EXPECT_EQ(852062850, blk.mtime());
  EXPECT_EQ(blk.hdr().calc_checksum(), blk.hdr().check());
  EXPECT_TRUE(blk.valid());
}

TEST(Cat_File, name_that_does_not_fit_its_buffer_is_refused) {
  Cat_File_Blk blk;
  EXPECT_FALSE(blk.set(1, "a", 0, 0, 0, 0));
  ASSERT_TRUE(blk.alloc_buffer(Cat_File_Blk::buffer_need(4)));
  EXPECT_FALSE(blk.set(1, "a.txt", 0, 0, 0, 0));
  EXPECT_TRUE(blk.set(1, "a.tx", 0, 0, 0, 0));
  MTF::Cat_Dir_Blk dir;
  EXPECT_FALSE(dir.set(1, "a"));
  ASSERT_TRUE(dir.alloc_buffer(MTF::Cat_Dir_Blk::buffer_need(1)));
  EXPECT_FALSE(dir.set(1, "ab"));
  ASSERT_TRUE(dir.alloc_buffer(MTF::Cat_Dir_Blk::buffer_need(70000)));
  EXPECT_FALSE(dir.set(1, std::string(70000, 'x')));
}

TEST(Cat_Block, moving_a_derived_one_keeps_everything) {
  Cat_File_Blk file;
  ASSERT_TRUE(file.alloc_buffer(Cat_File_Blk::buffer_need(3)));
  ASSERT_TRUE(file.set(1, "key", 1000, 5, 0, 0));
  MTF::Cat_Blk blk;
  blk = std::move(file);
  EXPECT_EQ("key", blk.name());
  EXPECT_EQ(1000, blk.mtime());
  EXPECT_EQ(5u, blk.hdr().size());
  EXPECT_TRUE(blk.valid());
  EXPECT_EQ(nullptr, file.buffer());
}

TEST(Cat_Block, any_changed_byte_of_the_header_is_noticed) {
  Cat_File_Blk blk;
  ASSERT_TRUE(blk.alloc_buffer(Cat_File_Blk::buffer_need(3)));
  ASSERT_TRUE(blk.set(1, "key", 1000, 5, 0, 0));
  for (unsigned at = 0; at < MTF::Cat_Hdr::SIZE; ++at) {
    blk.buffer()[at] ^= 0x40;
    EXPECT_FALSE(blk.valid()) << at;
    blk.buffer()[at] ^= 0x40;
  }
  EXPECT_TRUE(blk.valid());
}

TEST(Cat_Block, name_that_leads_outside_the_block_is_empty) {
  Cat_File_Blk blk;
  ASSERT_TRUE(blk.alloc_buffer(Cat_File_Blk::buffer_need(3)));
  ASSERT_TRUE(blk.set(1, "key", 1000, 5, 0, 0));
  MTF::Tape_Address_Setter(blk.buffer() + 69).set(4, 73);
  EXPECT_EQ("", blk.name());
  EXPECT_FALSE(blk.valid());
  MTF::Tape_Address_Setter(blk.buffer() + 69).set(1, 0xFFFF);
  EXPECT_EQ("", blk.name());
  EXPECT_FALSE(blk.valid());
}

TEST(Cat_Block, empty_or_short_one_is_not_valid) {
  MTF::Cat_Blk blk;
  EXPECT_FALSE(blk.valid());
  EXPECT_EQ("", blk.name());
  ASSERT_TRUE(blk.alloc_buffer(63));
  EXPECT_FALSE(blk.valid());
  ASSERT_TRUE(blk.alloc_buffer(64));
  EXPECT_FALSE(blk.valid());
}

MTF::Cat_Blk make_fend() {
  MTF::Cat_Blk blk;
  EXPECT_TRUE(blk.alloc_buffer(MTF::Cat_Hdr::SIZE));
  MTF::Cat_Hdr header = blk.hdr();
  header.type(MTF_CAT_FEND_BLK);
  header.length(MTF::Cat_Hdr::SIZE);
  header.check(header.calc_checksum());
  return blk;
}

TEST(Cat_Block, fend_is_just_a_header) {
  const MTF::Cat_Blk blk = make_fend();
  EXPECT_TRUE(blk.valid());
  EXPECT_EQ("", blk.name());
}

/// Hands out given blocks.
class List_Lister : public MTF::ISrc_Lister {
public:
  bool next(MTF::Cat_Blk& blk) override {
    if (blocks.empty())
      return false;
    blk = std::move(blocks.front());
    blocks.pop_front();
    return true;
  }
  void add_vol() {
    MTF::Cat_Vol_Blk blk;
    EXPECT_TRUE(blk.alloc_buffer(MTF::Cat_Vol_Blk::buffer_need(1)));
    EXPECT_TRUE(blk.set(1, std::string(1, '\0')));
    blocks.push_back(std::move(blk));
  }
  std::list<MTF::Cat_Blk> blocks;
};

TEST(Source_Lister, catalog_is_complete_when_it_ends_with_fend) {
  List_Lister lister;
  lister.add_vol();
  lister.blocks.push_back(make_fend());
  std::vector<ACE_UINT32> types;
  EXPECT_EQ(0, lister.generate([&](std::unique_ptr<MTF::Cat_Blk> blk) {
    types.push_back(blk->hdr().type());
    return true;
  }));
  EXPECT_EQ((std::vector<ACE_UINT32>{MTF_CAT_VOLB_BLK, MTF_CAT_FEND_BLK}), types);
}

TEST(Source_Lister, catalog_without_fend_or_with_a_refused_block_is_a_failure) {
  List_Lister cut;
  cut.add_vol();
  EXPECT_EQ(-1, cut.generate([](std::unique_ptr<MTF::Cat_Blk>) { return true; }));
  List_Lister refused;
  refused.add_vol();
  refused.blocks.push_back(make_fend());
  EXPECT_EQ(-1, refused.generate([](std::unique_ptr<MTF::Cat_Blk>) { return false; }));
  EXPECT_EQ(1u, refused.blocks.size());
}

TEST(Restore_Bases, know_no_folders_links_or_status) {
  class Callback : public MTF::Restore_Callback_Base {
  public:
    char directory_separator() override { return '/'; }
    bool unlink(const char*) override { return true; }
    MTF::IFile_Writer_var make_file_writer() override { return MTF::IFile_Writer_var(); }
  } callback;
  EXPECT_TRUE(callback.make_dir("/a"));
  EXPECT_FALSE(callback.make_link("/a", "b"));

  class Writer : public MTF::File_Writer_Base {
  public:
    MTF::Error_Code open(const char*, ACE_UINT64) override { return MTF::E_OK; }
    bool is_open() override { return false; }
    MTF::Error_Code write(const char*, size_t) override { return MTF::E_OK; }
    MTF::Error_Code close() override { return MTF::E_OK; }
  } writer;
  EXPECT_EQ(MTF::E_OK, writer.set_stat(MTF::Callback_Stat()));
  EXPECT_EQ(MTF::E_OK, writer.sync());
}

} // namespace
