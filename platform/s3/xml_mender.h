#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace s3 {

/// Makes a document that XML does not allow readable without losing a byte: keys may hold control characters, U+FFFE or
/// bytes that are not UTF-8, and services put them on a page as they are or as character references. Whatever is not
/// plain ASCII text becomes DEL and two letters, which `restore` turns back behind the parser.
class XML_Mender {
public:
  /// Appends to `out` what may go to the parser; a reference cut by the end of the piece waits for the next.
  void feed(const char* data, size_t size, std::string& out);
  /// Appends what still waits.
  void finish(std::string& out);
  /// The bytes that a mended text stood for.
  static std::string restore(std::string_view text);

private:
  void reference(std::string& out);

  std::string pending_; ///< "&#..." up to a ";", or what may become it
};

} // namespace s3
