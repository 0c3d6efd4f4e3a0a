#include "platform/pool/set_order.h"

#include <gtest/gtest.h>

#include <ctime>

namespace {

Set_In_Order set(const std::string& uuid, unsigned seq, const std::string& time, std::vector<std::string> bases = {}) {
  return {uuid, std::move(bases), seq, time};
}

/// The uuids in their order, one letter each.
std::string order(const std::vector<Set_In_Order>& sets) {
  std::string text;
  for (const size_t place : order_of_sets(sets))
    text += sets[place].uuid;
  return text;
}

const char* const EARLY = "2024-01-01 00:00:00";
const char* const LATE = "2024-01-02 00:00:00";
const char* const AHEAD = "2028-01-01 00:00:00";

TEST(set_order, set_made_under_a_clock_ahead_is_not_the_newest) {
  EXPECT_EQ("abcd", order({set("a", 1, EARLY), set("b", 2, AHEAD), set("c", 3, EARLY), set("d", 4, LATE)}));
  EXPECT_EQ("abcd", order({set("d", 4, LATE), set("c", 3, EARLY), set("b", 2, AHEAD), set("a", 1, EARLY)}));
}

TEST(set_order, base_is_older_whatever_numbers_and_clocks_say) {
  EXPECT_EQ("ba", order({set("a", 1, EARLY, {"b"}), set("b", 2, LATE)}));
  EXPECT_EQ("cba", order({set("a", 1, EARLY, {"b"}), set("b", 2, LATE, {"c"}), set("c", 3, AHEAD)}));
}

TEST(set_order, clocks_tell_where_numbers_are_the_same_or_have_gone_round) {
  EXPECT_EQ("ba", order({set("a", 7, LATE), set("b", 7, EARLY)}));
  EXPECT_EQ("bca", order({set("a", 2, LATE), set("b", 65533, EARLY), set("c", 1, "2024-01-01 12:00:00")}));
  EXPECT_EQ("bca", order({set("a", 2, EARLY), set("b", 65535, EARLY), set("c", 1, EARLY)}));
  // Half of the numbers is still told by them.
  EXPECT_EQ("ab", order({set("a", 1, LATE), set("b", 32768, EARLY)}));
  EXPECT_EQ("ba", order({set("a", 1, LATE), set("b", 32769, EARLY)}));
}

TEST(set_order, bases_that_are_not_there_or_lead_back_count_for_nothing) {
  EXPECT_EQ("", order({}));
  EXPECT_EQ("ab", order({set("b", 2, EARLY, {"gone"}), set("a", 1, LATE)}));
  EXPECT_EQ("ab", order({set("a", 1, EARLY, {"a"}), set("b", 2, EARLY)}));
  EXPECT_EQ("abc", order({set("a", 1, EARLY, {"b"}), set("b", 2, EARLY, {"a"}), set("c", 3, EARLY, {"b"})}));
}

TEST(set_order, wrong_start_times_are_named) {
  const time_t now = static_cast<time_t>(set_time(LATE));
  const auto problems = time_problems({set("a", 1, EARLY), set("b", 2, AHEAD, {"a"}), set("c", 3, LATE, {"b"}),
                                       set("d", 4, EARLY, {"gone"}), set("e", 5, "soon"), set("f", 6, LATE, {"a"})},
                                      now);
  EXPECT_EQ("", problems[0]);
  EXPECT_EQ("its start time 2028-01-01 00:00:00 is later than now", problems[1]);
  EXPECT_EQ("its start time 2024-01-02 00:00:00 is before that of the set b that it was compared with (2028-01-01 "
            "00:00:00)",
            problems[2]);
  EXPECT_EQ("", problems[3]);
  EXPECT_EQ("its start time 'soon' cannot be read", problems[4]);
  EXPECT_EQ("", problems[5]);
}

TEST(set_order, start_times_that_numbers_contradict_are_named) {
  const time_t now = static_cast<time_t>(set_time(LATE)) + 86400;
  const auto problems =
      time_problems({set("c", 3, EARLY), set("a", 1, EARLY), set("b", 2, LATE), set("d", 4, LATE)}, now);
  EXPECT_EQ("its start time 2024-01-01 00:00:00 is before that of the set b (" + std::string(LATE) +
                "), which has a lower number",
            problems[0]);
  for (size_t i = 1; i < problems.size(); ++i)
    EXPECT_EQ("", problems[i]);
  // Where numbers have gone round they contradict nothing.
  EXPECT_EQ("", time_problems({set("a", 2, LATE), set("b", 65533, EARLY)}, now)[1]);
}

TEST(set_order, clocks_of_machines_may_differ_a_little) {
  const time_t now = static_cast<time_t>(set_time(LATE)) - CLOCK_TOLERANCE;
  EXPECT_EQ("", time_problems({set("a", 1, LATE)}, now).front());
  EXPECT_NE("", time_problems({set("a", 1, LATE)}, now - 1).front());
}

} // namespace
