#pragma once

#include "testing/s3_server/store.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace s3_testing {

using Extra_Elements = std::vector<std::pair<std::string, std::string>>;
using Headers = std::vector<std::pair<std::string, std::string>>;

// A request as it was sent, and the same taken apart. Header names are in lower case, values trimmed.
struct Http_Request {
  std::string method;
  std::string raw_path;                                   // still percent-encoded
  std::string raw_query;                                  // without "?"
  std::string path;                                       // decoded to bytes
  std::vector<std::pair<std::string, std::string>> query; // decoded, in the order sent
  Headers headers;
  std::string body;

  // Null where absent. A header that is sent twice is refused by parse_head, except where lists are usual.
  const std::string* header(std::string_view name) const;
  const std::string* parameter(std::string_view name) const;
  bool has_parameter(std::string_view name) const { return parameter(name) != nullptr; }
};

struct Http_Response {
  int status = 200;
  Headers headers;
  std::string body; // sent where `content` is null
  Object_Ptr content;
  std::uint64_t offset = 0, length = 0; // the part of `content` that is sent
  bool close = false;                   // end the connection after this reply
  // Where the code is not empty the body is an error document.
  std::string error_code, error_message;
  Extra_Elements error_extra;

  void set(std::string name, std::string value) { headers.emplace_back(std::move(name), std::move(value)); }
};

// Takes a head apart: everything up to and without the empty line. Returns an empty string, or what is wrong with it.
// Strict on purpose: what a lenient server would guess at is a client's bug here.
std::string parse_head(std::string_view head, Http_Request& request);

// The decimal number in `text`, which holds nothing else.
std::optional<std::uint64_t> parse_number(std::string_view text);

// False where an escape is malformed.
bool url_decode(std::string_view text, std::string& out);
// RFC 3986: all but unreserved characters become %XX; "/" is kept where `keep_slash`.
std::string url_encode(std::string_view text, bool keep_slash);

std::string to_lower(std::string_view text);
std::string_view trimmed(std::string_view text);

// "Sun, 06 Nov 1994 08:49:37 GMT"
std::string http_date(std::int64_t seconds);
// "1994-11-06T08:49:37.000Z"
std::string iso_date(std::int64_t seconds);
// Reads both the form of http_date (with "GMT" or "+0000") and "19941106T084937Z".
std::optional<std::int64_t> parse_date(std::string_view text);

const char* status_text(int status);

} // namespace s3_testing
