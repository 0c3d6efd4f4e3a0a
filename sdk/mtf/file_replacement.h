#pragma once

#include "sdk/mtf/file_attributes.h"

#include <ace/Basic_Types.h>

namespace MTF {

/// The optional side of an IFile_Writer that may replace a file by itself, found by dynamic_cast.
class IFile_Replacement {
public:
  virtual ~IFile_Replacement();
  /// True when `close` puts the file in place of one that is there in a single step: whoever looks finds the old one or
  /// the new one, and a writer that fails or is let go leaves the old one. `unlink` is not asked for such a writer's
  /// files. Asked before `open`.
  virtual bool replaces_at_close() const = 0;
};

/// The optional side of an IPath_Converter that can look at what a file would be written over, found by dynamic_cast.
class IFile_Comparison {
public:
  virtual ~IFile_Comparison();
  /// True when what is at `path`, as `convert` left it, is known to have `size` bytes and the same content as the file
  /// with these attributes; false wherever that is not known. Any thread.
  virtual bool is_same(const char* path, ACE_UINT64 size, const File_Attributes& attributes) const = 0;
};

} // namespace MTF
