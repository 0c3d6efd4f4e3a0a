#include "platform/mtf/deletion_guard.h"

#include <gtest/gtest.h>

namespace {

Deletion_Limits limits(const char* text) {
  Deletion_Limits limits;
  EXPECT_TRUE(Deletion_Limits::parse(text, limits)) << text;
  return limits;
}

TEST(deletion_guard, without_a_word_half_of_a_set_of_more_than_a_hundred_may_go) {
  const Deletion_Limits usual;
  EXPECT_FALSE(usual.exceeded(100, 100));
  EXPECT_FALSE(usual.exceeded(50, 101));
  EXPECT_TRUE(usual.exceeded(51, 101));
  EXPECT_FALSE(usual.exceeded(100, 200));
  EXPECT_TRUE(usual.exceeded(101, 200));
}

TEST(deletion_guard, what_is_given_holds_for_sets_of_any_size) {
  EXPECT_TRUE(limits("50%").exceeded(2, 3));
  EXPECT_FALSE(limits("50%").exceeded(1, 3));
  EXPECT_TRUE(limits("0%").exceeded(1, 1000));
  EXPECT_FALSE(limits("0%").exceeded(0, 0));
  EXPECT_TRUE(limits("3").exceeded(4, 1000));
  EXPECT_FALSE(limits("3").exceeded(3, 3));
  EXPECT_TRUE(limits("0").exceeded(1, 1));
}

TEST(deletion_guard, a_hundred_per_cent_is_no_limit) {
  EXPECT_FALSE(limits("100%").exceeded(1000, 1000));
  // Where what is gone is counted another way than what was there.
  EXPECT_FALSE(limits("100%").exceeded(1001, 1000));
}

TEST(deletion_guard, large_sets_do_not_overflow) {
  const unsigned long long had = ~0ull;
  EXPECT_TRUE(limits("99%").exceeded(had, had));
  EXPECT_FALSE(limits("99%").exceeded(had / 100 * 98, had));
}

TEST(deletion_guard, what_is_no_limit_is_refused) {
  for (const char* text : {"", "%", "101%", "-1", "-1%", "1.5%", "50 %", "x", "5%%", "1234567890123456789"}) {
    Deletion_Limits limits;
    EXPECT_FALSE(Deletion_Limits::parse(text, limits)) << text;
    EXPECT_FALSE(limits.given) << text;
  }
}

Set_Record set(const char* time, unsigned objects, int missing) {
  Set_Record record;
  record.start_time = time;
  record.figures["objects"] = objects;
  if (missing >= 0)
    record.figures["missing"] = missing;
  return record;
}

TEST(deletion_guard, the_newest_whole_set_says_what_was_there) {
  const Earlier_Sets none = Earlier_Sets::of({});
  EXPECT_EQ(0u, none.newest);
  EXPECT_EQ(0u, none.whole);
  const Earlier_Sets found = Earlier_Sets::of(
      {set("2024-01-03", 30, 5), set("2024-01-01", 10, 0), set("2024-01-02", 20, 0), set("2024-01-04", 0, -1)});
  EXPECT_EQ(0u, found.newest);
  EXPECT_EQ(20u, found.whole);
  const Earlier_Sets torn = Earlier_Sets::of({set("2024-01-01", 10, 1), set("2024-01-02", 7, 2)});
  EXPECT_EQ(7u, torn.newest);
  EXPECT_EQ(7u, torn.whole);
}

TEST(deletion_guard, a_definition_that_says_nothing_has_the_usual_limits) {
  EXPECT_FALSE(deletion_limits(Job_Definition()).given);
  Deletion_Limits own = limits("7");
  own.allow_empty = true;
  const Guarded_Definition guarded(Job_Definition::Settings(), own);
  EXPECT_EQ(7u, deletion_limits(guarded).most);
  EXPECT_TRUE(deletion_limits(guarded).allow_empty);
}

} // namespace
