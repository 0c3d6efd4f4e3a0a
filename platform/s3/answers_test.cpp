#include "platform/s3/answers.h"

#include <gtest/gtest.h>

namespace {

constexpr char START[] = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                         "<ListBucketResult xmlns=\"http://s3.amazonaws.com/doc/2006-03-01/\">";
constexpr char END[] = "</ListBucketResult>";

std::string entry(const std::string& key) {
  return "<Contents><Key>" + key + "</Key><LastModified>2009-10-12T17:50:30.000Z</LastModified>" +
         "<ETag>&quot;fba9&quot;</ETag><Size>434234</Size><Owner><ID>7</ID></Owner>" +
         "<StorageClass>STANDARD</StorageClass></Contents>";
}

struct Page {
  Get_Bucket_Content content;
  bool well_formed = false;
  bool leads_on = false;
  std::string problem;
};

/// Reads a page that comes in pieces of `step` bytes.
Page read(const std::string& document, const Get_Bucket_Parameter& param = {}, size_t step = 1u << 20) {
  Page page;
  s3::Listing_Reader reader(page.content);
  for (size_t at = 0; at < document.size(); at += step)
    reader.feed(document.data() + at, std::min(step, document.size() - at));
  page.well_formed = reader.finish();
  page.problem = reader.problem();
  page.leads_on = page.well_formed && reader.complete(param);
  return page;
}

std::string list(const std::string& inside) {
  return START + inside + END;
}

TEST(Listing_Reader, page_is_the_same_in_pieces_of_any_size) {
  const std::string document = list("<IsTruncated>true</IsTruncated>" + entry("a") + entry("b &amp; c") +
                                    "<CommonPrefixes><Prefix>p/</Prefix></CommonPrefixes>");
  for (const size_t step : {size_t(1), size_t(7), document.size()}) {
    const Page page = read(document, {}, step);
    ASSERT_TRUE(page.leads_on) << page.problem;
    ASSERT_EQ(2u, page.content.objects.size());
    EXPECT_EQ("b & c", page.content.objects[1].name);
    EXPECT_EQ(434234u, page.content.objects[0].size);
    EXPECT_EQ(1255369830u, page.content.objects[0].mtime);
    EXPECT_EQ("", page.content.objects[0].etag) << "nobody asks a listing for it";
    EXPECT_EQ("", page.content.objects[0].storage_class);
    EXPECT_EQ("p/", page.content.next_marker);
  }
}

TEST(Listing_Reader, blanks_before_the_document_are_passed_over) {
  for (const size_t step : {size_t(1), size_t(1000)})
    EXPECT_TRUE(read(" \r\n\t " + list(entry("a")), {}, step).leads_on);
  EXPECT_FALSE(read("   ").well_formed);
}

TEST(Listing_Reader, blanks_belong_to_the_key) {
  EXPECT_EQ(" a\n b ", read(list(entry(" a\n b "))).content.objects.at(0).name);
}

TEST(Listing_Reader, encoding_may_be_named_behind_the_keys) {
  const Page page = read(list(entry("a%2Bb+c") + "<EncodingType>url</EncodingType>"));
  EXPECT_EQ("a+b c", page.content.objects.at(0).name);
  EXPECT_EQ("a%2Bb+c", read(list(entry("a%2Bb+c"))).content.objects.at(0).name);
}

TEST(Listing_Reader, next_marker_is_the_later_of_last_key_and_last_prefix) {
  const std::string prefix = "<CommonPrefixes><Prefix>m/</Prefix></CommonPrefixes><IsTruncated>true</IsTruncated>";
  EXPECT_EQ("z", read(list(entry("z") + prefix)).content.next_marker);
  EXPECT_EQ("m/", read(list(entry("a") + prefix)).content.next_marker);
  EXPECT_EQ("given", read(list(entry("a") + prefix + "<NextMarker>given</NextMarker>")).content.next_marker);
}

TEST(Listing_Reader, next_marker_is_understood_encoded_or_not) {
  const std::string head = "<EncodingType>url</EncodingType><IsTruncated>true</IsTruncated><NextMarker>";
  for (const char* marker : {"a+b", "a%2Bb"})
    EXPECT_EQ("a+b", read(list(head + marker + "</NextMarker>" + entry("a%2Bb"))).content.next_marker) << marker;
  for (const char* marker : {"a%2520b", "a%20b"})
    EXPECT_EQ("a%20b", read(list(head + marker + "</NextMarker>" + entry("a%2520b"))).content.next_marker) << marker;
  EXPECT_EQ("z", read(list(head + "z</NextMarker>" + entry("a"))).content.next_marker);
  EXPECT_EQ("z+", read(list(head + "z%2B</NextMarker>")).content.next_marker);
}

TEST(Listing_Reader, marker_of_a_last_page_is_dropped) {
  EXPECT_EQ("",
            read(list(entry("a") + "<IsTruncated>false</IsTruncated><NextMarker>a</NextMarker>")).content.next_marker);
}

TEST(Listing_Reader, page_that_does_not_lead_on_is_told) {
  Get_Bucket_Parameter param;
  param.marker("m");
  const std::string more = "<IsTruncated>true</IsTruncated>";
  EXPECT_FALSE(read(list(more), param).leads_on);
  EXPECT_FALSE(read(list(more + entry("m")), param).leads_on);
  EXPECT_FALSE(read(list(more + entry("a")), param).leads_on);
  EXPECT_FALSE(read(list(more + entry("z") + "<NextMarker>m</NextMarker>"), param).leads_on);
  EXPECT_TRUE(read(list(more + entry("n")), param).leads_on);
  EXPECT_FALSE(read(list(more)).leads_on);
}

TEST(Listing_Reader, hostile_documents_are_refused) {
  std::string deep = START;
  for (int i = 0; i < 100000; ++i)
    deep += "<a>";
  const std::pair<const char*, std::string> rows[] = {
      {"entity bomb", "<!DOCTYPE x [<!ENTITY a \"aaaaaaaaaa\"><!ENTITY b \"&a;&a;&a;\">]><ListBucketResult>&b;"
                      "</ListBucketResult>"},
      {"external entity", "<!DOCTYPE x SYSTEM \"file:///etc/passwd\"><ListBucketResult/>"},
      {"too deep", deep},
      {"too long a text", list(entry(std::string(100000, 'k')))},
      {"not closed", START + entry("a")},
      {"crossed", list("<Contents><Key>a</Contents></Key>")},
      {"control character", list(entry("&#x1;"))},
      {"not UTF-8", list(entry("\xff\xfe"))},
      {"of another kind", "<ListBucketsResult></ListBucketsResult>"},
      {"a page for people", "<html><body>Welcome</body></html>"},
      {"negative size", list("<Contents><Key>a</Key><Size>-1</Size></Contents>")},
      {"size beyond 64 bits", list("<Contents><Key>a</Key><Size>18446744073709551616</Size></Contents>")},
      {"size in words", list("<Contents><Key>a</Key><Size>many</Size></Contents>")},
      {"date in words", list("<Contents><Key>a</Key><LastModified>today</LastModified></Contents>")},
      {"entry without a key", list("<Contents><Size>1</Size></Contents>")},
      {"nothing", ""},
      {"two roots", list("") + list("")},
  };
  for (const auto& [name, document] : rows) {
    const Page page = read(document);
    EXPECT_FALSE(page.well_formed) << name;
    EXPECT_FALSE(page.problem.empty()) << name;
  }
}

TEST(Listing_Reader, endless_document_is_refused_in_constant_memory) {
  Get_Bucket_Content content;
  s3::Listing_Reader reader(content);
  reader.feed(START, sizeof START - 1);
  const std::string piece(1 << 20, ' ');
  int fed = 0;
  while (fed < 1000 && reader.feed(piece.data(), piece.size()))
    ++fed;
  EXPECT_LT(fed, 100);
  EXPECT_TRUE(reader.failed());
}

TEST(Listing_Reader, unknown_elements_are_passed_over) {
  const Page page = read(list("<Key>no</Key><New><Contents><Key>no</Key></Contents></New>" + entry("a")));
  ASSERT_TRUE(page.well_formed) << page.problem;
  ASSERT_EQ(1u, page.content.objects.size());
  EXPECT_EQ("a", page.content.objects[0].name);
}

/// Mends the document in pieces of `step` bytes.
std::string mended(const std::string& text, size_t step) {
  s3::XML_Mender mender;
  std::string out;
  for (size_t at = 0; at < text.size(); at += step)
    mender.feed(text.data() + at, std::min(step, text.size() - at), out);
  mender.finish(out);
  return out;
}

TEST(XML_Mender, what_xml_allows_stays_as_it_is) {
  const std::string text = "<a b='c'>x &amp; y &#38; &#x3C; &lt;\t\r\n &; & &# ~</a>";
  for (const size_t step : {size_t(1), size_t(3), text.size()})
    EXPECT_EQ(text, mended(text, step));
}

TEST(XML_Mender, every_byte_comes_back) {
  std::string all;
  for (int c = 1; c < 256; ++c)
    all.push_back(static_cast<char>(c));
  EXPECT_EQ(all, s3::XML_Mender::restore(mended(all, 5)));
  EXPECT_EQ("\x01\x1f\xc3\xa9\xef\xbf\xbe\xf0\x9f\x98\x80",
            s3::XML_Mender::restore(mended("&#1;&#x1F;&#233;&#xFFFE;&#x1f600;", 4)));
  EXPECT_EQ("&#0;&#x110000;&#99999999999999999999;", mended("&#0;&#x110000;&#99999999999999999999;", 1));
}

TEST(Listing_Reader, mended_page_gives_keys_that_xml_does_not_allow) {
  Get_Bucket_Content content;
  s3::Listing_Reader reader(content);
  reader.mend();
  const std::string document = list(entry("a\x01&#x2;b&amp;&#60;") + entry("\xff\xc3\xa9") + entry("&#xFFFE;"));
  ASSERT_TRUE(reader.feed(document.data(), document.size()) && reader.finish()) << reader.problem();
  ASSERT_EQ(3u, content.objects.size());
  EXPECT_EQ("a\x01\x02"
            "b&<",
            content.objects[0].name);
  EXPECT_EQ("\xff\xc3\xa9", content.objects[1].name);
  EXPECT_EQ("\xef\xbf\xbe", content.objects[2].name);
  EXPECT_EQ(434234u, content.objects[2].size);
}

TEST(Buckets_Reader, page_of_buckets) {
  const std::string document =
      "<ListAllMyBucketsResult><Owner><ID>id</ID><DisplayName>name</DisplayName></Owner><Buckets>"
      "<Bucket><Name>a</Name><CreationDate>2009-02-03T16:45:09Z</CreationDate><Location>here</Location></Bucket>"
      "<Bucket><Name>b</Name><CreationDate>long ago</CreationDate><BucketRegion>r-1</BucketRegion></Bucket></Buckets>"
      "<IsTruncated>true</IsTruncated><NextMarker>b</NextMarker></ListAllMyBucketsResult>";
  Get_Service_Content content;
  s3::Buckets_Reader reader(content);
  ASSERT_TRUE(reader.feed(document.data(), document.size()) && reader.finish()) << reader.problem();
  ASSERT_EQ(2u, content.buckets.size());
  EXPECT_EQ("name", content.owner);
  EXPECT_EQ(1233679509, content.buckets[0].ctime);
  EXPECT_EQ("here", content.buckets[0].location);
  EXPECT_EQ(0, content.buckets[1].ctime);
  EXPECT_EQ("r-1", content.buckets[1].region);
  EXPECT_TRUE(content.truncated);
  EXPECT_EQ("b", content.next_marker);
}

TEST(Error_Document, fields_are_read_and_a_broken_end_costs_only_what_follows) {
  const std::string document = "<Error><Code>NoSuchKey</Code><Message>None.</Message><Region>r-1</Region>"
                               "<Endpoint>h</Endpoint><RequestId>17</RequestId></Error>";
  const s3::Error_Document error = s3::parse_error(document);
  EXPECT_EQ("NoSuchKey", error.code);
  EXPECT_EQ("None.", error.message);
  EXPECT_EQ("r-1", error.region);
  EXPECT_EQ("h", error.endpoint);
  EXPECT_EQ("17", error.request_id);
  EXPECT_EQ("NoSuchKey", s3::parse_error(document.substr(0, 40)).code);
  EXPECT_EQ("", s3::parse_error("<html>busy</html>").code);
  EXPECT_EQ("", s3::parse_error("").code);
}

TEST(Times_And_Sizes, only_whole_values_are_taken) {
  long long time = 0;
  EXPECT_TRUE(s3::parse_iso_time("1970-01-01T00:00:00Z", time));
  EXPECT_EQ(0, time);
  EXPECT_TRUE(s3::parse_iso_time("2024-02-29T23:59:59.123456Z", time));
  EXPECT_EQ(1709251199, time);
  EXPECT_TRUE(s3::parse_iso_time("2099-12-31T00:00:00Z", time));
  EXPECT_EQ(4102358400, time) << "wherever time_t ends";
  for (const char* text : {"", "2024", "2024-02-29 23:59:59Z", "2024-13-01T00:00:00Z", "2024-02-29T23:59:59"})
    EXPECT_FALSE(s3::parse_iso_time(text, time)) << text;
  ACE_UINT64 size = 0;
  EXPECT_TRUE(s3::parse_size("18446744073709551615", size));
  EXPECT_EQ(~0ull, size);
  for (const char* text : {"", " 1", "1 ", "0x1", "18446744073709551616"})
    EXPECT_FALSE(s3::parse_size(text, size)) << text;
}

} // namespace
