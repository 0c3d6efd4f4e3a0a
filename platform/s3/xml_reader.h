#pragma once

#include "platform/s3/xml_mender.h"
#include "platform/s3/xml_skimmer.h"

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

struct XML_ParserStruct;

namespace s3 {

/// Reads an XML document as it comes in and tells of each element's end. Documents with a document type, with more
/// levels, longer texts or more bytes than any service's answer are refused: what comes in was written by others.
class XML_Reader {
public:
  XML_Reader();
  virtual ~XML_Reader();
  XML_Reader(const XML_Reader&) = delete;
  XML_Reader& operator=(const XML_Reader&) = delete;

  /// Reads characters and bytes that XML does not allow, too. Before the first `feed`.
  void mend() { mends_ = true; }
  /// Sends everything through the XML parser, plain elements too; for comparing. Before the first `feed`.
  void parse_everything() { skims_ = false; }
  /// False when the document is refused; `problem` says why, and what follows is ignored.
  bool feed(const char* data, size_t size);
  /// True when the document was whole.
  bool finish();
  bool failed() const { return !problem_.empty(); }
  const std::string& problem() const { return problem_; }
  /// Bytes fed so far.
  size_t size() const { return size_; }

protected:
  /// The names from the root's child down to the element ("Contents", "Owner", "ID"); `root` stands apart.
  typedef std::vector<std::string> Path;

  /// An element begins; for records that are gathered from several elements.
  virtual void begin(const Path& path);
  /// Whether anybody wants to know of the element's end. What nobody wants is not put together.
  virtual bool wants(const Path& path) const;
  /// An element that is wanted has ended. `text` is its own text; may be moved from.
  virtual void end(const Path& path, std::string& text) = 0;
  /// The root's name is known. False refuses the document.
  virtual bool accepts(const std::string& root) = 0;
  void refuse(const std::string& why);
  const std::string& root() const { return root_; }

  /// True when `path` is exactly these names.
  static bool is(const Path& path, std::string_view a);
  static bool is(const Path& path, std::string_view a, std::string_view b);
  static bool is(const Path& path, std::string_view a, std::string_view b, std::string_view c);

private:
  struct Parser_Return {
    void operator()(XML_ParserStruct* parser) const;
  };
  static XML_ParserStruct* take_parser();
  static void on_start(void* self, const char* name, const char** attributes);
  static void on_end(void* self, const char* name);
  static void on_text(void* self, const char* text, int size);
  static void on_doctype(void* self, const char*, const char*, const char*, int);
  void stop(const char* why);
  void take(const char* data, size_t size);
  void parse(const char* data, size_t size);
  void tell(const std::vector<XML_Skimmer::Tag>& tags);

  std::unique_ptr<XML_ParserStruct, Parser_Return> parser_;
  std::string problem_;
  std::string root_;
  Path path_;
  size_t depth_ = 0;
  std::string text_;
  size_t size_ = 0;
  bool begun_ = false;
  bool mends_ = false;
  XML_Mender mender_;
  bool skims_ = true;
  XML_Skimmer skimmer_;
  bool between_ = false; ///< all that was parsed ends with the end of one of the root's children
  size_t parsed_ = 0;    ///< bytes that the parser has had
  size_t end_at_ = 0;    ///< where among these the last element ended
  std::string held_;     ///< the beginning of an element that may be plain
};

} // namespace s3
