#pragma once

#include "platform/s3/answers.h"
#include "platform/s3/request_builder.h"

#include <optional>
#include <string>

namespace s3 {

/// True when `other` is `host` itself, a subdomain of it, or the same service in another region ("s3.eu-west-1.x.com"
/// and "s3-us-west-2.x.com"): only such a host is ever shown a signature that was made for `host`.
bool is_same_service(const std::string& host, const std::string& other);

/// Where a refused request for `bucket` should have gone, by what the refusal says; nothing where it says nothing new,
/// or names a place that the request must not follow to: another service, another port, or away from TLS.
std::optional<Address> redirected(const Address& from, const std::string& bucket, const HTTP_Head& head,
                                  const Error_Document& document);

} // namespace s3
