#include "platform/mtf/source_order.h"

#include <gtest/gtest.h>

namespace {

typedef std::list<std::string> List;

TEST(Source_Order, object_above_a_chosen_folder_comes_before_it) {
  EXPECT_EQ((List{"/b/x/f", "/b/x/y/"}), arrange_sources({"/b/x/y/", "/b/x/f"}));
  EXPECT_EQ((List{"/b/z", "/b/a/"}), arrange_sources({"/b/a/", "/b/z"}));
}

TEST(Source_Order, what_a_folder_takes_in_is_dropped) {
  EXPECT_EQ((List{"/b/"}), arrange_sources({"/b/x/", "/b/k", "/b/"}));
  EXPECT_EQ((List{"/b"}), arrange_sources({"/b/x/", "/b"}));
  EXPECT_EQ((List{"/b/x/"}), arrange_sources({"/b/x/y/deep/f", "/b/x/", "/b/x/y/"}));
}

TEST(Source_Order, the_same_source_twice_is_one) {
  EXPECT_EQ((List{"/b/"}), arrange_sources({"/b/", "/b/"}));
  EXPECT_EQ(1u, arrange_sources({"/b/", "/b"}).size());
  EXPECT_EQ((List{"/b/k"}), arrange_sources({"/b/k", "/b/k"}));
}

TEST(Source_Order, names_that_only_begin_alike_are_kept) {
  EXPECT_EQ((List{"/b/x", "/b/x/", "/b/xy/", "/bb/"}), arrange_sources({"/bb/", "/b/xy/", "/b/x/", "/b/x"}));
}

TEST(Source_Order, separator_comes_before_every_byte) {
  EXPECT_EQ((List{"/b/x/y/", "/b/x!/"}), arrange_sources({"/b/x!/", "/b/x/y/"}));
}

TEST(Source_Order, keys_are_bytes) {
  EXPECT_EQ((List{"/b//", "/b/./", "/b/../k"}), arrange_sources({"/b/../k", "/b/./", "/b//"}));
}

TEST(Source_Order, entries_that_name_nothing_stay_in_front) {
  EXPECT_EQ((List{"", "/", "/b/"}), arrange_sources({"/b/", "", "/"}));
}

} // namespace
