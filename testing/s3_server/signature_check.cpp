#include "testing/s3_server/signature_check.h"

#include "testing/s3_server/digest.h"
#include "testing/s3_server/xml_text.h"

#include <algorithm>
#include <openssl/crypto.h>
#include <set>
#include <string_view>

namespace s3_testing {
namespace {

constexpr std::int64_t max_skew_seconds = 15 * 60;

using Refusal = std::optional<Http_Response>;

bool same(std::string_view a, std::string_view b) {
  return a.size() == b.size() && CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

Refusal signature_refused(const std::string& access_key, const std::string& string_to_sign,
                          std::string_view canonical) {
  return error_response(
      403, "SignatureDoesNotMatch", "The request signature we calculated does not match the signature you provided.",
      {{"AWSAccessKeyId", access_key}, {"StringToSign", string_to_sign}, {"CanonicalRequest", std::string(canonical)}});
}

Refusal malformed(const std::string& why) {
  return error_response(400, "AuthorizationHeaderMalformed", why);
}

Refusal check_skew(std::int64_t sent, const S3_Server_Settings& settings) {
  const std::int64_t now = settings.clock();
  if (sent > now + max_skew_seconds || sent < now - max_skew_seconds)
    return error_response(403, "RequestTimeTooSkewed",
                          "The difference between the request time and the current time is too large.",
                          {{"RequestTime", iso_date(sent)}, {"ServerTime", iso_date(now)}});
  return std::nullopt;
}

const std::string* find_secret(const std::string& access_key, const S3_Server_Settings& settings) {
  const auto at = settings.secrets.find(access_key);
  return at == settings.secrets.end() ? nullptr : &at->second;
}

Refusal unknown_key(const std::string& access_key) {
  return error_response(403, "InvalidAccessKeyId", "The access key Id you provided does not exist in our records.",
                        {{"AWSAccessKeyId", access_key}});
}

std::vector<std::string> split(std::string_view text, char at) {
  std::vector<std::string> out;
  for (;;) {
    const auto end = text.find(at);
    out.emplace_back(text.substr(0, end));
    if (end == std::string_view::npos)
      return out;
    text.remove_prefix(end + 1);
  }
}

// Runs of blanks inside a header value count as one.
std::string squeezed(std::string_view value) {
  std::string out;
  for (char c : value)
    if (c != ' ' || out.empty() || out.back() != ' ')
      out += c;
  return out;
}

// Authorization: AWS4-HMAC-SHA256 Credential=KEY/DATE/REGION/s3/aws4_request, SignedHeaders=a;b, Signature=HEX
Refusal check_v4(const Http_Request& request, std::string_view authorization, const S3_Server_Settings& settings) {
  std::string credential, signed_headers, signature;
  for (const std::string& part : split(authorization, ',')) {
    const std::string_view field = trimmed(part);
    const auto equals = field.find('=');
    const std::string_view name = field.substr(0, equals);
    std::string* target = name == "Credential"      ? &credential
                          : name == "SignedHeaders" ? &signed_headers
                          : name == "Signature"     ? &signature
                                                    : nullptr;
    if (equals == std::string_view::npos || !target || !target->empty())
      return malformed("The authorization header holds an unexpected field.");
    *target = field.substr(equals + 1);
  }
  const std::vector<std::string> scope = split(credential, '/');
  if (scope.size() != 5 || scope[0].empty() || signed_headers.empty() || signature.size() != 64)
    return malformed("The authorization header lacks a credential, signed headers or a signature.");
  const std::string& access_key = scope[0];

  const std::string* date = request.header("x-amz-date");
  const auto sent = date && date->size() == 16 ? parse_date(*date) : std::nullopt;
  if (!sent)
    return error_response(403, "AccessDenied", "AWS authentication requires a valid x-amz-date header.");
  if (scope[1] != date->substr(0, 8))
    return malformed("Invalid credential date. It is not the date of x-amz-date.");
  if (scope[3] != "s3" || scope[4] != "aws4_request")
    return malformed("The credential scope does not end in s3/aws4_request.");
  if (scope[2] != settings.region) {
    Refusal refusal = malformed("The authorization header is malformed; the region '" + scope[2] +
                                "' is wrong; expecting '" + settings.region + "'");
    refusal->error_extra = {{"Region", settings.region}};
    refusal->set("x-amz-bucket-region", settings.region);
    return refusal;
  }
  const std::string* secret = find_secret(access_key, settings);
  if (!secret)
    return unknown_key(access_key);
  if (Refusal skew = check_skew(*sent, settings))
    return skew;

  const std::string* payload = request.header("x-amz-content-sha256");
  if (!payload)
    return error_response(400, "InvalidRequest", "Missing required header for this request: x-amz-content-sha256");

  std::string canonical = request.method + "\n" + url_encode(request.path, true) + "\n";
  std::vector<std::string> parameters;
  for (const auto& [name, value] : request.query)
    parameters.push_back(url_encode(name, false) + "=" + url_encode(value, false));
  // By encoded name, then value: as pairs, for "=" sorts after some characters that a name may hold.
  std::sort(parameters.begin(), parameters.end(), [](const std::string& a, const std::string& b) {
    const auto ea = a.find('='), eb = b.find('=');
    const int order = a.compare(0, ea, b, 0, eb);
    return order != 0 ? order < 0 : a.compare(ea, std::string::npos, b, eb, std::string::npos) < 0;
  });
  for (std::size_t i = 0; i < parameters.size(); ++i)
    canonical += (i ? "&" : "") + parameters[i];
  canonical += "\n";
  const std::vector<std::string> names = split(signed_headers, ';');
  if (!std::is_sorted(names.begin(), names.end()) || std::adjacent_find(names.begin(), names.end()) != names.end())
    return malformed("SignedHeaders is not in order.");
  for (const std::string& name : names) {
    const std::string* value = request.header(name);
    if (!value)
      return malformed("SignedHeaders names a header that was not sent: " + name);
    canonical += name + ":" + squeezed(*value) + "\n";
  }
  for (const auto& [name, value] : request.headers) {
    const bool must = name == "host" || name.rfind("x-amz-", 0) == 0 || name == "content-md5";
    if (must && !std::binary_search(names.begin(), names.end(), name))
      return error_response(403, "AccessDenied", "There were headers present in the request which were not signed",
                            {{"HeadersNotSigned", name}});
  }
  canonical += "\n" + signed_headers + "\n" + *payload;

  const std::string scope_text = scope[1] + "/" + scope[2] + "/s3/aws4_request";
  const std::string string_to_sign =
      "AWS4-HMAC-SHA256\n" + *date + "\n" + scope_text + "\n" + to_hex(sha256(canonical));
  std::string key = hmac_sha256("AWS4" + *secret, scope[1]);
  for (const std::string& step : {scope[2], std::string("s3"), std::string("aws4_request")})
    key = hmac_sha256(key, step);
  if (!same(to_hex(hmac_sha256(key, string_to_sign)), signature))
    return signature_refused(access_key, string_to_sign, canonical);
  return std::nullopt;
}

// Authorization: AWS KEY:BASE64
Refusal check_v2(const Http_Request& request, std::string_view authorization, const std::string& resource_bucket,
                 const S3_Server_Settings& settings) {
  static const std::set<std::string, std::less<>> sub_resources = {"acl",
                                                                   "cors",
                                                                   "delete",
                                                                   "lifecycle",
                                                                   "location",
                                                                   "logging",
                                                                   "notification",
                                                                   "partNumber",
                                                                   "policy",
                                                                   "requestPayment",
                                                                   "response-cache-control",
                                                                   "response-content-disposition",
                                                                   "response-content-encoding",
                                                                   "response-content-language",
                                                                   "response-content-type",
                                                                   "response-expires",
                                                                   "restore",
                                                                   "tagging",
                                                                   "torrent",
                                                                   "uploadId",
                                                                   "uploads",
                                                                   "versionId",
                                                                   "versioning",
                                                                   "versions",
                                                                   "website"};
  const auto colon = authorization.find(':');
  if (colon == std::string_view::npos || colon == 0)
    return error_response(400, "InvalidArgument", "AWS authorization header is invalid.");
  const std::string access_key(authorization.substr(0, colon));
  const std::string_view signature = authorization.substr(colon + 1);
  const auto text = [&](std::string_view name) {
    const std::string* value = request.header(name);
    return value ? *value : std::string();
  };
  const bool amz_date = request.header("x-amz-date") != nullptr;
  const auto sent = parse_date(amz_date ? text("x-amz-date") : text("date"));
  if (!sent)
    return error_response(403, "AccessDenied", "AWS authentication requires a valid Date or x-amz-date header.");
  const std::string* secret = find_secret(access_key, settings);
  if (!secret)
    return unknown_key(access_key);
  if (Refusal skew = check_skew(*sent, settings))
    return skew;

  std::string to_sign = request.method + "\n" + text("content-md5") + "\n" + text("content-type") + "\n" +
                        (amz_date ? "" : text("date")) + "\n";
  Headers amz;
  for (const auto& header : request.headers)
    if (header.first.rfind("x-amz-", 0) == 0)
      amz.push_back(header);
  std::sort(amz.begin(), amz.end());
  for (const auto& [name, value] : amz)
    to_sign += name + ":" + value + "\n";
  const std::string head = std::move(to_sign);
  std::string resource = (resource_bucket.empty() ? "" : "/" + resource_bucket) + request.raw_path;
  std::string tail;
  auto query = request.query;
  std::sort(query.begin(), query.end());
  for (const auto& [name, value] : query)
    if (sub_resources.count(name))
      tail += (tail.empty() ? "?" : "&") + name + (value.empty() ? "" : "=" + value);
  const auto genuine = [&] { return same(to_base64(hmac_sha1(*secret, head + resource + tail)), signature); };
  if (genuine())
    return std::nullopt;
  const std::string expected = head + resource + tail;
  // "/bucket" may be signed as "/bucket/": services take both, and boto3 always signs the second.
  if (resource.size() > 1 && resource.find('/', 1) == std::string::npos) {
    resource += '/';
    if (genuine())
      return std::nullopt;
  }
  return signature_refused(access_key, expected, {});
}

} // namespace

Refusal check_signature(const Http_Request& request, const std::string& resource_bucket,
                        const S3_Server_Settings& settings) {
  if (request.has_parameter("X-Amz-Signature") || request.has_parameter("Signature"))
    return error_response(501, "NotImplemented", "Signatures in the query are not served here.");
  const std::string* authorization = request.header("authorization");
  if (!authorization)
    return error_response(403, "AccessDenied", "Access Denied");
  const std::string_view text = *authorization;
  static constexpr std::string_view v4 = "AWS4-HMAC-SHA256 ", v2 = "AWS ";
  if (text.substr(0, v4.size()) == v4) {
    if (settings.signatures == Signatures::v2_only)
      return error_response(400, "InvalidArgument", "Unsupported Authorization Type");
    return check_v4(request, text.substr(v4.size()), settings);
  }
  if (text.substr(0, v2.size()) == v2) {
    if (settings.signatures == Signatures::v4_only)
      return error_response(400, "InvalidRequest",
                            "The authorization mechanism you have provided is not supported. Please use "
                            "AWS4-HMAC-SHA256.");
    return check_v2(request, text.substr(v2.size()), resource_bucket, settings);
  }
  return error_response(400, "InvalidArgument", "Unsupported Authorization Type");
}

Refusal check_body_digests(const Http_Request& request) {
  if (const std::string* given = request.header("content-md5")) {
    if (given->size() != 24)
      return error_response(400, "InvalidDigest", "The Content-MD5 you specified is not valid.");
    if (to_base64(md5(request.body)) != *given)
      return error_response(400, "BadDigest", "The Content-MD5 you specified did not match what we received.");
  }
  const std::string* hash = request.header("x-amz-content-sha256");
  if (!hash || *hash == "UNSIGNED-PAYLOAD")
    return std::nullopt;
  if (hash->rfind("STREAMING-", 0) == 0)
    return error_response(501, "NotImplemented", "Chunked payloads and checksum trailers are not served here.");
  const bool hex = hash->size() == 64 && hash->find_first_not_of("0123456789abcdef") == std::string::npos;
  if (!hex)
    return error_response(400, "InvalidArgument",
                          "x-amz-content-sha256 must be UNSIGNED-PAYLOAD or a valid sha256 value.");
  if (to_hex(sha256(request.body)) != *hash)
    return error_response(400, "XAmzContentSHA256Mismatch",
                          "The provided 'x-amz-content-sha256' header does not match what was computed.");
  return std::nullopt;
}

} // namespace s3_testing
