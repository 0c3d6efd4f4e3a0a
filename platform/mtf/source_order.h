#pragma once

#include <list>
#include <string>

/// Puts a backup's sources ("/bucket/", "/bucket/prefix/", "/bucket/key") into the catalog's order and drops what
/// another source takes in already, so that a listing never goes back from a folder to one above it: catalog blocks
/// name a folder when it is entered, and not when it is come back to. Empty entries and "/" stay, at the front.
std::list<std::string> arrange_sources(std::list<std::string> sources);
