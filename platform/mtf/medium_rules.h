#pragma once

#include "platform/mtf/dblk.h"
#include "platform/mtf/object_image.h"

#include <string>

// What independent readers need of a medium beside whole checksums. A breach costs none of the content that our own
// readers get; it is told by the strict check. Functions of values; any thread.

/// The rule that a descriptor block breaks, in words; empty when it keeps them all. `block` holds it up to its first
/// stream, `header` was read from it.
std::string broken_block_rule(const Dblk_Header& header, const unsigned char* block);

/// The same for a DIRB and the exact path of its folder, with a NUL behind each component. `exact_beside`: the path
/// stands in a stream of its own; else it was read from the name, which must then be exact.
std::string broken_directory_name_rule(const Dblk_Header& header, const unsigned char* block, const std::string& path,
                                       bool exact_beside);

/// The same for a FILE block and the head of its object, which is `sealed` in an encrypted set.
std::string broken_file_rule(const Dblk_Header& header, const unsigned char* block, const Object_Head& head,
                             bool sealed);

/// The same for the header of a stream that belongs to a block of `type`, for a FILE of a `sealed` object.
std::string broken_stream_rule(uint32_t type, const Stream_Header& stream, bool sealed = false);
