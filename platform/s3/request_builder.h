#pragma once

#include "platform/http/http_message.h"
#include "platform/s3/endpoint_settings.h"
#include "platform/s3/signer.h"

#include <string>
#include <string_view>

namespace s3 {

/// What is asked of a service, before it is known how the service is addressed.
struct Request {
  std::string method;
  std::string bucket;  ///< empty: the account
  std::string key;     ///< bytes; empty: the bucket
  Name_Values query;   ///< bytes; a parameter with an empty value is sent as its name alone
  Name_Values headers; ///< names in lower case
  bool has_body = false;
  std::string_view body; ///< must outlive the request
};

/// Where a request goes. A value.
struct Address {
  bool ssl = false;
  std::string host; ///< without the bucket; IPv6 without brackets
  unsigned short port = 0;
  bool virtual_host = false; ///< "bucket.host" instead of "host/bucket"
  std::string region;        ///< empty: the default one

  bool operator==(const Address& other) const = default;
};

enum Sign_Method { SIGN_V4, SIGN_V2 };

struct Credentials {
  std::string access_key;
  std::string secret_key;
  std::string token; ///< of temporary keys; empty for lasting ones
  Sign_Method method = SIGN_V4;
  Endpoint_Settings::Payload_Signing payload = Endpoint_Settings::SIGNING_AUTO;
};

/// True for names that may stand before the host's name: 3 to 63 of a-z, 0-9, "-" and "."; under TLS without ".", which
/// no wildcard certificate covers.
bool is_dns_bucket(std::string_view bucket, bool ssl);
/// True where `host` cannot carry a bucket's name: an address, or a name of one label.
bool needs_path_style(std::string_view host);
/// "host", "host:port" where the port is not the scheme's own, with brackets around IPv6.
std::string host_header(const Address& address, std::string_view bucket);
/// Where the request goes: the whole URL, percent-encoded.
std::string url_of(const Request& request, const Address& address);
/// The region to sign for: that of `address`, else the default one.
const std::string& signing_region(const Address& address);

/// The request as it goes over the wire, signed for the moment `when`. `key` is the V4 key of that day
/// and region; of no use for V2. Whether the signature covers the body is a matter of
/// `credentials.payload`.
HTTP_Request build(const Request& request, const Address& address, const Credentials& credentials, const V4_Key& key,
                   time_t when);

} // namespace s3
