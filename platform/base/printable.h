#pragma once

#include <string>
#include <string_view>

/// Text that others wrote, a key or a service's message, as it may stand in one line on a terminal or in a log: it
/// neither moves the cursor, nor begins a line of its own, nor changes the order in which the rest is read. Pure; any
/// thread.
///
/// What is printable UTF-8 stays as it is. The rest becomes "\n", "\t", "\r" or, byte by byte, "\x1b" (always two
/// digits, lower case), and a backslash becomes "\\", so that every text has a form of its own and comes back from it:
/// in a shell $'...' around the form is the text, once a "'" in it is written "\'".
///
/// Not printable are control characters (C0, DEL, C1), the separators of lines and paragraphs, characters that say in
/// which direction text runs, other invisible ones (joiners excepted, which scripts and emoji need) and what is not
/// UTF-8.
std::string printable(std::string_view text);
