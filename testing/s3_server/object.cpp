// GET, HEAD, PUT and DELETE of an object.
#include "testing/s3_server/digest.h"
#include "testing/s3_server/operations.h"
#include "testing/s3_server/xml_text.h"

namespace s3_testing {
namespace {

void set_object_headers(const Object& object, bool etags, Http_Response& response) {
  response.set("Last-Modified", http_date(object.mtime));
  if (etags)
    response.set("ETag", quoted(object.etag));
  response.set("Accept-Ranges", "bytes");
  response.set("Content-Type", object.content_type);
  if (object.storage_class != "STANDARD")
    response.set("x-amz-storage-class", object.storage_class);
  for (const auto& [name, value] : object.headers)
    response.set(name, value);
}

// A list of quoted tags or "*"; bare tags are taken too, as the real service does.
bool names_etag(const std::string& list, const std::string& etag) {
  std::string_view rest = list;
  for (;;) {
    const auto comma = rest.find(',');
    const std::string_view one = trimmed(rest.substr(0, comma));
    if (one == "*" || one == etag || one == quoted(etag))
      return true;
    if (comma == std::string_view::npos)
      return false;
    rest.remove_prefix(comma + 1);
  }
}

bool is_archived(const Object& object) {
  return object.storage_class == "GLACIER" || object.storage_class == "DEEP_ARCHIVE";
}

bool has_thawed_copy(const Object& object) {
  const auto found = object.headers.find("x-amz-restore");
  return found != object.headers.end() && found->second.find("ongoing-request=\"false\"") != std::string::npos;
}

struct Range {
  std::uint64_t first = 0, length = 0;
};

// "bytes=A-B", "bytes=A-" or "bytes=-N". False where it is none of these; length 0 where it lies outside.
bool parse_range(std::string_view text, std::uint64_t size, Range& range) {
  static constexpr std::string_view unit = "bytes=";
  if (text.substr(0, unit.size()) != unit)
    return false;
  text.remove_prefix(unit.size());
  const auto dash = text.find('-');
  if (dash == std::string_view::npos)
    return false;
  const auto first = parse_number(text.substr(0, dash)), last = parse_number(text.substr(dash + 1));
  if ((dash > 0 && !first) || (dash + 1 < text.size() && !last) || (!first && !last) ||
      (first && last && *last < *first))
    return false;
  if (!first) {
    range.length = std::min(*last, size);
    range.first = size - range.length;
  } else if (*first < size) {
    range.first = *first;
    range.length = (last ? std::min(*last, size - 1) : size - 1) - *first + 1;
  }
  return true;
}

Http_Response get(const Call& call) {
  const Object_Ptr object = call.store.find(call.bucket, call.key);
  if (!object)
    return no_such_key(call.key);
  if (const std::string* match = call.request.header("if-match");
      match && call.settings.if_match && !names_etag(*match, object->etag))
    return error_response(412, "PreconditionFailed", "At least one of the pre-conditions you specified did not hold",
                          {{"Condition", "If-Match"}});
  if (const std::string* none = call.request.header("if-none-match"); none && names_etag(*none, object->etag)) {
    Http_Response response;
    response.status = 304;
    response.set("ETag", quoted(object->etag));
    return response;
  }
  if (call.operation == "GetObject" && is_archived(*object) && !has_thawed_copy(*object))
    return error_response(403, "InvalidObjectState", "The operation is not valid for the object's storage class",
                          {{"StorageClass", object->storage_class}});
  if (call.operation == "GetObject" && !object->thrown_away.empty())
    return error_response(501, "NotImplemented", "The content of this object was thrown away.");
  Http_Response response;
  response.content = object;
  response.length = object->size;
  if (serve_part(call, *object, response)) {
    if (!response.error_code.empty())
      return response;
  } else if (const std::string* text = call.request.header("range"); text && call.settings.ranges) {
    Range range;
    if (!parse_range(*text, object->size, range))
      return error_response(400, "InvalidArgument", "The Range header is malformed.", {{"Range", *text}});
    if (range.length == 0) {
      Http_Response refusal =
          error_response(416, "InvalidRange", "The requested range is not satisfiable",
                         {{"RangeRequested", *text}, {"ActualObjectSize", std::to_string(object->size)}});
      refusal.set("Content-Range", "bytes */" + std::to_string(object->size));
      return refusal;
    }
    response.status = 206;
    response.offset = range.first;
    response.length = range.length;
    response.set("Content-Range", "bytes " + std::to_string(range.first) + "-" +
                                      std::to_string(range.first + range.length - 1) + "/" +
                                      std::to_string(object->size));
  }
  set_object_headers(*object, call.settings.etags, response);
  tell_attributes(call, *object, response);
  return response;
}

Http_Response put(const Call& call) {
  const Object_Ptr existing = call.store.find(call.bucket, call.key);
  const std::string* match = call.request.header("if-match");
  const std::string* none = call.request.header("if-none-match");
  if ((match && (!existing || !names_etag(*match, existing->etag))) ||
      (none && existing && names_etag(*none, existing->etag)))
    return error_response(412, "PreconditionFailed", "At least one of the pre-conditions you specified did not hold");
  Object object = object_like_request(call.request);
  take_attributes(call, object);
  object.size = call.request.body.size();
  object.etag = to_hex(md5(call.request.body));
  object.segments.push_back(std::make_shared<const std::string>(std::move(call.request.body)));
  object.mtime = call.settings.clock();
  Http_Response response;
  response.set("ETag", quoted(object.etag));
  if (!call.store.put(call.bucket, call.key, std::move(object)))
    return no_such_bucket(call.bucket);
  return response;
}

// Begins to thaw; the copy is there when a test says so.
Http_Response thaw(const Call& call) {
  const Object_Ptr object = call.store.find(call.bucket, call.key);
  if (!object)
    return no_such_key(call.key);
  if (!is_archived(*object))
    return error_response(403, "InvalidObjectState", "Restore is not allowed for the object's current storage class");
  if (call.request.body.find("<Days>") == std::string::npos)
    return error_response(400, "MalformedXML", "The request names no number of days.");
  Http_Response response;
  if (has_thawed_copy(*object))
    return response;
  if (object->headers.count("x-amz-restore") != 0)
    return error_response(409, "RestoreAlreadyInProgress", "Object restore is already in progress");
  Object next = *object;
  next.headers["x-amz-restore"] = "ongoing-request=\"true\"";
  call.store.put(call.bucket, call.key, std::move(next));
  response.status = 202;
  return response;
}

} // namespace

Http_Response serve_object(const Call& call) {
  if (!call.store.has_bucket(call.bucket))
    return no_such_bucket(call.bucket);
  if (call.operation == "PutObject")
    return put(call);
  if (call.operation == "RestoreObject")
    return thaw(call);
  if (call.operation == "DeleteObject") {
    call.store.remove(call.bucket, call.key);
    Http_Response response;
    response.status = 204;
    return response;
  }
  return get(call);
}

} // namespace s3_testing
