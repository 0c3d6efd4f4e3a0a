#include "platform/http/http_date.h"

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <random>

namespace {

std::string usual(time_t time) {
  char text[64];
  tm parts = {};
  gmtime_r(&time, &parts);
  std::strftime(text, sizeof text, "%a, %d %b %Y %H:%M:%S GMT", &parts);
  return text;
}

TEST(http_date, usual_form_is_the_moment_that_it_was_made_from) {
  EXPECT_EQ(784111777, parse_http_date("Sun, 06 Nov 1994 08:49:37 GMT"));
  std::mt19937 random(1);
  for (unsigned i = 0; i < 20000; ++i) {
    const time_t time = static_cast<time_t>(random() % 2145916800);
    EXPECT_EQ(time, parse_http_date(usual(time))) << usual(time);
  }
  EXPECT_EQ(951782399, parse_http_date("Mon, 28 Feb 2000 23:59:59 GMT"));
  EXPECT_EQ(951782400, parse_http_date("Tue, 29 Feb 2000 00:00:00 GMT"));
  if (sizeof(time_t) > 4) {
    EXPECT_EQ(4102444800LL, static_cast<long long>(parse_http_date("Fri, 01 Jan 2100 00:00:00 GMT")));
  }
}

TEST(http_date, other_forms_are_taken_as_well) {
  for (const char* text : {"Sunday, 06-Nov-94 08:49:37 GMT", "Sun Nov  6 08:49:37 1994", "06 Nov 1994 08:49:37",
                           "Sun, 06 Nov 1994 10:49:37 +0200"})
    EXPECT_EQ(784111777, parse_http_date(text)) << text;
}

TEST(http_date, what_is_no_date_is_none) {
  for (const char* text : {"", "soon", "Sun, 06 Nov 1994 08:49:xx GMT", "Sun, 06 Foo 1994 08:49:37 GMT",
                           "Sun, 06 anF 1994 08:49:37 GMT", "Sun, 06 Nov 1994 25:49:37 GMT"})
    EXPECT_EQ(-1, parse_http_date(text)) << text;
}

// Whatever a service sends: faster, but never something else than before.
TEST(http_date, any_text_gives_what_curl_makes_of_it) {
  std::mt19937 random(2);
  const std::string letters = "0123456789:, GMTJanSunFebDec+-";
  for (unsigned i = 0; i < 50000; ++i) {
    std::string text = usual(static_cast<time_t>(random() % 2145916800));
    for (unsigned changes = random() % 4; changes > 0; --changes)
      text[random() % text.size()] = letters[random() % letters.size()];
    EXPECT_EQ(curl_getdate(text.c_str(), nullptr), parse_http_date(text)) << '"' << text << '"';
  }
}

} // namespace
