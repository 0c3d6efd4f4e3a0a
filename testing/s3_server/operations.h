#pragma once

#include "testing/s3_server/http_message.h"
#include "testing/s3_server/s3_server.h"
#include "testing/s3_server/store.h"

#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace s3_testing {

// Multipart uploads under way.
struct Upload {
  struct Part {
    std::shared_ptr<const std::string> bytes; // null: thrown away
    std::uint64_t size = 0;
    std::string md5;    // raw
    std::string sha256; // raw; where the upload has checksums of that kind
    std::int64_t mtime = 0;
  };
  std::string bucket, key;
  Object like; // content type and headers for the finished object
  std::int64_t started = 0;
  std::map<std::uint32_t, Part> parts;
};

struct Uploads {
  std::mutex lock; // all below
  std::map<std::string, Upload> open;
  std::uint64_t next_id = 1;
};

// What a request asks for: where it points, and under which name it is served.
struct Target {
  std::string operation; // empty: nothing that is served
  std::string bucket, key;
  std::string host_bucket; // the bucket where Host named it
  std::optional<Http_Response> refusal;
};

Target find_target(const Http_Request& request, const S3_Server_Settings& settings);

// One genuine request with its body, and all that serving it needs.
struct Call {
  Http_Request& request; // its body is moved into what is stored
  const S3_Server_Settings& settings;
  Store& store;
  Uploads& uploads;
  const std::string& operation;
  const std::string& bucket;
  const std::string& key;
  bool repeat_page = false, no_next_marker = false, empty_next_marker = false;
};

Http_Response serve(const Call& call);

Http_Response serve_listing(const Call& call);
Http_Response serve_bucket(const Call& call);
Http_Response serve_object(const Call& call);
Http_Response serve_multipart(const Call& call);

Http_Response no_such_bucket(const std::string& bucket);
Http_Response no_such_key(const std::string& key);
// The content type and headers that a PUT or the start of a multipart upload gives an object.
Object object_like_request(const Http_Request& request);

// Attributes of objects: attributes.cpp.
inline constexpr char owner_id[] = "the-owner";
// The answer to a request whose attributes are not taken here.
std::optional<Http_Response> refused_attributes(const Call& call);
// Keeps what a PUT or the start of a multipart upload gives beside content type and headers; says what GET and HEAD
// say.
void take_attributes(const Call& call, Object& object);
void tell_attributes(const Call& call, const Object& object, Http_Response& response);
// Whether the request is for one part; `response` is then that.
bool serve_part(const Call& call, const Object& object, Http_Response& response);
Http_Response serve_attributes(const Call& call);
std::string quoted(const std::string& etag);

} // namespace s3_testing
