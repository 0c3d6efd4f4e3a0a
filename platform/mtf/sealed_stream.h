#pragma once

#include "platform/crypto/set_cipher.h"
#include "platform/mtf/dblk.h"

#include <string>
#include <string_view>

// Small private streams of an object, sealed or not. An encrypted set seals every stream of an object; which stream it
// is, and how long it is, stays to be seen, so that a medium's structure can be checked without the key.
//
// 0 version (0x8001) 2 | 2 zero 2 | 4 plain size 4 | 8 cipher text | tag 16 | XXH3-64 of all before 8

constexpr unsigned SEALED_VERSION = 0x8001;
constexpr unsigned SEALED_FIXED = 8;
/// Bytes that a sealed stream takes beyond its plain data.
constexpr unsigned SEALED_OVERHEAD = SEALED_FIXED + 16 + 8;

/// Appends a private stream with `data`, sealed unless `seal` is null; `out` begins at a multiple of 4 of the medium.
/// An object has at most one stream of an id. Throws std::bad_alloc when memory or the cryptographic library fails.
void append_private_stream(std::string& out, uint32_t id, const Object_Seal* seal, std::string_view data);
/// The data of a private stream as they were given to append_private_stream, in `plain` where they were sealed and else
/// as they are. False with the reason: damaged, of another object, or sealed without a `seal` to open it.
bool open_private_stream(uint32_t id, const Object_Seal* seal, std::string_view data, std::string& plain,
                         std::string_view& opened, std::string& error);
/// Whether what needs no key holds. False with the reason.
bool sealed_stream_holds(std::string_view data, std::string& error);
