#include "platform/s3/request_builder.h"

#include "platform/s3/digest.h"
#include "platform/s3/percent_encoding.h"

#include <algorithm>

namespace s3 {
namespace {

bool in_host_name(const Address& address, std::string_view bucket) {
  return address.virtual_host && !bucket.empty() && is_dns_bucket(bucket, address.ssl);
}

std::string path_of(const Request& request, bool in_host) {
  std::string path("/");
  if (!request.bucket.empty() && !in_host) {
    path += percent_encode(request.bucket, false);
    if (!request.key.empty())
      path += '/';
  }
  return path + percent_encode(request.key, true);
}

std::string url_of(const Request& request, const Address& address, const std::string& host, const std::string& path) {
  std::string url = (address.ssl ? "https://" : "http://") + host + path;
  char separator = '?';
  for (const auto& [name, value] : request.query) {
    url += separator + percent_encode(name, false);
    if (!value.empty())
      url += '=' + percent_encode(value, false);
    separator = '&';
  }
  return url;
}

} // namespace

bool is_dns_bucket(std::string_view bucket, bool ssl) {
  if (bucket.size() < 3 || bucket.size() > 63 || bucket.find("..") != std::string_view::npos)
    return false;
  for (const char c : bucket)
    if (!((c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || (c == '.' && !ssl)))
      return false;
  const auto at_end = [](char c) { return c != '-' && c != '.'; };
  return at_end(bucket.front()) && at_end(bucket.back());
}

bool needs_path_style(std::string_view host) {
  if (host.find(':') != std::string_view::npos || host.find('.') == std::string_view::npos)
    return true;
  return host.find_first_not_of("0123456789.") == std::string_view::npos;
}

std::string host_header(const Address& address, std::string_view bucket) {
  std::string text;
  if (in_host_name(address, bucket))
    text.append(bucket).push_back('.');
  if (address.host.find(':') != std::string::npos)
    text += '[' + address.host + ']';
  else
    text += address.host;
  if (address.port != 0 && address.port != (address.ssl ? 443 : 80))
    text += ':' + std::to_string(address.port);
  return text;
}

std::string url_of(const Request& request, const Address& address) {
  return url_of(request, address, host_header(address, request.bucket),
                path_of(request, in_host_name(address, request.bucket)));
}

const std::string& signing_region(const Address& address) {
  static const std::string standard("us-east-1");
  return address.region.empty() ? standard : address.region;
}

HTTP_Request build(const Request& request, const Address& address, const Credentials& credentials, const V4_Key& key,
                   time_t when) {
  const bool in_host = in_host_name(address, request.bucket);
  const std::string path = path_of(request, in_host);
  HTTP_Request http;
  const std::string host = host_header(address, request.bucket);
  http.method = request.method;
  http.has_body = request.has_body;
  http.body = request.body;
  http.url = url_of(request, address, host, path);
  http.headers = request.headers;
  if (!credentials.token.empty())
    http.headers.emplace_back("x-amz-security-token", credentials.token);
  if (credentials.method == SIGN_V2) {
    http.headers.emplace_back("date", http_date(when));
    // Nothing else covers the body.
    if (request.has_body && !request.body.empty())
      http.headers.emplace_back("content-md5", to_base64(md5(request.body)));
    const Signable signable{request.method, path, &request.query, &http.headers, {}};
    http.headers.emplace_back("authorization", sign_v2(signable, in_host ? request.bucket : std::string_view(),
                                                       credentials.access_key, credentials.secret_key));
    return http;
  }
  std::string hash(EMPTY_SHA256);
  if (!request.body.empty()) {
    const bool covered = credentials.payload == Endpoint_Settings::SIGNING_AUTO
                             ? !address.ssl
                             : credentials.payload == Endpoint_Settings::SIGNING_ON;
    hash = covered ? to_hex(sha256(request.body)) : UNSIGNED_PAYLOAD;
  }
  const std::string date = v4_date(when);
  http.headers.emplace_back("x-amz-content-sha256", hash);
  http.headers.emplace_back("x-amz-date", date);
  http.headers.emplace_back("host", host);
  const Signable signable{request.method, path, &request.query, &http.headers, hash};
  std::string authorization = sign_v4(signable, credentials.access_key, key, date);
  // The client library writes the host's line itself, from the URL.
  http.headers.back() = {"authorization", std::move(authorization)};
  return http;
}

} // namespace s3
