#include "agent/times.h"

#include "agent/set_choice.h"

#include <gtest/gtest.h>

TEST(Times, are_printed_with_their_zone) {
  EXPECT_EQ("2026-05-01 14:30:15Z", zoned_time("2026-05-01 14:30:15"));
  EXPECT_EQ("2026-05-01T14:30:15Z", json_time("2026-05-01 14:30:15"));
}

TEST(Times, that_are_none_stay_as_they_are) {
  for (const char* text : {"", "-", "yesterday at noon..", "2026-05-01 14:30:15Z"}) {
    EXPECT_EQ(text, zoned_time(text));
    EXPECT_EQ(text, json_time(text));
  }
}

TEST(Times, that_are_printed_are_taken_back) {
  for (const std::string& text : {zoned_time("2026-05-01 14:30:15"), json_time("2026-05-01 14:30:15")}) {
    time_t moment = 0;
    EXPECT_TRUE(parse_moment(text, moment)) << text;
    EXPECT_EQ(1777645815, moment) << text;
  }
}
