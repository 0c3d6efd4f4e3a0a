#include "obs/agent/job/catalog_blocks.h"

#include <gtest/gtest.h>

namespace {

std::string hex(const MTF::Cat_Blk& blk) {
  static const char digits[] = "0123456789ABCDEF";
  std::string text;
  for (unsigned i = 0; i < blk.buffer_size(); ++i) {
    text += digits[blk.buffer()[i] >> 4];
    text += digits[blk.buffer()[i] & 15];
  }
  return text;
}

std::string zeros(size_t bytes) {
  return std::string(2 * bytes, '0');
}

TEST(catalog_blocks, volume_is_named_by_one_nul) {
  const auto blk = catalog_blocks::make_vol(0x1234);
  ASSERT_TRUE(blk);
  // type, length, sequence, string type | rest | checksum | address of the name, name
  EXPECT_EQ("564F4C42"
            "45000000"
            "3412"
            "01"
            "00" +
                zeros(50) +
                "6A1F"
                "01004400"
                "00",
            hex(*blk));
  EXPECT_TRUE(blk->valid());
}

TEST(catalog_blocks, folder_has_a_nul_behind_each_component) {
  const auto blk = catalog_blocks::make_dir(7, "bkt/a/");
  ASSERT_TRUE(blk);
  EXPECT_EQ("44495242"
            "4A000000"
            "0700"
            "01"
            "00" +
                zeros(50) +
                "5A0B"
                "06004400"
                "626B74006100",
            hex(*blk));
  EXPECT_EQ(std::string("bkt\0a\0", 6), blk->name());
  EXPECT_TRUE(blk->valid());
}

TEST(catalog_blocks, file_carries_size_time_and_base_name) {
  // 1996-12-31 20:07:30
  const auto blk = catalog_blocks::make_file(1, "e.txt", 0x0102030405060708ull, 852062850);
  ASSERT_TRUE(blk);
  EXPECT_EQ("46494C45"
            "4E000000"
            "0100"
            "01"
            "00"
            "00000000"
            "0807060504030201" +
                zeros(8) + zeros(30) +
                "4C0C"
                "1F333F41DE"
                "05004900"
                "652E747874",
            hex(*blk));
  EXPECT_EQ("e.txt", blk->name());
  EXPECT_EQ(852062850, blk->mtime());
  EXPECT_TRUE(blk->valid());
}

TEST(catalog_blocks, name_may_be_empty_and_is_bytes) {
  EXPECT_EQ("", catalog_blocks::make_file(1, "", 0, 0)->name());
  EXPECT_EQ("\xFF\x01", catalog_blocks::make_file(1, "\xFF\x01", 0, 0)->name());
}

TEST(catalog_blocks, name_that_a_tape_address_cannot_hold_makes_no_block) {
  EXPECT_TRUE(catalog_blocks::make_file(1, std::string(65535, 'x'), 0, 0));
  EXPECT_FALSE(catalog_blocks::make_file(1, std::string(65536, 'x'), 0, 0));
  EXPECT_FALSE(catalog_blocks::make_dir(1, std::string(65536, 'x')));
}

TEST(catalog_blocks, end_is_a_bare_header) {
  const auto blk = catalog_blocks::make_fend();
  ASSERT_TRUE(blk);
  EXPECT_EQ("46454E44"
            "40000000" +
                zeros(54) + "4801",
            hex(*blk));
  EXPECT_TRUE(blk->valid());
}

} // namespace
