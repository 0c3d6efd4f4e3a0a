#include "fuzz/fuzz_target.h"

#include "platform/s3/answers.h"

#include <algorithm>

// What a service answers in XML: a page of keys, the buckets, an error. The first byte says which and how it is read;
// the document follows. A document says the same in one piece and in many, and whoever takes its plain elements apart.

namespace {

void feed(s3::XML_Reader& reader, std::string_view document, size_t piece) {
  while (!document.empty()) {
    const size_t size = std::min(piece, document.size());
    if (!reader.feed(document.data(), size))
      return;
    document.remove_prefix(size);
  }
  reader.finish();
}

std::string page(std::string_view document, size_t piece, bool mend, bool folders, bool parse_everything = false) {
  Get_Bucket_Parameter param;
  if (folders) {
    param.delimiter("/");
    param.prefix("a/");
  }
  Get_Bucket_Content content;
  s3::Listing_Reader reader(content);
  if (mend)
    reader.mend();
  if (parse_everything)
    reader.parse_everything();
  feed(reader, document, piece);
  if (reader.failed())
    return "failed";
  if (reader.is_error())
    return reader.error().code + "|" + reader.error().message;
  if (!reader.complete(param))
    return "does not lead on";
  if (content.truncated && content.next_marker.empty())
    fuzz_fail("a page is not the last one and has no marker");
  std::string text = content.next_marker + (content.truncated ? "+" : "-");
  for (const S3_Object& object : content.objects)
    text += "|" + object.name + "," + std::to_string(object.size) + "," + std::to_string(object.mtime);
  for (const std::string& prefix : content.common_prefixes)
    text += "|" + prefix;
  return text;
}

std::string buckets(std::string_view document, size_t piece) {
  Get_Service_Content content;
  s3::Buckets_Reader reader(content);
  feed(reader, document, piece);
  if (reader.failed())
    return "failed";
  std::string text = content.owner;
  for (const S3_Bucket& bucket : content.buckets)
    text += "|" + bucket.name + "," + std::to_string(bucket.ctime);
  return text;
}

} // namespace

const std::vector<std::string>& fuzz_words() {
  static const std::vector<std::string> words = {"<ListBucketResult>",
                                                 "</ListBucketResult>",
                                                 "<Contents>",
                                                 "</Contents>",
                                                 "<Key>",
                                                 "</Key>",
                                                 "<Size>",
                                                 "</Size>",
                                                 "<LastModified>2009-10-12T17:50:30.000Z</LastModified>",
                                                 "<ETag>",
                                                 "</ETag>",
                                                 "<CommonPrefixes>",
                                                 "</CommonPrefixes>",
                                                 "<Prefix>",
                                                 "</Prefix>",
                                                 "<EncodingType>url</EncodingType>",
                                                 "<IsTruncated>true</IsTruncated>",
                                                 "<NextMarker>",
                                                 "</NextMarker>",
                                                 "<Owner><ID>",
                                                 "</ID></Owner>",
                                                 "<Error>",
                                                 "<Code>",
                                                 "<!DOCTYPE a [",
                                                 "<!ENTITY b \"c\">",
                                                 "&amp;",
                                                 "&#x1;",
                                                 "&#65534;",
                                                 "<![CDATA[",
                                                 "]]>",
                                                 "%2F",
                                                 "%00",
                                                 "<?xml version=\"1.0\" encoding=\"UTF-8\"?>",
                                                 "xmlns=\"http://s3.amazonaws.com/doc/2006-03-01/\""};
  return words;
}

void fuzz_one(std::string_view input) {
  if (input.empty())
    return;
  const unsigned mode = static_cast<unsigned char>(input.front());
  const std::string_view document = input.substr(1);
  const size_t piece = 1 + mode % 7;
  if (mode & 8) {
    if (buckets(document, document.size() + 1) != buckets(document, piece))
      fuzz_fail("a list of buckets depends on how it comes in");
    return;
  }
  const bool mend = (mode & 16) != 0, folders = (mode & 32) != 0;
  if (page(document, document.size() + 1, mend, folders) != page(document, piece, mend, folders))
    fuzz_fail("a page depends on how it comes in");
  if (page(document, document.size() + 1, mend, folders) != page(document, piece, mend, folders, true))
    fuzz_fail("a page says more or less when the XML parser reads all of it");
  s3::parse_error(document);
}
