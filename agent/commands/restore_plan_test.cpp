#include "agent/commands/restore_plan.h"

#include "agent/context.h"

#include <gtest/gtest.h>

namespace {

typedef std::pair<std::string, std::string> Place;

Place place(const std::vector<std::string>& texts, const std::string& bucket) {
  Bucket_Maps maps;
  for (const std::string& text : texts)
    maps.add(text);
  return maps.target(bucket);
}

TEST(bucket_maps, bucket_without_a_map_goes_back_to_where_it_came_from) {
  EXPECT_EQ(Place("a", ""), place({}, "a"));
  EXPECT_EQ(Place("a", ""), place({"b=c/d"}, "a"));
}

TEST(bucket_maps, own_map_names_bucket_and_prefix) {
  EXPECT_EQ(Place("t", ""), place({"a=t"}, "a"));
  EXPECT_EQ(Place("t", "x/y/"), place({"a=t/x/y"}, "a"));
}

TEST(bucket_maps, end_slash_of_a_prefix_is_the_separator) {
  EXPECT_EQ(Place("t", "x/"), place({"a=t/x/"}, "a"));
  EXPECT_EQ(Place("t", ""), place({"a=t/"}, "a"));
  EXPECT_EQ(Place("t", "x//"), place({"a=t/x//"}, "a"));
}

TEST(bucket_maps, default_map_keeps_the_buckets_apart) {
  EXPECT_EQ(Place("t", "a/"), place({"*=t"}, "a"));
  EXPECT_EQ(Place("t", "x/a/"), place({"*=t/x"}, "a"));
}

TEST(bucket_maps, own_map_comes_before_the_default_one_in_any_order) {
  EXPECT_EQ(Place("own", ""), place({"*=t/x", "a=own"}, "a"));
  EXPECT_EQ(Place("own", ""), place({"a=own", "*=t/x"}, "a"));
}

TEST(bucket_maps, what_is_no_map_is_refused) {
  for (const char* text : {"", "a", "=t", "a=", "a/b=t", "a=/x"})
    EXPECT_THROW(place({text}, "a"), Command_Error) << text;
  EXPECT_THROW(place({"a=t", "a=u"}, "a"), Command_Error);
}

} // namespace
