#include "platform/s3/listing.h"

#include "platform/s3/percent_encoding.h"

#include <cerrno>

namespace s3 {
namespace {

/// Pages without a key, one after the other: some services pass over what was deleted page by page.
constexpr int MAX_EMPTY_PAGES = 10000;

/// The service does not know what it was asked, or not in this way.
bool is_not_understood(const S3_Error& error) {
  if (error.status() != 400 && error.status() != 405 && error.status() != 501)
    return false;
  for (const char* code : {"NotImplemented", "InvalidArgument", "InvalidRequest", "BadRequest", "MethodNotAllowed"})
    if (error.code() == code)
      return true;
  return false;
}

/// Common prefixes of a page that are asked for to find out how they are written.
constexpr size_t MAX_DOUBTS = 4;

/// True when keys begin with `prefix`.
bool is_prefix(Transport& transport, const std::string& bucket, const std::string& prefix) {
  Get_Bucket_Content content;
  Listing_Reader reader(content);
  const Outcome outcome =
      transport.ask(Request{"GET", bucket, "", {{"prefix", prefix}, {"max-keys", "1"}}, {}, false, {}}, reader);
  return outcome.ok() && !content.objects.empty();
}

/// Whether the common prefixes of a page are to be decoded: as the service was found to do, else as the page tells,
/// else as the service says when it is asked for the keys below one of them. A page that leaves it open is decoded.
Prefix_Form settle_prefix_form(Transport& transport, const Listing_Reader& reader, const std::string& bucket) {
  Endpoint& endpoint = transport.endpoint();
  if (endpoint.prefix_form() != Prefix_Form::UNKNOWN)
    return endpoint.prefix_form();
  std::vector<std::string> doubtful;
  Prefix_Form form = reader.find_prefix_form(doubtful);
  // Where there are keys below both, another one may tell.
  for (size_t i = 0; i < doubtful.size() && i < MAX_DOUBTS && form == Prefix_Form::UNKNOWN; ++i) {
    std::string bytes;
    if (!percent_decode(doubtful[i], true, bytes))
      continue;
    const bool encoded = is_prefix(transport, bucket, bytes);
    if (encoded != is_prefix(transport, bucket, doubtful[i]))
      form = encoded ? Prefix_Form::ENCODED : Prefix_Form::PLAIN;
  }
  if (form != Prefix_Form::UNKNOWN && reader.says_encoded())
    endpoint.learn_prefix_form(form);
  return form;
}

} // namespace

Outcome Listing::page(const std::string& bucket, const Get_Bucket_Parameter& param, Get_Bucket_Content& content) {
  Endpoint& endpoint = transport_.endpoint();
  const bool v2 = endpoint.lists_v2(), encoded = endpoint.encodes_listings();
  Outcome first = ask(bucket, param, v2, encoded, content);
  if (first.ok() || !is_not_understood(first.error))
    return first;
  // Whatever can be left out or asked otherwise is tried once; what then works is kept.
  const bool free_encoding = encoded && endpoint.settings().url_encoding == Endpoint_Settings::ENCODING_AUTO;
  const bool free_version = endpoint.settings().list_version == Endpoint_Settings::LIST_AUTO;
  for (const bool other_version : {false, true})
    for (const bool without : {false, true}) {
      if ((!other_version && !without) || (other_version && !free_version) || (without && !free_encoding))
        continue;
      Outcome next = ask(bucket, param, v2 != other_version, encoded && !without, content);
      if (next.ok()) {
        endpoint.learn_list_version(v2 != other_version);
        endpoint.learn_listing_encoding(encoded && !without);
        return next;
      }
      if (!is_not_understood(next.error))
        return next;
    }
  content = Get_Bucket_Content();
  return first;
}

Outcome Listing::ask(const std::string& bucket, const Get_Bucket_Parameter& param, bool v2, bool encoded,
                     Get_Bucket_Content& content) {
  Endpoint& endpoint = transport_.endpoint();
  Request request{"GET", bucket, "", {}, {}, false, {}};
  if (v2)
    request.query.emplace_back("list-type", "2");
  if (!param.prefix().empty())
    request.query.emplace_back("prefix", param.prefix());
  if (!param.delimiter().empty())
    request.query.emplace_back("delimiter", param.delimiter());
  if (param.max_keys() >= 0)
    request.query.emplace_back("max-keys", std::to_string(param.max_keys()));
  if (encoded)
    request.query.emplace_back("encoding-type", "url");

  std::string token, next_token;
  const std::string listing = bucket + '\0' + param.prefix() + '\0' + param.delimiter();
  if (!v2) {
    if (!param.marker().empty())
      request.query.emplace_back("marker", param.marker());
  } else if (!param.marker().empty()) {
    token = endpoint.continuation(listing, param.marker());
    if (token.empty())
      request.query.emplace_back("start-after", param.marker());
  }
  const size_t own = request.query.size();
  for (int pages = 0;; ++pages) {
    request.query.resize(own);
    if (!token.empty())
      request.query.emplace_back("continuation-token", token);
    Outcome outcome = read(request, param, v2, token.empty(), next_token, content);
    if (!outcome.ok() || !v2 || !content.truncated) {
      if (!outcome.ok())
        content = Get_Bucket_Content();
      return outcome;
    }
    if (!content.next_marker.empty()) {
      if (!next_token.empty())
        endpoint.learn_continuation(listing, content.next_marker, next_token);
      return outcome;
    }
    if (next_token == token || pages == MAX_EMPTY_PAGES) {
      content = Get_Bucket_Content();
      outcome.error = S3_Error(EPROTO, outcome.head.status, "ListingDoesNotAdvance",
                               "one page without a key follows another (" + transport_.describe(request) + ")", false);
      return outcome;
    }
    token = next_token;
  }
}

Outcome Listing::read(const Request& request, const Get_Bucket_Parameter& param, bool v2, bool repeats,
                      std::string& token, Get_Bucket_Content& content) {
  for (;;) {
    Listing_Reader reader(content);
    if (mends_pages_)
      reader.mend();
    if (v2)
      reader.version_2(repeats && !param.marker().empty());
    if (transport_.endpoint().always_encoded())
      reader.assume_encoded();
    Outcome outcome = transport_.ask(request, reader);
    // Services that do not encode keys break their own page with a control character in one of them.
    if (outcome.error.code() == "MalformedAnswer" && !mends_pages_) {
      mends_pages_ = true;
      continue;
    }
    if (!outcome.ok() && outcome.error.code() == "MalformedAnswer")
      mends_pages_ = false;
    if (outcome.ok() && !content.common_prefixes.empty())
      reader.prefix_form(settle_prefix_form(transport_, reader, request.bucket));
    if (outcome.ok() && !reader.complete(param))
      outcome.error =
          S3_Error(EPROTO, outcome.head.status, "ListingDoesNotAdvance",
                   "the listing comes to the same place again (" + transport_.describe(request) + ")", false);
    else if (outcome.ok())
      if (const std::string why = reader.strange_name(param); !why.empty())
        outcome.error =
            S3_Error(EPROTO, outcome.head.status, "BrokenListing",
                     "the listing is not the one asked for: " + why + " (" + transport_.describe(request) + ")", false);
    token = reader.token();
    return outcome;
  }
}

} // namespace s3
