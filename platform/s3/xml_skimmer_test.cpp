#include "platform/s3/xml_reader.h"
#include "platform/s3/xml_skimmer.h"

#include <gtest/gtest.h>

using namespace s3;

namespace {

/// Writes down what it is told.
class Recorder : public XML_Reader {
public:
  std::string told;

protected:
  bool accepts(const std::string&) override { return true; }
  void begin(const Path& path) override { told += "<" + path.back() + std::to_string(path.size()); }
  void end(const Path& path, std::string& text) override {
    told += ">" + (path.empty() ? std::string("/") : path.back()) + "=" + text + ";";
  }
};

std::string read(const std::string& document, size_t piece, bool everything) {
  Recorder reader;
  if (everything)
    reader.parse_everything();
  for (size_t at = 0; at < document.size(); at += piece)
    if (!reader.feed(document.data() + at, std::min(piece, document.size() - at)))
      break;
  return reader.finish() ? reader.told : "failed";
}

/// A document says the same whoever reads it and however it comes in; what it says.
std::string read_every_way(const std::string& document) {
  const std::string told = read(document, document.size(), true);
  for (size_t piece : {1, 2, 3, 7, 64, 100000}) {
    EXPECT_EQ(told, read(document, piece, false)) << document << " in pieces of " << piece;
    EXPECT_EQ(told, read(document, piece, true)) << document << " in pieces of " << piece;
  }
  return told;
}

XML_Skimmer::Result look(const std::string& text) {
  XML_Skimmer skimmer;
  size_t used = 0;
  return skimmer.element(text.data(), text.size(), used);
}

} // namespace

TEST(xml_skimmer, plain_element_is_taken_apart) {
  const std::string text = "<Contents><Key>a/b c</Key><ETag>&quot;1&quot;</ETag><Size></Size></Contents><Next>";
  XML_Skimmer skimmer;
  size_t used = 0;
  ASSERT_EQ(XML_Skimmer::WHOLE, skimmer.element(text.data(), text.size(), used));
  EXPECT_EQ(text.find("<Next>"), used);
  ASSERT_EQ(8u, skimmer.tags().size());
  EXPECT_EQ("a/b c", skimmer.tags()[2].text);
  EXPECT_TRUE(skimmer.tags()[4].escaped);
  std::string plain;
  XML_Skimmer::unescape(skimmer.tags()[4].text, plain);
  EXPECT_EQ("\"1\"", plain);
}

TEST(xml_skimmer, every_beginning_of_a_plain_element_is_partial) {
  const std::string text = "<Contents><Key>a&amp;b</Key><Owner><ID>1</ID></Owner></Contents>";
  for (size_t size = 0; size < text.size(); ++size)
    EXPECT_EQ(XML_Skimmer::PARTIAL, look(text.substr(0, size))) << size;
  EXPECT_EQ(XML_Skimmer::WHOLE, look(text));
}

TEST(xml_skimmer, what_needs_a_parser_is_not_plain) {
  for (const char* text : {"<a b=\"c\">d</a>",
                           "<a/>",
                           "<a >b</a>",
                           "<x:a>b</x:a>",
                           "<!-- -->",
                           "<![CDATA[a]]>",
                           "<?a?>",
                           "</a>",
                           "a<b></b>",
                           "<a>&#65;</a>",
                           "<a>&other;</a>",
                           "<a>&</a>",
                           "<a>b&ampc;</a>",
                           "<a>]]></a>",
                           "<a>\xC3\xA9</a>",
                           "<a>\x01</a>",
                           "<a>line\nend</a>",
                           "<a>text<b></b></a>",
                           "<a><b></b>text</a>",
                           "<a><b></a></b>",
                           "<1>a</1>",
                           "<a><b><c><d><e></e></d></c></b></a>"})
    EXPECT_EQ(XML_Skimmer::NOT_PLAIN, look(text)) << text;
}

TEST(xml_reader, plain_and_other_elements_are_told_alike) {
  EXPECT_EQ("<A1>A=1;<B1<C2>C=2&;>B=;<D1>D=3;>/=;",
            read_every_way("<R><A>1</A><B><C>2&amp;</C></B><D x=\"y\">3</D></R>"));
  EXPECT_EQ(
      "<A1>A=;<B1>B=b;<C1>C=\xC3\xA9;<D1>D=d;>/=\n ;",
      read_every_way("<?xml version=\"1.0\"?>\n<R xmlns=\"u\">\n <A></A>\n <B>b</B> <C>\xC3\xA9</C><D>d</D>\n </R>\n"));
}

TEST(xml_reader, plain_text_in_comments_and_sections_is_no_element) {
  EXPECT_EQ("<A1>A=1;<D1>D=4;>/=;", read_every_way("<R><A>1</A><!-- <B>2</B><C>3</C> --><D>4</D></R>"));
  EXPECT_EQ("<A1>A=1;<D1>D=4;>/=<B>2</B>;", read_every_way("<R><A>1</A><D>4</D><![CDATA[<B>2</B>]]></R>"));
  EXPECT_EQ("<A1>A=1;<D1>D=4;>/=;", read_every_way("<R><A>1</A><?p <B>2</B><C>3</C>?><D>4</D></R>"));
  EXPECT_EQ("<A1>A=1;<D1>D=;>/=;", read_every_way("<R><A>1</A><D x='a>b'></D></R>"));
}

TEST(xml_reader, broken_documents_stay_broken) {
  for (const char* document :
       {"<R><A>1</A><B>2</B>", "<R><A>1</A><B>2", "<R><A>1</A><B>2</C></R>", "<R><A>1</A></R><B>2</B>",
        "<R><A>1</A><B>2</B></R>x", "<R><A>1</A><B>]]></B></R>", "<R><A>1</A><B>&x;</B></R>"})
    EXPECT_EQ("failed", read_every_way(document)) << document;
}
