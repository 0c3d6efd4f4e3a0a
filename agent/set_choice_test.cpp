#include "agent/set_choice.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace {

time_t moment_of(const std::string& text) {
  time_t moment = 0;
  EXPECT_TRUE(parse_moment(text, moment)) << text;
  return moment;
}

struct Zone {
  explicit Zone(const char* name) {
    setenv("TZ", name, 1);
    tzset();
  }
  ~Zone() {
    unsetenv("TZ");
    tzset();
  }
};

} // namespace

TEST(Moment, stands_for_the_last_second_that_it_covers) {
  EXPECT_EQ(1777645815, moment_of("2026-05-01 14:30:15Z"));
  EXPECT_EQ(1777645859, moment_of("2026-05-01 14:30Z"));
  EXPECT_EQ(1777679999, moment_of("2026-05-01Z"));
  EXPECT_EQ(1777645815, moment_of("2026-05-01T14:30:15.75Z"));
}

TEST(Moment, has_its_zone_or_the_local_one) {
  const Zone zone("EST5");
  EXPECT_EQ(1777645815, moment_of("2026-05-01 16:30:15+02:00"));
  EXPECT_EQ(1777645815, moment_of("2026-05-01 16:30:15 +0200"));
  EXPECT_EQ(1777645815, moment_of("2026-05-01 12:30:15 -02"));
  EXPECT_EQ(1777645815, moment_of("2026-05-01 14:30:15 UTC"));
  EXPECT_EQ(1777645815, moment_of("2026-05-01 09:30:15")) << "local";
  EXPECT_EQ(1777679999, moment_of("2026-05-01 Z"));
  EXPECT_EQ(1777679999 + 5 * 3600, moment_of("2026-05-01"));
}

TEST(Moment, that_makes_no_sense_is_refused) {
  for (const char* text :
       {"", "latest", "2026", "2026-05", "2026-13-01", "2026-02-30", "2026-05-32", "2026-05-01 24:00", "2026-05-01 14",
        "2026-05-01 14:60", "2026-05-01 14:30:60", "2026-05-01 14:30 CEST", "2026-05-01 14:30+2",
        "2026-05-01 14:30+99:00", "2026-05-01 14:30Zx", "01.05.2026", "2026-05-01 14:30:", "2026-05-01 14:30:15.",
        "2026-5-1"}) {
    time_t moment = 7;
    EXPECT_FALSE(parse_moment(text, moment)) << text;
    EXPECT_EQ(7, moment) << text;
  }
}

TEST(Latest, is_named_alone_or_with_a_selection) {
  EXPECT_TRUE(names_latest("latest"));
  EXPECT_TRUE(names_latest("latest:photos"));
  EXPECT_FALSE(names_latest("latest2"));
  EXPECT_FALSE(names_latest("late"));
  EXPECT_FALSE(names_latest(""));
}
