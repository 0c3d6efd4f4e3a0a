#pragma once

#include <string>
#include <vector>

namespace MTF {

/// What belongs to a file beside path, dates and content, in the resource's own words: two JSON objects as text,
/// empty where there is nothing. The engines keep them and give them back; they look at nothing inside.
struct File_Attributes {
  std::string common; ///< what many files have alike; a catalog keeps each text once
  std::string own;    ///< what only this file has

  bool empty() const { return common.empty() && own.empty(); }
};

/// The optional side of an IFile_Reader that can tell attributes, found by dynamic_cast.
class IFile_Attributes_Source {
public:
  virtual ~IFile_Attributes_Source();
  /// Tells about the file that is open. Appends to `problems` a text for each thing that is known to be there and
  /// could not be had: the file is saved without it, and the outcome names it.
  virtual void attributes(File_Attributes& attributes, std::vector<std::string>& problems) = 0;
};

/// The optional side of an IFile_Writer that takes attributes, found by dynamic_cast.
class IFile_Attributes_Sink {
public:
  virtual ~IFile_Attributes_Sink();
  /// For the file of the next `open`.
  virtual void attributes(const File_Attributes& attributes) = 0;
  /// What the file closed last was not given, a text for each.
  virtual const std::vector<std::string>& refused() const = 0;
};

} // namespace MTF
