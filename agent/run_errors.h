#pragma once

#include "sdk/json/json_spirit.h"

#include <string>
#include <vector>

/// Whether a line is about an object or folder: lines write its path with or without the first "/", or its key alone in
/// quotes. Never for an empty path.
bool is_about(const std::string& line, std::string path);

/// Adds each of a run's error lines that its account says nothing of to the account's "errors", as a problem of the
/// job `name`: {"type": "job", "name", "errno": null, "message"}. A line is one of the account when an entry's message
/// or path is in it. Lines that say the same are one. An account of 1,000 errors and more is left as it is: it does not
/// list them all. Returns how many were added; "problems" counts them too.
unsigned long long name_uncovered_errors(json_spirit::Object& figures, const std::string& name,
                                         const std::vector<std::string>& lines);
