#include "testing/s3_server/operations.h"

#include "testing/s3_server/xml_text.h"

#include <algorithm>

namespace s3_testing {
namespace {

constexpr std::size_t max_key_bytes = 1024;

bool legal_bucket_name(const std::string& name) {
  return name.size() >= 3 && name.size() <= 63 && std::all_of(name.begin(), name.end(), [](char c) {
           return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '.';
         });
}

std::string operation_on_bucket(const Http_Request& request) {
  const std::string& method = request.method;
  if (method == "GET") {
    if (request.has_parameter("location"))
      return "GetBucketLocation";
    if (request.has_parameter("uploads"))
      return "ListMultipartUploads";
    if (const std::string* type = request.parameter("list-type"))
      return *type == "2" ? "ListObjectsV2" : "";
    return "ListObjects";
  }
  return method == "HEAD" ? "HeadBucket" : method == "PUT" ? "CreateBucket" : method == "DELETE" ? "DeleteBucket" : "";
}

std::string operation_on_object(const Http_Request& request) {
  const std::string& method = request.method;
  const bool upload = request.has_parameter("uploadId");
  for (const auto& [parameter, name] : {std::pair("tagging", "Tagging"), std::pair("acl", "Acl")})
    if (request.has_parameter(parameter))
      return method == "GET"   ? std::string("GetObject") + name
             : method == "PUT" ? std::string("PutObject") + name
                               : std::string();
  if (method == "POST")
    return request.has_parameter("uploads")   ? "CreateMultipartUpload"
           : upload                           ? "CompleteMultipartUpload"
           : request.has_parameter("restore") ? "RestoreObject"
                                              : "";
  if (method == "PUT")
    return upload ? "UploadPart" : "PutObject";
  if (method == "DELETE")
    return upload ? "AbortMultipartUpload" : "DeleteObject";
  if (method == "GET")
    return upload ? "ListParts" : "GetObject";
  return method == "HEAD" ? "HeadObject" : "";
}

// Parts of the protocol that must not be mistaken for a plain request.
const char* unserved_feature(const Http_Request& request) {
  for (const char* name : {"cors", "delete", "lifecycle", "logging", "notification", "policy", "requestPayment",
                           "select", "torrent", "versionId", "versioning", "versions", "website", "attributes",
                           "encryption", "object-lock", "legal-hold", "retention"})
    if (request.has_parameter(name))
      return name;
  for (const char* name : {"x-amz-copy-source", "transfer-encoding", "x-amz-trailer", "if-modified-since",
                           "if-unmodified-since", "x-amz-server-side-encryption-customer-algorithm"})
    if (request.header(name))
      return name;
  return nullptr;
}

} // namespace

Target find_target(const Http_Request& request, const S3_Server_Settings& settings) {
  Target target;
  std::string host = *request.header("host");
  host = to_lower(host.substr(0, host.rfind(':')));
  static const std::string suffix = ".localhost";
  std::string path = request.path.substr(1);
  if (host.size() > suffix.size() && host.compare(host.size() - suffix.size(), suffix.size(), suffix) == 0) {
    target.host_bucket = target.bucket = host.substr(0, host.size() - suffix.size());
    target.key = std::move(path);
  } else {
    const auto slash = path.find('/');
    target.bucket = path.substr(0, slash);
    if (slash != std::string::npos)
      target.key = path.substr(slash + 1);
    if (target.bucket.empty() && !path.empty()) {
      target.refusal = error_response(400, "InvalidBucketName", "The specified bucket is not valid.");
      return target;
    }
  }
  const char* feature = unserved_feature(request);
  for (const char* name : {"acl", "tagging"})
    if (request.has_parameter(name) && (target.key.empty() || !settings.object_attributes))
      feature = name;
  if (feature) {
    target.refusal = error_response(501, "NotImplemented", std::string("Not served here: ") + feature);
    return target;
  }
  const bool by_host = !target.host_bucket.empty();
  if (!target.bucket.empty() && ((settings.addressing == Addressing::path_only && by_host) ||
                                 (settings.addressing == Addressing::virtual_only && !by_host))) {
    target.refusal = error_response(400, "InvalidRequest", "This way of addressing a bucket is not served here.");
    return target;
  }
  if (target.bucket.empty()) {
    target.operation = request.method == "GET" ? "ListBuckets" : "";
  } else if (!legal_bucket_name(target.bucket)) {
    target.refusal =
        error_response(400, "InvalidBucketName", "The specified bucket is not valid.", {{"BucketName", target.bucket}});
  } else if (target.key.empty()) {
    target.operation = operation_on_bucket(request);
    if (const std::string* prefix = request.parameter("prefix"))
      target.key = *prefix;
  } else {
    target.operation = operation_on_object(request);
    if (target.key.size() > max_key_bytes)
      target.refusal = error_response(
          400, "KeyTooLongError", "Your key is too long",
          {{"Size", std::to_string(target.key.size())}, {"MaxSizeAllowed", std::to_string(max_key_bytes)}});
  }
  if (target.operation.empty() && !target.refusal)
    target.refusal =
        error_response(405, "MethodNotAllowed", "The specified method is not allowed against this resource.");
  return target;
}

Http_Response serve(const Call& call) {
  const std::string& operation = call.operation;
  if (std::optional<Http_Response> refusal = refused_attributes(call))
    return std::move(*refusal);
  if (operation == "ListObjects" || operation == "ListObjectsV2")
    return serve_listing(call);
  if (operation.find("Bucket") != std::string::npos)
    return serve_bucket(call);
  if (operation.find("Multipart") != std::string::npos || operation == "UploadPart" || operation == "ListParts")
    return serve_multipart(call);
  if (operation == "GetObjectTagging" || operation == "PutObjectTagging" || operation == "GetObjectAcl" ||
      operation == "PutObjectAcl")
    return serve_attributes(call);
  return serve_object(call);
}

Http_Response no_such_bucket(const std::string& bucket) {
  return error_response(404, "NoSuchBucket", "The specified bucket does not exist", {{"BucketName", bucket}});
}

Http_Response no_such_key(const std::string& key) {
  return error_response(404, "NoSuchKey", "The specified key does not exist.", {{"Key", key}});
}

std::string quoted(const std::string& etag) {
  return "\"" + etag + "\"";
}

Object object_like_request(const Http_Request& request) {
  Object object;
  for (const auto& [name, value] : request.headers) {
    if (name == "content-type")
      object.content_type = value;
    else if (name == "x-amz-storage-class")
      object.storage_class = value;
    else if (name.rfind("x-amz-meta-", 0) == 0 || name == "cache-control" || name == "content-disposition" ||
             name == "content-encoding" || name == "content-language" || name == "expires")
      object.headers[name] = value;
  }
  return object;
}

} // namespace s3_testing
