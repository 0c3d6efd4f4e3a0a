#pragma once

#include <string>
#include <vector>

/// Checks paths as an operator types them: "/bucket/", "/bucket/prefix/" or "/bucket/key"; "/bucket" is taken for the
/// bucket. Throws Command_Error (usage) for one that names no bucket.
std::vector<std::string> checked_paths(const std::vector<std::string>& paths);
