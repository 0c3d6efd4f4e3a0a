#include "platform/mtf/source_watch.h"

#include <gtest/gtest.h>

namespace {

typedef std::vector<std::string> Paths;

TEST(source_watch, a_prefix_with_nothing_below_it_is_empty) {
  Source_Watch watch({"/b/p/", "/b/q/r/", "/b/s/", "/b/key"});
  EXPECT_EQ(Paths({"b/p/", "b/q/r/", "b/s/"}), watch.empty());
  watch.saw("b/q/r/deep/key");
  watch.saw("b/pp/key");
  watch.saw("c/p/key");
  EXPECT_EQ(Paths({"b/p/", "b/s/"}), watch.empty());
  watch.saw("b/p/");
  watch.saw("b/s/key");
  EXPECT_EQ(Paths(), watch.empty());
}

TEST(source_watch, of_folders_within_each_other_each_is_seen_by_itself) {
  Source_Watch watch({"/b/p/", "/b/p/typo/", "/b/p/there/"});
  watch.saw("b/p/there/key");
  EXPECT_EQ(Paths({"b/p/typo/"}), watch.empty());
}

TEST(source_watch, a_bucket_may_be_empty_unless_something_was_in_it) {
  Source_Watch watch({"/new/", "/was", "/full/"});
  watch.saw("full/key");
  EXPECT_EQ(Paths(), watch.empty());
  watch.gone("was/a/key");
  watch.gone("full/other");
  watch.gone("elsewhere/key");
  EXPECT_EQ(Paths({"was/"}), watch.empty());
}

TEST(source_watch, what_could_not_be_listed_is_not_called_empty) {
  Source_Watch watch({"/b/p/", "/b/q/", "/c/p/"});
  watch.unlisted("b/p/below/");
  EXPECT_EQ(Paths({"b/q/", "c/p/"}), watch.empty());
  watch.unlisted("b/");
  EXPECT_EQ(Paths({"c/p/"}), watch.empty());
  watch.unlisted("");
  EXPECT_EQ(Paths(), watch.empty());
}

TEST(source_watch, the_whole_account_is_no_folder) {
  Source_Watch all({"", "/"});
  EXPECT_EQ(Paths(), all.empty());
  Source_Watch none({});
  none.saw("b/k");
  EXPECT_EQ(Paths(), none.empty());
}

} // namespace
