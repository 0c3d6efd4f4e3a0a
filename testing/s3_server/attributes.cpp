// What belongs to objects beside their content: tags, access lists, locks, parts, and the refusal of any of them.
#include "testing/s3_server/digest.h"
#include "testing/s3_server/operations.h"
#include "testing/s3_server/xml_text.h"

#include <algorithm>

namespace s3_testing {
namespace {

constexpr std::size_t max_tags = 10;
constexpr std::size_t max_metadata_bytes = 2048;
constexpr char lock_prefix[] = "x-amz-object-lock-";

bool begins_with(const std::string& text, std::string_view with) {
  return text.compare(0, with.size(), with) == 0;
}

Http_Response xml_answer(const char* root, const std::string& inner) {
  Http_Response response;
  response.set("Content-Type", "application/xml");
  response.body = std::string(xml_head) + "<" + root + xml_name_space + ">" + inner + "</" + root + ">";
  return response;
}

// "a=b&c=d", both encoded. False where it is not that.
bool parse_tags(const std::string& text, std::map<std::string, std::string>& tags) {
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t end = std::min(text.find('&', at), text.size());
    const std::string one = text.substr(at, end - at);
    const std::size_t equals = one.find('=');
    std::string name, value;
    if (!url_decode(one.substr(0, equals), name) ||
        (equals != std::string::npos && !url_decode(one.substr(equals + 1), value)) || name.empty() ||
        !tags.emplace(name, value).second)
      return false;
    at = end + 1;
  }
  return tags.size() <= max_tags;
}

std::vector<Object::Grant> canned_grants(const std::string& name) {
  std::vector<Object::Grant> grants = {{"CanonicalUser", owner_id, "FULL_CONTROL"}};
  const std::string everybody = "http://acs.amazonaws.com/groups/global/AllUsers";
  if (name == "public-read" || name == "public-read-write")
    grants.push_back({"Group", everybody, "READ"});
  if (name == "public-read-write")
    grants.push_back({"Group", everybody, "WRITE"});
  if (name == "authenticated-read")
    grants.push_back({"Group", "http://acs.amazonaws.com/groups/global/AuthenticatedUsers", "READ"});
  return grants;
}

Http_Response get_tags(const Object& object) {
  std::string set;
  for (const auto& [name, value] : object.tags) {
    std::string tag;
    xml_element(tag, "Key", name);
    xml_element(tag, "Value", value);
    set += "<Tag>" + tag + "</Tag>";
  }
  return xml_answer("Tagging", "<TagSet>" + set + "</TagSet>");
}

std::optional<Http_Response> put_tags(const Call& call, Object& object) {
  std::vector<std::pair<std::string, std::string>> elements;
  if (!parse_xml(call.request.body, elements) || elements[0].first != "Tagging")
    return error_response(400, "MalformedXML", "The XML you provided was not well-formed or did not validate.");
  object.tags.clear();
  std::string name;
  for (const auto& [path, text] : elements) {
    if (path == "Tagging/TagSet/Tag/Key")
      name = text;
    else if (path == "Tagging/TagSet/Tag/Value")
      object.tags[name] = text;
  }
  if (object.tags.size() > max_tags)
    return error_response(400, "BadRequest", "Object tags cannot be greater than 10");
  return std::nullopt;
}

Http_Response get_acl(const Object& object) {
  std::string owner, list;
  xml_element(owner, "ID", owner_id);
  for (const Object::Grant& grant : object.grants.empty() ? canned_grants("private") : object.grants) {
    std::string grantee, permission;
    xml_element(grantee, grant.type == "Group" ? "URI" : "ID", grant.grantee);
    xml_element(permission, "Permission", grant.permission);
    list += "<Grant><Grantee xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\" xsi:type=\"" + grant.type + "\">" +
            grantee + "</Grantee>" + permission + "</Grant>";
  }
  return xml_answer("AccessControlPolicy",
                    "<Owner>" + owner + "</Owner><AccessControlList>" + list + "</AccessControlList>");
}

std::optional<Http_Response> put_acl(const Call& call, Object& object) {
  std::vector<std::pair<std::string, std::string>> elements;
  if (!parse_xml(call.request.body, elements) || elements[0].first != "AccessControlPolicy")
    return error_response(400, "MalformedACLError", "The XML you provided was not well-formed.");
  object.grants.clear();
  std::string owner;
  for (const auto& [path, text] : elements) {
    static const std::string grant = "AccessControlPolicy/AccessControlList/Grant";
    if (path == "AccessControlPolicy/Owner/ID")
      owner = text;
    else if (path == grant)
      object.grants.emplace_back();
    else if (path == grant + "/Grantee/ID" || path == grant + "/Grantee/URI") {
      object.grants.back().type = path.back() == 'D' ? "CanonicalUser" : "Group";
      object.grants.back().grantee = text;
    } else if (path == grant + "/Permission")
      object.grants.back().permission = text;
  }
  if (owner != owner_id)
    return error_response(403, "AccessDenied", "The owner of an object cannot be changed.");
  for (const Object::Grant& grant : object.grants)
    if (begins_with(grant.grantee, "unknown"))
      return error_response(400, "InvalidArgument", "Invalid id");
  return std::nullopt;
}

} // namespace

std::optional<Http_Response> refused_attributes(const Call& call) {
  const Http_Request& request = call.request;
  const bool begins = call.operation == "PutObject" || call.operation == "CreateMultipartUpload";
  for (const auto& [name, refusal] : call.settings.refused_headers)
    for (const auto& [header, value] : request.headers)
      if (begins_with(header, name) && (refusal.value.empty() || refusal.value == value))
        return error_response(refusal.status, refusal.code, refusal.message);
  if (!begins)
    return std::nullopt;
  std::size_t metadata = 0;
  for (const auto& [name, value] : request.headers)
    if (begins_with(name, "x-amz-meta-"))
      metadata += name.size() - 11 + value.size();
  if (metadata > max_metadata_bytes)
    return error_response(400, "MetadataTooLarge", "Your metadata headers exceed the maximum allowed metadata size");
  if (const std::string* tags = request.header("x-amz-tagging")) {
    std::map<std::string, std::string> parsed;
    if (!parse_tags(*tags, parsed))
      return error_response(400, "InvalidArgument",
                            "The header 'x-amz-tagging' shall be encoded as UTF-8 then URLEncoded");
  }
  if (const std::string* sum = request.header("x-amz-checksum-sha256");
      sum && call.operation == "PutObject" && *sum != to_base64(sha256(request.body)))
    return error_response(400, "BadDigest", "The SHA256 you specified did not match the calculated checksum.");
  bool lock = false;
  for (const auto& header : request.headers)
    lock = lock || begins_with(header.first, lock_prefix);
  if (!lock)
    return std::nullopt;
  if (!call.settings.object_lock)
    return error_response(400, "InvalidRequest", "Bucket is missing Object Lock Configuration");
  if (call.operation == "PutObject" && !request.header("content-md5"))
    return error_response(400, "InvalidRequest",
                          "Content-MD5 OR x-amz-checksum- HTTP header is required for Put Object requests with Object "
                          "Lock parameters");
  const std::string* mode = request.header("x-amz-object-lock-mode");
  const std::string* until = request.header("x-amz-object-lock-retain-until-date");
  if (!mode != !until)
    return error_response(400, "InvalidArgument",
                          "x-amz-object-lock-retain-until-date and x-amz-object-lock-mode must both be supplied");
  return std::nullopt;
}

void take_attributes(const Call& call, Object& object) {
  for (const auto& [name, value] : call.request.headers)
    if (begins_with(name, "x-amz-checksum-"))
      object.checksums[name] = value;
    else if (begins_with(name, lock_prefix) || name == "x-amz-website-redirect-location")
      object.headers[name] = value;
  const std::string* tags = call.request.header("x-amz-tagging");
  if (tags && !(call.settings.forgets_multipart_tags && call.operation == "CreateMultipartUpload"))
    parse_tags(*tags, object.tags);
  if (const std::string* acl = call.request.header("x-amz-acl"))
    object.grants = canned_grants(*acl);
  for (const std::string& name : call.settings.forgotten_headers) {
    for (auto at = object.headers.begin(); at != object.headers.end();)
      at = begins_with(at->first, name) ? object.headers.erase(at) : std::next(at);
    if (begins_with("x-amz-storage-class", name))
      object.storage_class = "STANDARD";
  }
}

void tell_attributes(const Call& call, const Object& object, Http_Response& response) {
  if (call.settings.counts_tags && !object.tags.empty())
    response.set("x-amz-tagging-count", std::to_string(object.tags.size()));
  if (call.request.header("x-amz-checksum-mode"))
    for (const auto& [name, value] : object.checksums)
      response.set(name, value);
}

bool serve_part(const Call& call, const Object& object, Http_Response& response) {
  const std::string* text = call.request.parameter("partNumber");
  if (!text || !call.settings.tells_parts)
    return false;
  const auto number = parse_number(*text);
  if (!number || *number < 1 || *number > std::max<std::size_t>(object.part_sizes.size(), 1)) {
    response = error_response(416, "InvalidPartNumber", "The requested partnumber is not satisfiable");
    return true;
  }
  std::uint64_t first = 0, length = object.size;
  if (!object.part_sizes.empty()) {
    for (std::size_t i = 0; i + 1 < *number; ++i)
      first += object.part_sizes[i];
    length = object.part_sizes[static_cast<std::size_t>(*number - 1)];
    response.set("x-amz-mp-parts-count", std::to_string(object.part_sizes.size()));
  }
  response.status = 206;
  response.offset = first;
  response.length = length;
  response.set("Content-Range", "bytes " + std::to_string(first) + "-" + std::to_string(first + length - 1) + "/" +
                                    std::to_string(object.size));
  return true;
}

Http_Response serve_attributes(const Call& call) {
  const Object_Ptr object = call.store.find(call.bucket, call.key);
  if (!object)
    return call.store.has_bucket(call.bucket) ? no_such_key(call.key) : no_such_bucket(call.bucket);
  if (call.operation == "GetObjectTagging")
    return get_tags(*object);
  if (call.operation == "GetObjectAcl")
    return get_acl(*object);
  Object changed = *object;
  if (std::optional<Http_Response> refusal =
          call.operation == "PutObjectTagging" ? put_tags(call, changed) : put_acl(call, changed))
    return *refusal;
  call.store.put(call.bucket, call.key, std::move(changed));
  return Http_Response();
}

} // namespace s3_testing
