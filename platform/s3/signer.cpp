#include "platform/s3/signer.h"

#include "platform/s3/digest.h"
#include "platform/s3/percent_encoding.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace s3 {
namespace {

struct tm broken_down(time_t when) {
  struct tm parts = {};
  gmtime_r(&when, &parts);
  return parts;
}

/// Runs of blanks count as one, those at the ends as none.
std::string trimmed(const std::string& value) {
  std::string out;
  out.reserve(value.size());
  for (const char c : value) {
    if (c == ' ' && (out.empty() || out.back() == ' '))
      continue;
    out.push_back(c);
  }
  while (!out.empty() && out.back() == ' ')
    out.pop_back();
  return out;
}

/// Without blanks at the ends; V2 leaves those inside as they are.
std::string without_ends(const std::string& value) {
  const size_t first = value.find_first_not_of(' ');
  return first == std::string::npos ? std::string() : value.substr(first, value.find_last_not_of(' ') - first + 1);
}

/// The parameters that name a part of the resource, and so are signed by V2.
bool is_v2_subresource(const std::string& name) {
  static const std::array<const char*, 26> names = {"accelerate",
                                                    "acl",
                                                    "cors",
                                                    "delete",
                                                    "encryption",
                                                    "lifecycle",
                                                    "location",
                                                    "logging",
                                                    "notification",
                                                    "partNumber",
                                                    "policy",
                                                    "replication",
                                                    "requestPayment",
                                                    "response-cache-control",
                                                    "response-content-disposition",
                                                    "response-content-encoding",
                                                    "response-content-language",
                                                    "response-content-type",
                                                    "response-expires",
                                                    "tagging",
                                                    "torrent",
                                                    "uploadId",
                                                    "uploads",
                                                    "versionId",
                                                    "versioning",
                                                    "versions"};
  return std::find(names.begin(), names.end(), name) != names.end() || name == "website";
}

/// Fields of one name keep their order.
Name_Values sorted(const Name_Values& values) {
  Name_Values copy(values);
  std::stable_sort(copy.begin(), copy.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
  return copy;
}

} // namespace

std::string v4_day(time_t when) {
  return v4_date(when).substr(0, 8);
}

std::string v4_date(time_t when) {
  const struct tm parts = broken_down(when);
  char text[32];
  strftime(text, sizeof text, "%Y%m%dT%H%M%SZ", &parts);
  return text;
}

std::string http_date(time_t when) {
  static const char* const days[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
  static const char* const months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                       "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  const struct tm parts = broken_down(when);
  char text[64];
  std::snprintf(text, sizeof text, "%s, %02d %s %d %02d:%02d:%02d GMT", days[parts.tm_wday], parts.tm_mday,
                months[parts.tm_mon], parts.tm_year + 1900, parts.tm_hour, parts.tm_min, parts.tm_sec);
  return text;
}

V4_Key make_v4_key(const std::string& secret_key, time_t when, const std::string& region, const std::string& service) {
  V4_Key key{v4_day(when), region, service, {}};
  key.key = hmac_sha256("AWS4" + secret_key, key.date);
  key.key = hmac_sha256(key.key, region);
  key.key = hmac_sha256(key.key, service);
  key.key = hmac_sha256(key.key, "aws4_request");
  return key;
}

std::string sign_v4(const Signable& request, const std::string& access_key, const V4_Key& key,
                    const std::string& date) {
  std::string canonical(request.method);
  canonical += '\n';
  canonical += request.path;
  canonical += '\n';
  Name_Values query;
  query.reserve(request.query->size());
  for (const auto& [name, value] : *request.query)
    query.emplace_back(percent_encode(name, false), percent_encode(value, false));
  std::sort(query.begin(), query.end());
  for (const auto& [name, value] : query) {
    if (&name != &query.front().first)
      canonical += '&';
    canonical += name;
    canonical += '=';
    canonical += value;
  }
  canonical += '\n';
  std::string names;
  for (const auto& [name, value] : sorted(*request.headers)) {
    canonical += name;
    canonical += ':';
    canonical += trimmed(value);
    canonical += '\n';
    if (!names.empty())
      names += ';';
    names += name;
  }
  canonical += '\n';
  canonical += names;
  canonical += '\n';
  canonical += request.payload_hash;

  const std::string scope = key.date + '/' + key.region + '/' + key.service + "/aws4_request";
  const std::string to_sign = "AWS4-HMAC-SHA256\n" + date + '\n' + scope + '\n' + to_hex(sha256(canonical));
  return "AWS4-HMAC-SHA256 Credential=" + access_key + '/' + scope + ",SignedHeaders=" + names +
         ",Signature=" + to_hex(hmac_sha256(key.key, to_sign));
}

std::string sign_v2(const Signable& request, std::string_view bucket, const std::string& access_key,
                    const std::string& secret_key) {
  std::string md5, type, date, amz;
  for (const auto& [name, value] : sorted(*request.headers)) {
    if (name == "content-md5")
      md5 = value;
    else if (name == "content-type")
      type = value;
    else if (name == "date")
      date = value;
    else if (name.compare(0, 6, "x-amz-") == 0) {
      // Fields of one name are one field, their values parted by commas.
      const std::string start = name + ':';
      const size_t line = amz.rfind('\n', amz.size() < 2 ? 0 : amz.size() - 2);
      const size_t at = line == std::string::npos ? 0 : line + 1;
      if (amz.compare(at, start.size(), start) == 0)
        amz.replace(amz.size() - 1, 1, "," + without_ends(value) + "\n");
      else
        amz += start + without_ends(value) + '\n';
    }
  }
  if (amz.find("x-amz-date:") != std::string::npos)
    date.clear();

  std::string to_sign(request.method);
  to_sign += '\n' + md5 + '\n' + type + '\n' + date + '\n' + amz;
  if (!bucket.empty()) {
    to_sign += '/';
    to_sign += bucket;
  }
  to_sign += request.path;
  char separator = '?';
  for (const auto& [name, value] : sorted(*request.query)) {
    if (!is_v2_subresource(name))
      continue;
    to_sign += separator;
    to_sign += name;
    if (!value.empty())
      to_sign += '=' + value;
    separator = '&';
  }
  return "AWS " + access_key + ':' + to_base64(hmac_sha1(secret_key, to_sign));
}

} // namespace s3
