#include "platform/s3/xml_reader.h"

#include <expat.h>

#include <algorithm>

namespace s3 {
namespace {

constexpr size_t MAX_DEPTH = 16;
/// A key of 1,024 bytes, all of them escaped twice, fits ten times over.
constexpr size_t MAX_TEXT = 64 * 1024;
/// A page of 1,000 keys is below 4 MiB.
constexpr size_t MAX_DOCUMENT = 64u << 20;
/// Of an element that came in parts and may be plain.
constexpr size_t MAX_HELD = 16 * 1024;

bool is_blank(char c) {
  return c == ' ' || c == '\n' || c == '\r' || c == '\t';
}

std::string_view local_name(const char* name) {
  const std::string_view text(name);
  const size_t colon = text.rfind(':');
  return colon == std::string_view::npos ? text : text.substr(colon + 1);
}

struct Free_Parser {
  void operator()(XML_ParserStruct* parser) const { XML_ParserFree(parser); }
};

/// The last one that this thread gave back: a listing has a document per thousand keys, and each parser some dozen
/// blocks of memory.
thread_local std::unique_ptr<XML_ParserStruct, Free_Parser> spare_parser;

} // namespace

XML_ParserStruct* XML_Reader::take_parser() {
  std::unique_ptr<XML_ParserStruct, Free_Parser> spare = std::move(spare_parser);
  return spare && XML_ParserReset(spare.get(), "UTF-8") == XML_TRUE ? spare.release() : XML_ParserCreate("UTF-8");
}

void XML_Reader::Parser_Return::operator()(XML_ParserStruct* parser) const {
  spare_parser.reset(parser);
}

XML_Reader::XML_Reader() : parser_(take_parser()) {
  if (!parser_) {
    problem_ = "no memory for the XML parser";
    return;
  }
  XML_SetUserData(parser_.get(), this);
  XML_SetElementHandler(parser_.get(), &XML_Reader::on_start, &XML_Reader::on_end);
  XML_SetCharacterDataHandler(parser_.get(), &XML_Reader::on_text);
  XML_SetStartDoctypeDeclHandler(parser_.get(), &XML_Reader::on_doctype);
}

XML_Reader::~XML_Reader() = default;

void XML_Reader::begin(const Path&) {}

bool XML_Reader::wants(const Path&) const {
  return true;
}

bool XML_Reader::feed(const char* data, size_t size) {
  if (failed())
    return false;
  size_ += size;
  if (size_ > MAX_DOCUMENT) {
    problem_ = "the document is too large";
    return false;
  }
  // A service that is long about its answer sends blanks meanwhile, some even before the document.
  while (!begun_ && size > 0 && is_blank(*data)) {
    ++data;
    --size;
  }
  begun_ = begun_ || size > 0;
  if (!mends_) {
    take(data, size);
  } else {
    std::string mended;
    mended.reserve(size + size / 4);
    mender_.feed(data, size, mended);
    parse(mended.data(), mended.size());
  }
  return !failed();
}

/// Plain elements below the root are told of at once, everything else goes to the parser, which does not miss them.
/// Only right behind the end of such an element it is certain that what follows is no comment's or attribute's text.
void XML_Reader::take(const char* data, size_t size) {
  std::string joined;
  if (!held_.empty()) {
    joined.swap(held_);
    joined.append(data, size);
    data = joined.data();
    size = joined.size();
  }
  while (size > 0 && !failed()) {
    if (between_) {
      size_t blank = 0;
      while (blank < size && is_blank(data[blank]))
        ++blank;
      size_t used = 0;
      const XML_Skimmer::Result result = skimmer_.element(data + blank, size - blank, used);
      if (result == XML_Skimmer::WHOLE) {
        tell(skimmer_.tags());
        data += blank + used;
        size -= blank + used;
        continue;
      }
      if (result == XML_Skimmer::PARTIAL && size < MAX_HELD) {
        held_.assign(data, size);
        return;
      }
      between_ = false;
    }
    // Up to the end of the next end tag, so that the parser stops where elements may follow.
    size_t piece = size;
    if (skims_) {
      const std::string_view rest(data, size);
      const size_t tag = rest.find("</");
      const size_t end = tag == std::string_view::npos ? tag : rest.find('>', tag);
      piece = end == std::string_view::npos ? size : end + 1;
    }
    parse(data, piece);
    between_ = skims_ && depth_ == 1 && end_at_ == parsed_;
    data += piece;
    size -= piece;
  }
}

void XML_Reader::tell(const std::vector<XML_Skimmer::Tag>& tags) {
  try {
    for (const XML_Skimmer::Tag& tag : tags) {
      if (tag.start) {
        path_.emplace_back(tag.name);
        begin(path_);
      } else {
        if (wants(path_)) {
          if (tag.escaped)
            XML_Skimmer::unescape(tag.text, text_);
          else
            text_.assign(tag.text);
          end(path_, text_);
        }
        path_.pop_back();
      }
      if (failed())
        return;
    }
    text_.clear();
  } catch (...) {
    refuse("no memory for the document");
  }
}

void XML_Reader::parse(const char* data, size_t size) {
  parsed_ += size;
  while (size > 0 && !failed()) {
    const int piece = static_cast<int>(std::min<size_t>(size, 1u << 20));
    if (XML_Parse(parser_.get(), data, piece, XML_FALSE) != XML_STATUS_OK && !failed())
      problem_ = XML_ErrorString(XML_GetErrorCode(parser_.get()));
    data += piece;
    size -= static_cast<size_t>(piece);
  }
}

bool XML_Reader::finish() {
  if (!failed() && !held_.empty())
    parse(held_.data(), held_.size());
  if (!failed() && XML_Parse(parser_.get(), nullptr, 0, XML_TRUE) != XML_STATUS_OK && !failed())
    problem_ = XML_ErrorString(XML_GetErrorCode(parser_.get()));
  return !failed();
}

void XML_Reader::refuse(const std::string& why) {
  if (problem_.empty())
    problem_ = why;
}

void XML_Reader::stop(const char* why) {
  refuse(why);
  XML_StopParser(parser_.get(), XML_FALSE);
}

bool XML_Reader::is(const Path& path, std::string_view a) {
  return path.size() == 1 && path[0] == a;
}

bool XML_Reader::is(const Path& path, std::string_view a, std::string_view b) {
  return path.size() == 2 && path[1] == b && path[0] == a;
}

bool XML_Reader::is(const Path& path, std::string_view a, std::string_view b, std::string_view c) {
  return path.size() == 3 && path[2] == c && path[1] == b && path[0] == a;
}

void XML_Reader::on_start(void* data, const char* name, const char**) {
  XML_Reader* self = static_cast<XML_Reader*>(data);
  try {
    if (self->failed())
      return;
    if (++self->depth_ > MAX_DEPTH)
      return self->stop("the document has too many levels");
    self->text_.clear();
    if (self->depth_ == 1) {
      self->root_ = local_name(name);
      if (!self->accepts(self->root_))
        self->stop("the document is of another kind");
      return;
    }
    self->path_.emplace_back(local_name(name));
    self->begin(self->path_);
  } catch (...) {
    self->stop("no memory for the document");
  }
}

void XML_Reader::on_end(void* data, const char*) {
  XML_Reader* self = static_cast<XML_Reader*>(data);
  try {
    if (self->failed())
      return;
    if (self->mends_)
      self->text_ = XML_Mender::restore(self->text_);
    if (self->wants(self->path_))
      self->end(self->path_, self->text_);
    self->text_.clear();
    --self->depth_;
    self->end_at_ = static_cast<size_t>(XML_GetCurrentByteIndex(self->parser_.get())) +
                    static_cast<size_t>(XML_GetCurrentByteCount(self->parser_.get()));
    if (!self->path_.empty())
      self->path_.pop_back();
    if (self->failed())
      XML_StopParser(self->parser_.get(), XML_FALSE);
  } catch (...) {
    self->stop("no memory for the document");
  }
}

void XML_Reader::on_text(void* data, const char* text, int size) {
  XML_Reader* self = static_cast<XML_Reader*>(data);
  try {
    if (self->failed())
      return;
    if (self->text_.size() + static_cast<size_t>(size) > MAX_TEXT)
      return self->stop("the document has too long a text");
    self->text_.append(text, static_cast<size_t>(size));
  } catch (...) {
    self->stop("no memory for the document");
  }
}

void XML_Reader::on_doctype(void* data, const char*, const char*, const char*, int) {
  static_cast<XML_Reader*>(data)->stop("the document declares a document type");
}

} // namespace s3
