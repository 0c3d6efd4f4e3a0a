#include "sdk/base/time_format.h"

namespace {

std::string format_time(const tm& parts, const char* format) {
  if (format == nullptr || *format == '\0')
    return std::string();
  // strftime answers 0 both for a buffer that is too small and for an empty result ("%p" in some locales), so the
  // text gets one byte more that is cut off again.
  const std::string longer = std::string(format) + " ";
  std::string text(64, '\0');
  while (text.size() <= 64 * 1024) {
    const size_t length = strftime(&text[0], text.size(), longer.c_str(), &parts);
    if (length > 0) {
      text.resize(length - 1);
      return text;
    }
    text.resize(text.size() * 4);
  }
  return std::string();
}

} // namespace

POSIX_Time_To_ISO8601::POSIX_Time_To_ISO8601(time_t time, const char* format) {
  tm parts = {};
  if (gmtime_r(&time, &parts) != nullptr)
    text_ = format_time(parts, format);
}

POSIX_Time_To_ISO8601_Local::POSIX_Time_To_ISO8601_Local(time_t time, const char* format) {
  tm parts = {};
  if (localtime_r(&time, &parts) != nullptr)
    text_ = format_time(parts, format);
}
