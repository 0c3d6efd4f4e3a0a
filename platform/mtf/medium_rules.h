#pragma once

#include "platform/mtf/dblk.h"

#include <string>

// What independent readers need of a medium beside whole checksums. A breach costs none of the content that our own
// readers get; it is told by the strict check. Functions of values; any thread.

/// The rule that a descriptor block breaks, in words; empty when it keeps them all. `block` holds it up to its first
/// stream, `header` was read from it.
std::string broken_block_rule(const Dblk_Header& header, const unsigned char* block);

/// The same for the header of a stream that belongs to a block of `type`.
std::string broken_stream_rule(uint32_t type, const Stream_Header& stream);
