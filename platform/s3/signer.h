#pragma once

#include "platform/http/http_message.h"

#include <ctime>
#include <string>
#include <string_view>

/// Request signing as functions of values.
namespace s3 {

constexpr char EMPTY_SHA256[] = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";
constexpr char UNSIGNED_PAYLOAD[] = "UNSIGNED-PAYLOAD";

/// What of a request is signed. The views must outlive the call.
struct Signable {
  std::string_view method;
  std::string_view path;         ///< percent-encoded, as it is sent
  const Name_Values* query;      ///< not encoded
  const Name_Values* headers;    ///< names in lower case
  std::string_view payload_hash; ///< V4 only
};

/// A V4 key: derived from the secret for one day, region and service, and worth keeping as long as these hold.
struct V4_Key {
  std::string date; ///< "20130524"
  std::string region;
  std::string service;
  std::string key;
};

V4_Key make_v4_key(const std::string& secret_key, time_t when, const std::string& region, const std::string& service);
/// "20130524" and "20130524T000000Z"
std::string v4_day(time_t when);
std::string v4_date(time_t when);
/// "Fri, 24 May 2013 00:00:00 GMT"
std::string http_date(time_t when);

/// The value of "Authorization" for a request whose `headers` carry the host and "x-amz-date" with `date`. All
/// headers are signed.
std::string sign_v4(const Signable& request, const std::string& access_key, const V4_Key& key, const std::string& date);

/// The same by the older method. `headers` carry "date" unless they carry "x-amz-date"; `bucket` is set where the path
/// does not begin with it (virtual-host style).
std::string sign_v2(const Signable& request, std::string_view bucket, const std::string& access_key,
                    const std::string& secret_key);

} // namespace s3
