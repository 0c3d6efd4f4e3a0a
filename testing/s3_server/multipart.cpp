// Multipart uploads.
#include "testing/s3_server/digest.h"
#include "testing/s3_server/operations.h"
#include "testing/s3_server/xml_text.h"

namespace s3_testing {
namespace {

constexpr std::uint32_t max_part_number = 10000;

Http_Response no_such_upload(const std::string& id) {
  return error_response(404, "NoSuchUpload",
                        "The specified upload does not exist. The upload ID may be invalid, or the upload may have "
                        "been aborted or completed.",
                        {{"UploadId", id}});
}

Http_Response xml_response(const char* root, const std::string& inner) {
  Http_Response response;
  response.set("Content-Type", "application/xml");
  response.body = std::string(xml_head) + "<" + root + xml_name_space + ">" + inner + "</" + root + ">";
  return response;
}

Http_Response create(const Call& call) {
  Upload upload;
  upload.bucket = call.bucket;
  upload.key = call.key;
  upload.like = object_like_request(call.request);
  take_attributes(call, upload.like);
  upload.started = call.settings.clock();
  std::lock_guard guard(call.uploads.lock);
  // Services use all of base64's alphabet in these; a client that does not encode them fails.
  const std::string id = "up+load/" + std::to_string(call.uploads.next_id++) + "=";
  call.uploads.open[id] = std::move(upload);
  std::string inner;
  xml_element(inner, "Bucket", call.bucket);
  xml_element(inner, "Key", call.key);
  xml_element(inner, "UploadId", id);
  return xml_response("InitiateMultipartUploadResult", inner);
}

Http_Response upload_part(const Call& call, Upload& upload) {
  const std::string* text = call.request.parameter("partNumber");
  const auto number = text ? parse_number(*text) : std::nullopt;
  if (!number || *number < 1 || *number > max_part_number)
    return error_response(400, "InvalidArgument", "Part number must be an integer between 1 and 10000, inclusive");
  Upload::Part part;
  part.md5 = md5(call.request.body);
  part.mtime = call.settings.clock();
  const auto algorithm = upload.like.checksums.find("x-amz-checksum-algorithm");
  if (algorithm != upload.like.checksums.end() && algorithm->second == "SHA256") {
    part.sha256 = sha256(call.request.body);
    const std::string* given = call.request.header("x-amz-checksum-sha256");
    if (!given || *given != to_base64(part.sha256))
      return error_response(400, "BadDigest", "The SHA256 you specified did not match the calculated checksum.");
  }
  part.size = call.request.body.size();
  if (!call.settings.throw_away_parts)
    part.bytes = std::make_shared<const std::string>(std::move(call.request.body));
  Http_Response response;
  response.set("ETag", quoted(to_hex(part.md5)));
  upload.parts[static_cast<std::uint32_t>(*number)] = std::move(part);
  return response;
}

std::string without_quotes(std::string text) {
  if (text.size() >= 2 && text.front() == '"' && text.back() == '"')
    return text.substr(1, text.size() - 2);
  return text;
}

Http_Response complete(const Call& call, const std::string& id, Upload& upload) {
  std::vector<std::pair<std::string, std::string>> elements;
  const Http_Response malformed =
      error_response(400, "MalformedXML", "The XML you provided was not well-formed or did not validate.");
  if (!parse_xml(call.request.body, elements) || elements[0].first != "CompleteMultipartUpload")
    return malformed;
  struct Named {
    std::uint32_t number = 0;
    std::string etag;
    std::string checksum;
  };
  std::vector<Named> named;
  for (const auto& [path, text] : elements) {
    if (path == "CompleteMultipartUpload/Part")
      named.emplace_back();
    else if (path == "CompleteMultipartUpload/Part/PartNumber" && !named.empty()) {
      const auto number = parse_number(text);
      if (!number || *number > max_part_number)
        return malformed;
      named.back().number = static_cast<std::uint32_t>(*number);
    } else if (path == "CompleteMultipartUpload/Part/ETag" && !named.empty())
      named.back().etag = without_quotes(text);
    else if (path == "CompleteMultipartUpload/Part/ChecksumSHA256" && !named.empty())
      named.back().checksum = text;
  }
  if (named.empty())
    return malformed;
  Object object = upload.like;
  std::string digests, checksums;
  for (std::size_t i = 0; i < named.size(); ++i) {
    if (i > 0 && named[i].number <= named[i - 1].number)
      return error_response(400, "InvalidPartOrder", "The list of parts was not in ascending order.");
    const auto at = upload.parts.find(named[i].number);
    if (at == upload.parts.end() || to_hex(at->second.md5) != named[i].etag)
      return error_response(400, "InvalidPart", "One or more of the specified parts could not be found.",
                            {{"PartNumber", std::to_string(named[i].number)}});
    if (i + 1 < named.size() && at->second.size < call.settings.min_part_size)
      return error_response(400, "EntityTooSmall", "Your proposed upload is smaller than the minimum allowed size",
                            {{"PartNumber", std::to_string(named[i].number)}});
    if (!at->second.sha256.empty() && to_base64(at->second.sha256) != named[i].checksum)
      return error_response(400, "InvalidPart", "The checksum of a part is missing or another one.");
    digests += at->second.md5;
    checksums += at->second.sha256;
    object.size += at->second.size;
    object.part_sizes.push_back(at->second.size);
    if (at->second.bytes)
      object.segments.push_back(at->second.bytes);
    else
      object.thrown_away.push_back({at->second.size, at->second.md5});
  }
  if (!object.segments.empty() && !object.thrown_away.empty())
    return error_response(500, "InternalError", "Some parts were kept and others thrown away.");
  object.etag = to_hex(md5(digests)) + "-" + std::to_string(named.size());
  object.checksums.erase("x-amz-checksum-algorithm");
  if (!checksums.empty())
    object.checksums["x-amz-checksum-sha256"] = to_base64(sha256(checksums)) + "-" + std::to_string(named.size());
  object.mtime = call.settings.clock();
  std::string inner;
  xml_element(inner, "Location", "/" + call.bucket + "/" + url_encode(call.key, true));
  xml_element(inner, "Bucket", call.bucket);
  xml_element(inner, "Key", call.key);
  xml_element(inner, "ETag", quoted(object.etag));
  if (!call.store.put(call.bucket, call.key, std::move(object)))
    return no_such_bucket(call.bucket);
  call.uploads.open.erase(id);
  return xml_response("CompleteMultipartUploadResult", inner);
}

Http_Response list_uploads(const Call& call) {
  std::string inner;
  xml_element(inner, "Bucket", call.bucket);
  xml_element(inner, "IsTruncated", "false");
  for (const auto& [id, upload] : call.uploads.open) {
    if (upload.bucket != call.bucket || upload.key.compare(0, call.key.size(), call.key) != 0)
      continue;
    inner += "<Upload>";
    xml_element(inner, "Key", call.request.has_parameter("encoding-type") ? listing_encode(upload.key) : upload.key);
    xml_element(inner, "UploadId", id);
    xml_element(inner, "Initiated", iso_date(upload.started));
    inner += "</Upload>";
  }
  return xml_response("ListMultipartUploadsResult", inner);
}

Http_Response list_parts(const Call& call, const std::string& id, const Upload& upload) {
  std::string inner;
  xml_element(inner, "Bucket", call.bucket);
  xml_element(inner, "Key", call.key);
  xml_element(inner, "UploadId", id);
  xml_element(inner, "IsTruncated", "false");
  for (const auto& [number, part] : upload.parts) {
    inner += "<Part>";
    xml_element(inner, "PartNumber", std::to_string(number));
    xml_element(inner, "LastModified", iso_date(part.mtime));
    xml_element(inner, "ETag", quoted(to_hex(part.md5)));
    xml_element(inner, "Size", std::to_string(part.size));
    inner += "</Part>";
  }
  return xml_response("ListPartsResult", inner);
}

} // namespace

Http_Response serve_multipart(const Call& call) {
  if (!call.store.has_bucket(call.bucket))
    return no_such_bucket(call.bucket);
  if (call.operation == "CreateMultipartUpload")
    return create(call);
  std::lock_guard guard(call.uploads.lock);
  if (call.operation == "ListMultipartUploads")
    return list_uploads(call);
  const std::string id = *call.request.parameter("uploadId");
  const auto at = call.uploads.open.find(id);
  if (at == call.uploads.open.end() || at->second.bucket != call.bucket || at->second.key != call.key)
    return no_such_upload(id);
  if (call.operation == "UploadPart")
    return upload_part(call, at->second);
  if (call.operation == "ListParts")
    return list_parts(call, id, at->second);
  if (call.operation == "CompleteMultipartUpload")
    return complete(call, id, at->second);
  call.uploads.open.erase(at);
  Http_Response response;
  response.status = 204;
  return response;
}

} // namespace s3_testing
