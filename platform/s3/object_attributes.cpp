#include "sdk/s3/object_attributes.h"

#include "platform/s3/answers.h"
#include "sdk/json/json_spirit.h"

#include <algorithm>

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

S3_Attribute_Service::~S3_Attribute_Service() = default;

S3_Attribute_Report::~S3_Attribute_Report() = default;

namespace {

void put(Object& out, const char* name, const std::string& text) {
  if (!text.empty())
    out[name] = text;
}

void put(Object& out, const char* name, const Object_Attributes::Named& values) {
  if (values.empty())
    return;
  Object object;
  for (const auto& [key, value] : values)
    object[key] = value;
  out[name] = std::move(object);
}

std::string text_of(Object&& object) {
  return object.empty() ? std::string() : json_spirit::write(std::move(object));
}

void take(const Object& in, const char* name, std::string& text) {
  const Value* value = json_spirit::find(in, name);
  if (value != nullptr)
    text = value->get_str();
}

void take(const Object& in, const char* name, Object_Attributes::Named& values) {
  const Value* value = json_spirit::find(in, name);
  if (value == nullptr)
    return;
  for (const auto& [key, one] : value->get_obj())
    values.emplace_back(key, one.get_str());
}

bool read_object(const std::string& text, Object& object, std::string& error) {
  if (text.empty())
    return true;
  Value value;
  if (!json_spirit::read(text, value, &error))
    return false;
  object = value.get_obj();
  return true;
}

} // namespace

unsigned long long Object_Attributes::part_count() const {
  ACE_UINT64 count = 0;
  const size_t dash = etag.rfind('-');
  // Beyond 10,000 parts no service goes: what stands there is no number of parts.
  return dash != std::string::npos && s3::parse_size(std::string_view(etag).substr(dash + 1), count) && count <= 10000
             ? count
             : 0;
}

std::string Object_Attributes::content_md5() const {
  std::string digest = etag;
  for (char& c : digest)
    if (c >= 'A' && c <= 'F')
      c = static_cast<char>(c - 'A' + 'a');
  const bool hex = digest.size() == 32 && digest.find_first_not_of("0123456789abcdef") == std::string::npos;
  return hex ? digest : std::string();
}

bool Object_Attributes::is_shared() const {
  return std::any_of(grants.begin(), grants.end(), [this](const Object_Grant& one) { return one.grantee != owner; });
}

std::string Object_Attributes::common_text() const {
  Object out;
  put(out, "headers", headers);
  put(out, "metadata", metadata);
  put(out, "tags", tags);
  if (tags_known && tags.empty())
    out["tags"] = Object();
  if (!tags_known && tags.empty() && tag_count > 0)
    out["tag_count"] = tag_count;
  put(out, "storage_class", storage_class);
  put(out, "lock_mode", lock_mode);
  put(out, "lock_until", lock_until);
  if (legal_hold)
    out["legal_hold"] = true;
  put(out, "owner", owner);
  if (!grants.empty()) {
    Array list;
    for (const Object_Grant& grant : grants) {
      Object one;
      one["type"] = grant.type;
      one["grantee"] = grant.grantee;
      one["permission"] = grant.permission;
      list.emplace_back(std::move(one));
    }
    out["grants"] = std::move(list);
  }
  return text_of(std::move(out));
}

std::string Object_Attributes::own_text() const {
  Object out;
  put(out, "etag", etag);
  put(out, "checksums", checksums);
  put(out, "checksum_type", checksum_type);
  if (!parts.empty()) {
    Array list;
    for (const Part_Run& run : parts)
      list.emplace_back(Array{run.count, run.size});
    out["parts"] = std::move(list);
  }
  return text_of(std::move(out));
}

bool Object_Attributes::parse(const std::string& common, const std::string& own, std::string& error) {
  *this = Object_Attributes();
  try {
    Object in;
    if (!read_object(common, in, error))
      return false;
    take(in, "headers", headers);
    take(in, "metadata", metadata);
    take(in, "tags", tags);
    tags_known = json_spirit::find(in, "tags") != nullptr;
    if (const Value* count = json_spirit::find(in, "tag_count"))
      tag_count = count->get_int64();
    take(in, "storage_class", storage_class);
    take(in, "lock_mode", lock_mode);
    take(in, "lock_until", lock_until);
    const Value* hold = json_spirit::find(in, "legal_hold");
    legal_hold = hold != nullptr && hold->get_bool();
    take(in, "owner", owner);
    if (const Value* list = json_spirit::find(in, "grants"))
      for (const Value& one : list->get_array())
        grants.push_back({json_spirit::require_str(one.get_obj(), "type"),
                          json_spirit::require_str(one.get_obj(), "grantee"),
                          json_spirit::require_str(one.get_obj(), "permission")});
    in.clear();
    if (!read_object(own, in, error))
      return false;
    take(in, "etag", etag);
    take(in, "checksums", checksums);
    take(in, "checksum_type", checksum_type);
    if (const Value* list = json_spirit::find(in, "parts"))
      for (const Value& one : list->get_array()) {
        const Array& run = one.get_array();
        if (run.size() != 2)
          throw json_spirit::Type_Error("a run of parts is no pair");
        parts.push_back({run[0].get_uint64(), run[1].get_uint64()});
      }
  } catch (const json_spirit::Type_Error& e) {
    error = e.what();
    *this = Object_Attributes();
    return false;
  }
  return true;
}
