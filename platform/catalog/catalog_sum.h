#pragma once

#include <string>

// The check of a finished catalog's file, in a file beside it: `catalog.sum`, 32 hexadecimal digits and a line end, the
// XXH3-128 of `catalog.db`. Whoever replaces the catalog drops the check first and writes it anew afterwards, so that a
// crash in between leaves a catalog without one, never with a wrong one. Any thread.

/// Puts the finished catalog in the folder `work` in the place of the one in `folder`, which stays until then, and
/// makes its check, all durably. False with the reason.
bool install_catalog(const std::string& work, const std::string& folder, std::string& error);
/// Makes the check of the catalog in `folder`, durably. False with the reason.
bool write_catalog_sum(const std::string& folder, std::string& error);
/// Reads the catalog in `folder` and compares it with its check, where there is one; `missing`, when given, tells that
/// there is none. False with the reason: they differ, or cannot be read.
bool check_catalog_sum(const std::string& folder, std::string& error, bool* missing = nullptr);
