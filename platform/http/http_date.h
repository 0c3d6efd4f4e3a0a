#pragma once

#include <ctime>
#include <string>

/// The moment that an HTTP header's date names, "Sun, 06 Nov 1994 08:49:37 GMT" or one of the older forms; -1 where it
/// names none, or none that a time_t can hold.
time_t parse_http_date(const std::string& text);
