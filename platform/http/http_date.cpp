#include "platform/http/http_date.h"

#include <curl/curl.h>

#include <chrono>
#include <limits>
#include <optional>
#include <string_view>

namespace {

/// Where a time_t has 32 bits curl knows no year in which they overflow.
constexpr long long LAST = sizeof(time_t) > 4 ? std::numeric_limits<long long>::max() : 2145916799; // end of 2037
constexpr std::string_view WEEKDAYS = "MonTueWedThuFriSatSun";
constexpr std::string_view MONTHS = "JanFebMarAprMayJunJulAugSepOctNovDec";

std::optional<unsigned> number_at(std::string_view text, size_t at, size_t digits) {
  unsigned number = 0;
  for (const char c : text.substr(at, digits)) {
    if (c < '0' || c > '9')
      return std::nullopt;
    number = 10 * number + static_cast<unsigned>(c - '0');
  }
  return number;
}

/// The form that servers have to send. What has another is nothing, and a matter for curl, which is slower.
std::optional<long long> usual_date(std::string_view text) {
  if (text.size() != 29 || text.substr(3, 2) != ", " || text[7] != ' ' || text[11] != ' ' || text[16] != ' ' ||
      text[19] != ':' || text[22] != ':' || text.substr(25) != " GMT")
    return std::nullopt;
  const size_t weekday = WEEKDAYS.find(text.substr(0, 3));
  const size_t month = MONTHS.find(text.substr(8, 3));
  const auto day = number_at(text, 5, 2), year = number_at(text, 12, 4), hour = number_at(text, 17, 2),
             minute = number_at(text, 20, 2), second = number_at(text, 23, 2);
  if (weekday == std::string_view::npos || weekday % 3 != 0 || month == std::string_view::npos || month % 3 != 0 ||
      !day || !year || !hour || !minute || !second || *hour > 23 || *minute > 59 || *second > 59)
    return std::nullopt;
  const std::chrono::year_month_day date{std::chrono::year(static_cast<int>(*year)),
                                         std::chrono::month(static_cast<unsigned>(month) / 3 + 1),
                                         std::chrono::day(*day)};
  if (!date.ok() || *year < 1970)
    return std::nullopt;
  return std::chrono::sys_days(date).time_since_epoch().count() * 86400LL + *hour * 3600 + *minute * 60 + *second;
}

} // namespace

time_t parse_http_date(const std::string& text) {
  const std::optional<long long> usual = usual_date(text);
  if (!usual || *usual > LAST)
    return curl_getdate(text.c_str(), nullptr);
  return static_cast<time_t>(*usual);
}
