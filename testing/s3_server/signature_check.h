#pragma once

#include "testing/s3_server/http_message.h"
#include "testing/s3_server/s3_server.h"

#include <optional>
#include <string>

namespace s3_testing {

// Checks the Authorization of a request, V4 or V2, against the settings' secrets, region and clock. `resource_bucket`
// is the bucket that a virtual-host style request names in Host, else empty. Null: the request is genuine (its body
// is not looked at). Written against the services' documents, not against a client.
std::optional<Http_Response> check_signature(const Http_Request& request, const std::string& resource_bucket,
                                             const S3_Server_Settings& settings);

// Checks Content-MD5 and x-amz-content-sha256 of a body that has arrived.
std::optional<Http_Response> check_body_digests(const Http_Request& request);

} // namespace s3_testing
