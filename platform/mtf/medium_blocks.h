#pragma once

#include "platform/mtf/dblk.h"
#include "platform/mtf/medium_writer.h"

#include <vector>

// The blocks of a medium beside FILE: each function appends one to `out`, which is empty, with all its streams, from
// one FLB boundary to the next.

/// What a medium says about itself beside what stands in MTF's own fields (the OBSI stream of the volume).
struct Medium_Self {
  unsigned family = 0;
  bool incremental = false;
  long long write_date = 0;
  std::string set_uuid; ///< at most 64 bytes
  std::string set_name; ///< at most 128 bytes
  bool parse(const unsigned char* data, size_t size);
};

/// The data key of an encrypted set, as its media keep it (the OBSK stream of volume and end of set).
struct Medium_Key {
  std::string set_uuid;
  std::string wrapped;
  bool parse(const unsigned char* data, size_t size);
};

/// What the end of the set says about it (the OBST stream).
struct Medium_Totals {
  uint64_t objects = 0;
  uint64_t bytes = 0; ///< of the objects
  bool parse(const unsigned char* data, size_t size);
};

void make_tape(std::string& out, const Medium_Identity& identity);
/// `earlier`: places (in physical blocks) of the soft filemarks before this one, oldest first.
void make_filemark(std::string& out, uint64_t block, const std::vector<uint64_t>& earlier);
void make_set_start(std::string& out, const Medium_Identity& identity);
void make_volume(std::string& out, const Medium_Identity& identity, uint32_t control_id);
/// `path` has a NUL behind each component; empty for the root.
void make_directory(std::string& out, const std::string& path, uint32_t directory_id, uint64_t fla,
                    uint32_t control_id);
/// With `open` the padding is left to the caller, who has further streams to append.
void make_set_end(std::string& out, const Medium_Identity& identity, const Medium_Totals& totals, uint64_t block,
                  uint32_t control_id, bool open = false);

/// Reads the data of an OBSN stream: the directory's exact path.
bool parse_directory_path(const unsigned char* data, size_t size, std::string& path);
