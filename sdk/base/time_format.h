#pragma once

#include <ctime>
#include <limits>
#include <string>

/// `seconds` since the epoch as the C library's time, or the nearest that it can hold where that has 32 bits.
constexpr time_t to_time_t(long long seconds) {
  constexpr long long least = std::numeric_limits<time_t>::min(), most = std::numeric_limits<time_t>::max();
  return static_cast<time_t>(seconds < least ? least : seconds > most ? most : seconds);
}

/// A time as text in UTC.
class POSIX_Time_To_ISO8601 {
public:
  /// `time` in seconds since the epoch, `format` as strftime takes it.
  explicit POSIX_Time_To_ISO8601(time_t time, const char* format = "%Y-%m-%dT%H:%M:%SZ");
  const std::string& str() const { return text_; }
  const char* c_str() const { return text_.c_str(); }

private:
  std::string text_;
};

/// The same in the machine's local time.
class POSIX_Time_To_ISO8601_Local {
public:
  explicit POSIX_Time_To_ISO8601_Local(time_t time, const char* format = "%Y-%m-%dT%H:%M:%S");
  const std::string& str() const { return text_; }
  const char* c_str() const { return text_.c_str(); }

private:
  std::string text_;
};
