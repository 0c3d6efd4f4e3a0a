// ListObjects, V1 and V2.
#include "testing/s3_server/digest.h"
#include "testing/s3_server/operations.h"
#include "testing/s3_server/xml_text.h"

namespace s3_testing {
namespace {

// The least string that is greater than all that start with `prefix`; empty where there is none.
std::string after_prefix(std::string prefix) {
  while (!prefix.empty() && static_cast<unsigned char>(prefix.back()) == 0xff)
    prefix.pop_back();
  if (!prefix.empty())
    prefix.back() = static_cast<char>(static_cast<unsigned char>(prefix.back()) + 1);
  return prefix;
}

bool starts_with(const std::string& text, const std::string& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

struct Page {
  std::string contents, prefixes;
  std::string last; // key or common prefix
  std::uint32_t count = 0;
  bool truncated = false;
};

struct Question {
  std::string prefix, delimiter, marker;
  std::uint32_t limit = 0;
  bool encode_keys = false, encode_prefixes = false;
};

Page make_page(const Call& call, const Question& ask) {
  Page page;
  if (ask.limit == 0)
    return page;
  // The marker itself is not part of the page; what follows it at once is itself and a zero byte.
  std::string from = ask.prefix;
  if (!ask.marker.empty() && ask.marker >= from)
    from = ask.marker + '\0';
  call.store.walk(call.bucket, from, [&](const std::string& key, std::string& leap, const Store::Make_Object& object) {
    if (!starts_with(key, ask.prefix))
      return false;
    std::string common;
    if (!ask.delimiter.empty()) {
      const auto at = key.find(ask.delimiter, ask.prefix.size());
      if (at != std::string::npos)
        common = key.substr(0, at + ask.delimiter.size());
    }
    if (!common.empty()) {
      leap = after_prefix(common);
      const bool over = leap.empty();
      if (common <= ask.marker)
        return !over;
      if (page.count == ask.limit) {
        page.truncated = true;
        return false;
      }
      page.prefixes += "<CommonPrefixes>";
      xml_element(page.prefixes, "Prefix", ask.encode_prefixes ? listing_encode(common) : common);
      page.prefixes += "</CommonPrefixes>";
      page.last = common;
      ++page.count;
      return !over;
    }
    if (page.count == ask.limit) {
      page.truncated = true;
      return false;
    }
    const Object_Ptr listed = object();
    page.contents += "<Contents>";
    xml_element(page.contents, "Key", ask.encode_keys ? listing_encode(key) : key);
    xml_element(page.contents, "LastModified", iso_date(listed->mtime));
    xml_element(page.contents, "ETag", quoted(listed->etag));
    xml_element(page.contents, "Size", std::to_string(listed->size));
    if (call.operation == "ListObjects")
      page.contents += "<Owner><ID>s3-testing</ID><DisplayName>s3-testing</DisplayName></Owner>";
    xml_element(page.contents, "StorageClass", listed->storage_class);
    page.contents += "</Contents>";
    page.last = key;
    ++page.count;
    return true;
  });
  return page;
}

Http_Response invalid(const char* name, const std::string& value) {
  return error_response(400, "InvalidArgument", std::string("The argument ") + name + " is not valid.",
                        {{"ArgumentName", name}, {"ArgumentValue", value}});
}

// A token is the marker in hexadecimal behind a tag, so that no client can take it for a key.
constexpr std::string_view token_tag = "1-";

bool read_token(const std::string& token, std::string& marker) {
  if (token.compare(0, token_tag.size(), token_tag) != 0 || token.size() % 2 != 0)
    return false;
  std::string escaped;
  for (std::size_t i = token_tag.size(); i < token.size(); i += 2)
    escaped += "%" + token.substr(i, 2);
  return url_decode(escaped, marker);
}

} // namespace

Http_Response serve_listing(const Call& call) {
  const Http_Request& request = call.request;
  const bool asked_v2 = call.operation == "ListObjectsV2";
  const bool v2 = asked_v2 && !call.settings.list_type_ignored;
  if (asked_v2 && !call.settings.list_v2)
    return error_response(501, "NotImplemented", "Listings of type 2 are not served here.");
  if (!asked_v2 && !call.settings.list_v1)
    return error_response(501, "NotImplemented", "Only listings of type 2 are served here.");
  if (!call.store.has_bucket(call.bucket))
    return no_such_bucket(call.bucket);
  const auto text = [&](std::string_view name) {
    const std::string* value = request.parameter(name);
    return value ? *value : std::string();
  };
  Question ask;
  ask.prefix = text("prefix");
  ask.delimiter = text("delimiter");
  std::uint64_t max_keys = 1000;
  if (const std::string* asked = request.parameter("max-keys")) {
    const auto number = parse_number(*asked);
    if (!number || *number > 0x7fffffff)
      return invalid("max-keys", *asked);
    max_keys = *number;
  }
  max_keys = std::min<std::uint64_t>(max_keys, call.settings.page_size);
  ask.limit = static_cast<std::uint32_t>(max_keys);
  const std::string* encoding = request.parameter("encoding-type");
  if (encoding && (*encoding != "url" || call.settings.key_encoding == Key_Encoding::refused))
    return invalid("encoding-type", *encoding);
  const bool encoded = encoding && call.settings.key_encoding != Key_Encoding::ignored;
  ask.encode_keys = encoded;
  ask.encode_prefixes = encoded && call.settings.key_encoding != Key_Encoding::keys_only;
  if (v2) {
    ask.marker = text("start-after");
    if (const std::string* token = request.parameter("continuation-token"); token && !read_token(*token, ask.marker))
      return invalid("continuation-token", *token);
  } else {
    ask.marker = text("marker");
  }
  const std::string sent_marker = ask.marker;
  if (call.repeat_page)
    ask.marker.clear();

  Page page = make_page(call, ask);
  if (call.repeat_page)
    page.truncated = true;
  const auto echo = [&](const std::string& value) { return ask.encode_prefixes ? listing_encode(value) : value; };

  Http_Response response;
  response.set("Content-Type", "application/xml");
  std::string& out = response.body = xml_head;
  out.reserve(page.contents.size() + page.prefixes.size() + 1024);
  out += std::string("<ListBucketResult") + xml_name_space + ">";
  xml_element(out, "Name", call.bucket);
  xml_element(out, "Prefix", echo(ask.prefix));
  if (!ask.delimiter.empty())
    xml_element(out, "Delimiter", echo(ask.delimiter));
  xml_element(out, "MaxKeys", std::to_string(max_keys));
  if (encoded && call.settings.key_encoding != Key_Encoding::unsaid)
    xml_element(out, "EncodingType", "url");
  xml_element(out, "IsTruncated", page.truncated ? "true" : "false");
  if (v2) {
    xml_element(out, "KeyCount", std::to_string(page.count));
    if (const std::string* token = request.parameter("continuation-token"))
      xml_element(out, "ContinuationToken", *token);
    if (page.truncated && !call.no_next_marker)
      xml_element(out, "NextContinuationToken",
                  call.empty_next_marker ? "" : std::string(token_tag) + to_hex(page.last));
  } else {
    xml_element(out, "Marker", echo(sent_marker));
    // As the real service does: without a delimiter the client has to go on from the last key.
    if (page.truncated && !ask.delimiter.empty() && !call.no_next_marker)
      xml_element(out, "NextMarker", call.empty_next_marker ? "" : echo(page.last));
  }
  out += page.contents;
  out += page.prefixes;
  out += "</ListBucketResult>";
  return response;
}

} // namespace s3_testing
