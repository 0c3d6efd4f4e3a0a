#pragma once

#include "platform/mtf/medium_source.h"

#include <functional>
#include <string>

// A set's first medium ends with a copy of what lies beside the media: the set's record, as far as the run knew it, and
// its catalog. So a set can be made whole again from its media alone, whatever sets its data lie in. The copy stands in
// streams of the end-of-set block: OBSR the record, then OBSL one chunk of the catalog's file each.
//
// Some readers step from FLB to FLB behind this block and take whatever begins like a block for one. So four zero bytes
// are put in wherever the data of these streams come to an FLB boundary. Media of the first version have none.

/// What is to be copied.
struct Set_Copy {
  std::string record;  ///< JSON
  std::string catalog; ///< path of the catalog's file, closed
};

/// Writes the streams of `copy` through `put`, which gets them piece by piece, each a multiple of 4 bytes long. The
/// first one will stand at `place` of the medium, a multiple of 4. False with the reason. Throws std::bad_alloc.
bool write_set_copy(const Set_Copy& copy, unsigned long long place, const std::function<bool(const std::string&)>& put,
                    std::string& error);

/// Whether the data of an OBSR or OBSL stream hold together, which `data` begins with.
bool set_copy_holds(Medium_Window& window, const Medium_Stream& stream, std::string& error);

/// Finds the end-of-set block of a finished medium.
bool find_set_end(Medium_Window& window, unsigned long long size, unsigned long long& offset, std::string& error);

/// Reads the copy at the end of a medium: the record, and the catalog piece by piece to `take`, which returns false to
/// stop. Every piece is checked before it is handed out. False with the reason: there is none, or it is damaged.
bool read_set_copy(const std::string& path, std::string& record, const std::function<bool(const char*, size_t)>& take,
                   std::string& error);
