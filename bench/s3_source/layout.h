#pragma once

#include "bench/s3_source/pattern.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

/// A bucket whose keys and contents are made up as they are asked for: a tree with the same number of folders in each
/// folder of a level, and the same number of objects in each folder of the last. Names have numbers of a fixed width,
/// so that the order of the keys is the order of their numbers. A value; read by any thread.
class Layout {
public:
  /// `text`: "NAME:4x100x100:4096" for 4 folders of 100 folders of 100 objects of 4096 bytes each, ":text" or
  /// ":log" behind it for contents that compress. False when it makes no sense.
  bool parse(const std::string& text);

  const std::string& name() const { return name_; }
  uint64_t objects() const { return objects_; }
  uint64_t object_size() const { return size_; }
  Pattern::Kind pattern() const { return pattern_; }
  /// Appends the key of the object `number`, from 0.
  void append_key(uint64_t number, std::string& out) const;
  /// The number of the key, or `objects` when there is no such key.
  uint64_t find(std::string_view key) const;
  /// The first object whose key is not smaller than `text`.
  uint64_t lower_bound(std::string_view text) const;

private:
  std::string name_;
  std::vector<uint64_t> counts_;
  std::vector<uint64_t> below_; ///< by level: objects in one folder of it
  uint64_t objects_ = 0;
  uint64_t size_ = 0;
  Pattern::Kind pattern_ = Pattern::NOISE;
};
