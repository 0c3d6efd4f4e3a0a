#pragma once

#include "platform/mtf/object_stream.h"

#include <algorithm>
#include <cstddef>
#include <limits>

/// The constants that a backup's memory is made of, beside one fixed buffer per channel.
struct Backup_Limits {
  /// Objects up to this size are read ahead whole into memory; larger ones stream through their channel.
  size_t small_object = 1u << 20;
  /// Bytes of objects that are being read or wait to be written, over all channels.
  size_t byte_budget = 64u << 20;
  /// What an object is taken to cost beside its content: its item, its block, the padding, the allocator. Also what
  /// bounds the number of small objects under way.
  size_t object_overhead = 16384;
  /// Objects listed and not yet being read.
  size_t listed_ahead = 4096;
  /// Of the buffer that a streaming object is read through.
  size_t stream_buffer = 256u << 10;
  /// What one medium can check: the digest of an object's chunks is one stream.
  static constexpr unsigned long long LARGEST_ON_MEDIUM = ((MAX_PRIVATE_STREAM - DIGEST_FIXED) / CHECK - 1) * CHUNK;
  /// Objects above it are refused: beside that, a platform's size_t bounds what its readers can count.
  unsigned long long largest_object =
      std::min<unsigned long long>(std::numeric_limits<size_t>::max(), LARGEST_ON_MEDIUM);
  /// Reads one after the other that may give nothing before an object is given up.
  unsigned idle_reads = 8;
};
