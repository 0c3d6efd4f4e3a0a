#include "sdk/mtf/filter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

namespace {

bool before(const std::string& a, const std::string& b) {
  return MTF::compare(a, b, '/');
}

TEST(Path_Order, separator_comes_before_every_other_byte) {
  EXPECT_TRUE(before("a/b", "a b"));
  EXPECT_TRUE(before("a/z", "a\x01"));
  EXPECT_TRUE(before("a/z", std::string("a\0b", 3)));
  EXPECT_FALSE(before("a!", "a/"));
  EXPECT_TRUE(before("a", "a/"));
  EXPECT_TRUE(before("a/", "a/b"));
}

TEST(Path_Order, bytes_are_compared_unsigned) {
  EXPECT_TRUE(before("a", "\xC3\xA9"));
  EXPECT_FALSE(before("\xFF", "z"));
  EXPECT_TRUE(before("", "a"));
  EXPECT_FALSE(before("", ""));
  EXPECT_FALSE(before("same", "same"));
}

TEST(Path_Order, sorting_keeps_every_folder_together) {
  std::vector<std::string> paths = {"b/c", "a.txt", "a/z", "a", "b", "a/b/c", "a-b", "a/b"};
  std::sort(paths.begin(), paths.end(), before);
  EXPECT_EQ((std::vector<std::string>{"a", "a/b", "a/b/c", "a/z", "a-b", "a.txt", "b", "b/c"}), paths);
}

TEST(Path_Order, is_strict_and_total) {
  std::vector<std::string> paths;
  const std::string bytes("\0/a\xFF", 4);
  for (const char x : bytes)
    for (const char y : bytes) {
      paths.push_back(std::string(1, x));
      paths.push_back(std::string(1, x) + y);
    }
  for (const std::string& a : paths)
    for (const std::string& b : paths) {
      EXPECT_EQ(a != b, before(a, b) || before(b, a));
      EXPECT_FALSE(before(a, b) && before(b, a));
      for (const std::string& c : paths) {
        if (before(a, b) && before(b, c)) {
          EXPECT_TRUE(before(a, c));
        }
      }
    }
}

TEST(Path_Relationship, folder_contains_what_begins_with_it) {
  EXPECT_EQ(1, MTF_FS::parent_relationship("/b/x/", "/b/"));
  EXPECT_EQ(1, MTF_FS::parent_relationship("/b/key", "/b/"));
  EXPECT_EQ(2, MTF_FS::parent_relationship("/b/", "/b/x/"));
  EXPECT_EQ(2, MTF_FS::parent_relationship("/b/", "/b/"));
  EXPECT_EQ(2, MTF_FS::parent_relationship("/b/key", "/b/key"));
}

TEST(Path_Relationship, similar_names_are_strangers) {
  EXPECT_EQ(0, MTF_FS::parent_relationship("/b/x/", "/b/xy/"));
  EXPECT_EQ(0, MTF_FS::parent_relationship("/b/xy/", "/b/x/"));
  EXPECT_EQ(0, MTF_FS::parent_relationship("/b/key", "/b/key2"));
  EXPECT_EQ(0, MTF_FS::parent_relationship("/b/key", "/b/key/x"));
  EXPECT_EQ(0, MTF_FS::parent_relationship("", "/b/"));
}

TEST(Path_Common_Parent, ends_behind_the_last_shared_slash) {
  EXPECT_EQ(0u, MTF_FS::common_parent("", ""));
  EXPECT_EQ(0u, MTF_FS::common_parent("", "a/b"));
  EXPECT_EQ(2u, MTF_FS::common_parent("a/b", "a/c"));
  EXPECT_EQ(2u, MTF_FS::common_parent("a/b", "a/b/c"));
  EXPECT_EQ(4u, MTF_FS::common_parent("a/b/", "a/b/c"));
  EXPECT_EQ(4u, MTF_FS::common_parent("a/b/", "a/b/"));
  EXPECT_EQ(0u, MTF_FS::common_parent("ab/c", "a/c"));
  EXPECT_EQ(0u, MTF_FS::common_parent("x/b/", "y/b/"));
  EXPECT_EQ(3u, MTF_FS::common_parent("a//b", "a//c"));
}

TEST(Filter, absent_one_lets_everything_pass) {
  class No_Folders : public MTF::IFilter {
  public:
    bool is_included(const char*, bool is_dir) const override { return !is_dir; }
  } filter;
  EXPECT_TRUE(MTF::is_included("/b/", true, nullptr));
  EXPECT_FALSE(MTF::is_included("/b/", true, &filter));
  EXPECT_TRUE(MTF::is_included("/b/k", false, &filter));
}

} // namespace
