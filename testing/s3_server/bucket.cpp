// Operations on buckets, listing their objects apart.
#include "testing/s3_server/operations.h"
#include "testing/s3_server/xml_text.h"

namespace s3_testing {
namespace {

Http_Response list_buckets(const Call& call) {
  Http_Response response;
  response.set("Content-Type", "application/xml");
  std::string& out = response.body = xml_head;
  out += std::string("<ListAllMyBucketsResult") + xml_name_space +
         "><Owner><ID>s3-testing</ID><DisplayName>s3-testing</DisplayName></Owner><Buckets>";
  for (const auto& [name, created] : call.store.buckets()) {
    out += "<Bucket>";
    xml_element(out, "Name", name);
    xml_element(out, "CreationDate", iso_date(created));
    out += "</Bucket>";
  }
  out += "</Buckets></ListAllMyBucketsResult>";
  return response;
}

Http_Response location(const Call& call) {
  const std::string& region = call.settings.region;
  const std::string text = call.settings.location.value_or(region == "us-east-1" ? "" : region);
  Http_Response response;
  response.set("Content-Type", "application/xml");
  response.body = std::string(xml_head) + "<LocationConstraint" + xml_name_space;
  response.body += text.empty() ? "/>" : ">" + xml_escape(text) + "</LocationConstraint>";
  return response;
}

Http_Response create(const Call& call) {
  if (!call.request.body.empty()) {
    std::vector<std::pair<std::string, std::string>> elements;
    if (!parse_xml(call.request.body, elements) || elements[0].first != "CreateBucketConfiguration")
      return error_response(400, "MalformedXML", "The XML you provided was not well-formed.");
    for (const auto& [path, text] : elements)
      if (path == "CreateBucketConfiguration/LocationConstraint" && text != call.settings.region)
        return error_response(400, "IllegalLocationConstraintException",
                              "The location constraint is not the region of this endpoint.");
  }
  if (!call.store.create_bucket(call.bucket, call.settings.clock()))
    return error_response(409, "BucketAlreadyOwnedByYou", "The bucket exists already and is yours.",
                          {{"BucketName", call.bucket}});
  Http_Response response;
  response.set("Location", "/" + call.bucket);
  return response;
}

} // namespace

Http_Response serve_bucket(const Call& call) {
  if (call.operation == "ListBuckets")
    return list_buckets(call);
  if (call.operation == "CreateBucket")
    return create(call);
  if (!call.store.has_bucket(call.bucket))
    return no_such_bucket(call.bucket);
  if (call.operation == "GetBucketLocation")
    return location(call);
  Http_Response response;
  if (call.operation == "HeadBucket") {
    response.set("x-amz-bucket-region", call.settings.region);
    return response;
  }
  switch (call.store.remove_bucket(call.bucket)) {
  case 1:
    return no_such_bucket(call.bucket);
  case 2:
    return error_response(409, "BucketNotEmpty", "The bucket you tried to delete is not empty");
  default:
    response.status = 204;
    return response;
  }
}

} // namespace s3_testing
