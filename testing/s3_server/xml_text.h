#pragma once

#include "testing/s3_server/http_message.h"

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace s3_testing {

// Escapes as the real service does: markup, and control characters as numeric references, which XML 1.0 does not
// allow for most of them; bytes that are not UTF-8 go through as they are. Such pages are broken, and are meant to be.
std::string xml_escape(std::string_view text);

void xml_element(std::string& out, const char* name, std::string_view text);

// What encoding-type=url makes of a key: a space becomes "+", "/" stays.
std::string listing_encode(std::string_view key);

inline constexpr char xml_head[] = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
inline constexpr char xml_name_space[] = " xmlns=\"http://s3.amazonaws.com/doc/2006-03-01/\"";

// An error under `status`; its document is written where the reply is sent, for only there are resource and request
// id known. `extra` elements follow code and message.
Http_Response error_response(int status, std::string_view code, std::string_view message, Extra_Elements extra = {});
std::string error_document(const Http_Response& response, std::string_view resource, std::string_view request_id);

// The texts of all elements of a document in document order, each with its path from the root ("A/B/C").
// False where the document is not well-formed.
bool parse_xml(std::string_view document, std::vector<std::pair<std::string, std::string>>& elements);

} // namespace s3_testing
