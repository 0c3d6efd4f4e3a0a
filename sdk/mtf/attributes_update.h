#pragma once

#include "sdk/mtf/file_attributes.h"

namespace MTF {

/// The optional side of an IFile_Reader that can ask for attributes without reading the file, found by dynamic_cast: for
/// files whose content is stored already.
class IFile_Attributes_Update {
public:
  virtual ~IFile_Attributes_Update();
  /// Whether anything is wanted that these attributes do not tell, or may tell no longer. Costs no request; whatever the
  /// reader is at.
  virtual bool lacks(const File_Attributes& attributes) = 0;
  /// Asks for that about the file `path`, as the lister gave it, and puts it into `attributes`. What could not be had
  /// stays as it was, and `problems` gets a text for each. While nothing is open.
  virtual void update(const char* path, File_Attributes& attributes, std::vector<std::string>& problems) = 0;
};

} // namespace MTF
