#pragma once

#include <string>

/// Times of sets and objects as the program keeps them, "2026-05-01 14:30:15" in UTC, in the forms in which they are
/// printed. What is in no such form, as the time of a record that says none, stays as it is.

/// For people: "2026-05-01 14:30:15Z", which "restore --as-of" takes.
std::string zoned_time(const std::string& time);
/// For JSON: "2026-05-01T14:30:15Z".
std::string json_time(const std::string& time);
