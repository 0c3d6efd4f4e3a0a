#include "sdk/base/check.h"
#include "sdk/base/path.h"
#include "sdk/base/time_format.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <limits>

namespace {

TEST(Time_Format, utc_text_in_both_usual_forms) {
  EXPECT_EQ("2001-09-09T01:46:40Z", POSIX_Time_To_ISO8601(1000000000).str());
  EXPECT_STREQ("2001-09-09 01:46:40", POSIX_Time_To_ISO8601(1000000000, "%Y-%m-%d %H:%M:%S").c_str());
  EXPECT_EQ("1970-01-01T00:00:00Z", POSIX_Time_To_ISO8601(0).str());
  EXPECT_EQ("1969-12-31T23:59:59Z", POSIX_Time_To_ISO8601(-1).str());
}

TEST(Time_Format, a_time_that_time_t_cannot_hold_becomes_the_nearest_it_can) {
  EXPECT_EQ(1700000000, to_time_t(1700000000));
  EXPECT_EQ(-1, to_time_t(-1));
  const long long late = 4102358400;
  if (sizeof(time_t) > 4) {
    EXPECT_EQ(late, static_cast<long long>(to_time_t(late)));
  } else {
    EXPECT_EQ(std::numeric_limits<time_t>::max(), to_time_t(late));
    EXPECT_EQ(std::numeric_limits<time_t>::min(), to_time_t(-late));
  }
}

TEST(Time_Format, local_text_follows_the_machines_zone) {
  const char* before = getenv("TZ");
  const std::string kept = before != nullptr ? before : "";
  setenv("TZ", "XXX-2", 1);
  tzset();
  EXPECT_EQ("1970-01-01T02:00:00", POSIX_Time_To_ISO8601_Local(0).str());
  EXPECT_EQ("1970-01-01T00:00:00Z", POSIX_Time_To_ISO8601(0).str());
  if (before != nullptr)
    setenv("TZ", kept.c_str(), 1);
  else
    unsetenv("TZ");
  tzset();
}

TEST(Time_Format, long_format_is_not_cut) {
  std::string format;
  for (int i = 0; i < 100; ++i)
    format += "%Y ";
  EXPECT_EQ(500u, POSIX_Time_To_ISO8601(0, format.c_str()).str().size());
}

TEST(Time_Format, nothing_comes_of_an_empty_format_or_a_time_beyond_the_calendar) {
  EXPECT_EQ("", POSIX_Time_To_ISO8601(0, "").str());
  EXPECT_EQ("", POSIX_Time_To_ISO8601(0, nullptr).str());
  if (sizeof(time_t) == 8) {
    EXPECT_EQ("", POSIX_Time_To_ISO8601(std::numeric_limits<time_t>::max()).str());
  }
}

TEST(Path, one_separator_before_each_component_and_no_byte_touched) {
  scrt::Path_T<char> path('/');
  path /= "a";
  path /= "";
  path.append("/b/");
  EXPECT_EQ("/a//b/", path.str());
}

TEST(Path, basename_and_dirname_split_at_the_last_separator) {
  EXPECT_EQ("c", scrt::basename("a/b/c", '/'));
  EXPECT_EQ("", scrt::basename("a/b/", '/'));
  EXPECT_EQ("a", scrt::basename("a", '/'));
  EXPECT_EQ("a/b", scrt::dirname("a/b/c", '/'));
  EXPECT_EQ("", scrt::dirname("a", '/'));
}

int answer_for(const char* pointer) {
  CHECK_NULL_RETURN(pointer, -1);
  return 0;
}

TEST(Check, null_pointer_fails_the_operation_with_its_result) {
  EXPECT_EQ(0, answer_for("x"));
  EXPECT_EQ(-1, answer_for(nullptr));
}

} // namespace
