#pragma once

#include <cstdint>
#include <string>

/// What made-up objects consist of: a piece that is repeated, as memory and as a file to send from.
struct Pattern {
  static constexpr uint64_t SIZE = 16u << 20;

  enum Kind {
    NOISE, ///< does not compress
    TEXT,  ///< words in no order and numbers: compresses to less than half, slowly
    LOG,   ///< lines of a web server's log: compresses to a tenth
    KINDS
  };
  /// "", "text" or "log"; false when it is none.
  static bool parse(const std::string& name, Kind& kind);
  /// Made once for the life of the process. Without bytes, and with `errno`, where there is no memory.
  static Pattern make(Kind kind);

  int fd = -1;
  const char* bytes = nullptr;
};
