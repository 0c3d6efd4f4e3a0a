#pragma once

#include <string>
#include <string_view>

/// What stands in a name field of a block.
struct Dblk_Name {
  std::string utf16; ///< UTF-16LE bytes that fit the field
  bool exact = true; ///< the name itself; else a substitute
};

// Keys are bytes; names on media are UTF-16 and are extracted by others into file systems. A component stands as it
// is when it is UTF-8 of 1 to 255 bytes without NUL or "/" and neither "." nor ".."; any other gets a substitute that
// is unique within its directory: what of it is readable, "~", and 16 hexadecimal digits (the first 8 bytes of its
// SHA-256). A name that already ends like a substitute is substituted too.

/// The name field of a FILE block.
Dblk_Name file_name_field(std::string_view name);
/// The name field of a DIRB block. `path` has a NUL behind each component; empty for the root. A path too long for
/// the field keeps its leading components; one substitute made from all of it stands for the rest.
Dblk_Name directory_name_field(std::string_view path);
/// Any text, cut to `max_units` UTF-16 units; bytes that are not UTF-8 become "%XX".
std::string text_field(std::string_view text, size_t max_units);
