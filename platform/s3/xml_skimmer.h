#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace s3 {

/// Takes an element of a document apart where it is written as services write nearly all of theirs: names of letters
/// and digits, no attributes, printable ASCII, no references but the five named ones, and no text beside elements. A
/// listing is thousands of such elements, and an XML parser's generality costs ten times what they need. What is
/// written otherwise is the parser's.
class XML_Skimmer {
public:
  enum Result {
    WHOLE,    ///< `tags` tells what the element holds
    PARTIAL,  ///< plain as far as it goes; it ends behind the bytes given
    NOT_PLAIN ///< or no element
  };
  /// The beginning of an element, or its end with its own text, references still in it. Valid while the bytes are.
  struct Tag {
    bool start;
    bool escaped; ///< `text` holds references
    std::string_view name;
    std::string_view text;
  };

  /// Looks at the element that begins at `data`; `used` is its size when it is WHOLE.
  Result element(const char* data, size_t size, size_t& used);
  const std::vector<Tag>& tags() const { return tags_; }
  /// The text with its references resolved.
  static void unescape(std::string_view text, std::string& out);

private:
  std::vector<Tag> tags_;
};

} // namespace s3
