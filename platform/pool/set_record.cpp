#include "platform/pool/set_record.h"

#include "platform/crypto/base64.h"
#include "platform/pool/durable_file.h"
#include "platform/pool/record_text.h"
#include "platform/pool/set_roll.h"

#include <openssl/sha.h>

#include <set>

namespace {

using json_spirit::Object;
using json_spirit::Value;

template <typename T>
void get(const Object& json, const char* key, T& out);

const Value& require(const Object& json, const char* key) {
  const Value* value = json_spirit::find(json, key);
  if (value == nullptr)
    throw json_spirit::Type_Error(std::string("\"") + key + "\" is missing");
  return *value;
}

template <typename T, typename F>
void get_with(const Object& json, const char* key, T& out, F getter) {
  try {
    out = getter(require(json, key));
  } catch (const json_spirit::Type_Error& e) {
    const std::string what = e.what();
    if (what.find(key) != std::string::npos)
      throw;
    throw json_spirit::Type_Error(std::string("\"") + key + "\": " + what);
  }
}

template <>
void get(const Object& json, const char* key, std::string& out) {
  get_with(json, key, out, [](const Value& v) { return v.get_str(); });
}

template <>
void get(const Object& json, const char* key, unsigned long long& out) {
  get_with(json, key, out, [](const Value& v) { return v.get_uint64(); });
}

template <>
void get(const Object& json, const char* key, unsigned& out) {
  unsigned long long wide = 0;
  get(json, key, wide);
  if (wide > 0xFFFFFFFFull)
    throw json_spirit::Type_Error(std::string("\"") + key + "\" is too large");
  out = static_cast<unsigned>(wide);
}

Set_Record::Medium medium_from(const Value& value) {
  const Object& json = value.get_obj();
  Set_Record::Medium medium;
  get(json, "name", medium.name);
  get(json, "size", medium.size);
  get(json, "family", medium.family);
  // The name is joined to the set's folder and must not lead out of it.
  if (medium.name.empty() || medium.name.front() == '.' || medium.name.find('/') != std::string::npos)
    throw json_spirit::Type_Error("\"media\" holds a bad name");
  return medium;
}

bool ends_with(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

/// The prefixes that could not be listed, by the errors of an account that does not count them. What it remarks about
/// the run as a whole stands there as a directory too.
size_t unlisted_prefixes(const json_spirit::Array& errors) {
  std::set<std::string> prefixes;
  for (const Value& error : errors) {
    if (error.type() != json_spirit::obj_type || json_spirit::optional_str(error.get_obj(), "type") != "directory")
      continue;
    const std::string message = json_spirit::optional_str(error.get_obj(), "message");
    if (!ends_with(message, " (--tags).") && !ends_with(message, " listed objects were not handed out."))
      prefixes.insert(json_spirit::optional_str(error.get_obj(), "name"));
  }
  return prefixes.size();
}

} // namespace

std::optional<unsigned long long> figure_of(const Object& figures, const char* name) {
  const Value* const value = json_spirit::find(figures, name);
  if (value == nullptr || value->type() != json_spirit::int_type || (!value->is_uint64() && value->get_int64() < 0))
    return std::nullopt;
  return value->get_uint64();
}

std::optional<unsigned long long> Set_Record::missing() const {
  if (const auto said = figure_of(figures, "missing"))
    return said;
  const auto skipped = figure_of(figures, "skipped"), failed = figure_of(figures, "failed");
  // A set that was made again from its media alone has no account of the run.
  if (!skipped || !failed || json_spirit::optional_str(figures, "rebuilt") == "media")
    return std::nullopt;
  const Value* const errors = json_spirit::find(figures, "errors");
  const bool known = errors != nullptr && errors->type() == json_spirit::array_type;
  const unsigned long long objects = *skipped + *failed;
  if (known)
    return objects + unlisted_prefixes(errors->get_array());
  return objects != 0 || data_key.empty() ? std::optional(objects) : std::nullopt;
}

Object Set_Record::to_json() const {
  Object json;
  const bool encrypted = !data_key.empty();
  // What a program of the first version can read is still said to be of it.
  json["format"] = encrypted ? FORMAT_VERSION : 1;
  json["uuid"] = uuid;
  json["uri"] = uri;
  json["host_uuid"] = host_uuid;
  json["minor_resource_id"] = minor_resource_id;
  json["minor_resource_name"] = encrypted ? std::string() : minor_resource_name;
  json["resource_uuid"] = resource_uuid;
  json["definition_uuid"] = definition_uuid;
  json["name"] = encrypted ? std::string() : name;
  json["agent"] = agent;
  json["host"] = host;
  json["type"] = type;
  json["incarnation"] = incarnation;
  json_spirit::Array base_list(bases.begin(), bases.end());
  json["bases"] = std::move(base_list);
  if (!replaces.empty())
    json["replaces"] = json_spirit::Array(replaces.begin(), replaces.end());
  json["seq"] = seq;
  json["channels"] = channels;
  json["start_time"] = start_time;
  json["end_time"] = end_time;
  json["source_size"] = source_size;
  json["backup_set_size"] = backup_set_size;
  json["backup_set_storage_size"] = backup_set_storage_size;
  json["encryption"] = encryption;
  json_spirit::Array media_list;
  for (const Medium& medium : media) {
    Object one;
    one["name"] = medium.name;
    one["size"] = medium.size;
    one["family"] = medium.family;
    media_list.push_back(std::move(one));
  }
  json["media"] = std::move(media_list);
  if (!encrypted) {
    json["figures"] = figures;
    return json;
  }
  Object numbers;
  for (const auto& [key, value] : figures)
    if (value.type() == json_spirit::int_type || value.type() == json_spirit::real_type ||
        value.type() == json_spirit::bool_type)
      numbers[key] = value;
  json["figures"] = std::move(numbers);
  json["data_key"] = data_key;
  json["sealed"] = sealed;
  return json;
}

bool Set_Record::from_json(const Object& json, Set_Record& record, std::string& error) {
  try {
    unsigned format = 0;
    get(json, "format", format);
    if (format > static_cast<unsigned>(FORMAT_VERSION)) {
      error = "format " + std::to_string(format) + " is newer than this program's";
      return false;
    }
    Set_Record read;
    get(json, "uuid", read.uuid);
    get(json, "uri", read.uri);
    get(json, "host_uuid", read.host_uuid);
    get(json, "minor_resource_id", read.minor_resource_id);
    get(json, "minor_resource_name", read.minor_resource_name);
    get(json, "resource_uuid", read.resource_uuid);
    get(json, "definition_uuid", read.definition_uuid);
    get(json, "name", read.name);
    get(json, "agent", read.agent);
    get(json, "host", read.host);
    get(json, "type", read.type);
    get(json, "incarnation", read.incarnation);
    get(json, "seq", read.seq);
    get(json, "channels", read.channels);
    get(json, "start_time", read.start_time);
    get(json, "end_time", read.end_time);
    get(json, "source_size", read.source_size);
    get(json, "backup_set_size", read.backup_set_size);
    get(json, "backup_set_storage_size", read.backup_set_storage_size);
    get(json, "encryption", read.encryption);
    const auto texts = [](const Value& v) {
      std::vector<std::string> list;
      for (const Value& one : v.get_array())
        list.push_back(one.get_str());
      return list;
    };
    get_with(json, "bases", read.bases, texts);
    if (json_spirit::find(json, "replaces") != nullptr)
      get_with(json, "replaces", read.replaces, texts);
    get_with(json, "media", read.media, [](const Value& v) {
      std::vector<Medium> list;
      for (const Value& one : v.get_array())
        list.push_back(medium_from(one));
      return list;
    });
    get_with(json, "figures", read.figures, [](const Value& v) { return v.get_obj(); });
    if (json_spirit::find(json, "data_key") != nullptr) {
      get(json, "data_key", read.data_key);
      get(json, "sealed", read.sealed);
    }
    record = std::move(read);
    return true;
  } catch (const std::exception& e) {
    error = e.what();
    return false;
  }
}

namespace {

// The check of a record covers all its other members, one of which says that there is a check: so the loss of either
// name is found.
constexpr const char* CHECK_MEMBER = "sha256";
constexpr const char* CHECKED_MEMBER = "checked";

std::string check_of(const Object& json) {
  const std::string text = json_spirit::write(json);
  unsigned char digest[SHA256_DIGEST_LENGTH];
  SHA256(reinterpret_cast<const unsigned char*>(text.data()), text.size(), digest);
  return to_hex(digest, sizeof digest);
}

/// Records of older versions have no check.
bool check_holds(Object json, std::string& error) {
  const auto check = json.find(CHECK_MEMBER);
  if (check == json.end()) {
    if (json.count(CHECKED_MEMBER) == 0)
      return true;
    error = "its check is missing";
    return false;
  }
  const Value said = check->second;
  json.erase(check);
  if (said.type() == json_spirit::str_type && said.get_str() == check_of(json))
    return true;
  error = "it does not match its check";
  return false;
}

/// All that is said in the open, which what is sealed says too.
std::string content_of(Object json) {
  json.erase(CHECK_MEMBER);
  json.erase("sealed");
  return record_hash(json_spirit::write(json));
}

bool read_record_file(const std::string& folder, const char* name, Set_Record& record, std::string& error,
                      bool* missing, Record_Text* said = nullptr) {
  const std::string path = folder + "/" + name;
  std::string text;
  bool absent = false;
  const bool there = read_small_file(path, MAX_RECORD_TEXT, text, error, absent);
  if (missing != nullptr)
    *missing = absent;
  if (!there)
    return false;
  Value value;
  std::string why;
  if (json_spirit::read(text, value, &why)) {
    if (value.type() == json_spirit::obj_type) {
      if (check_holds(value.get_obj(), why) && Set_Record::from_json(value.get_obj(), record, why)) {
        if (said != nullptr)
          *said = {record_hash(text), record.sealed.empty() ? std::string() : content_of(value.get_obj())};
        return true;
      }
    } else {
      why = "not a JSON object";
    }
  }
  error = "bad set record " + path + ": " + why;
  return false;
}

/// As a reader will have it: numbers may not come back to the last bit.
Object as_read(const Set_Record& record) {
  Object json = record.to_json();
  json[CHECKED_MEMBER] = true;
  Value read;
  if (json_spirit::read(json_spirit::write(json), read))
    json = read.get_obj();
  return json;
}

std::string record_text(const Set_Record& record) {
  Object json = as_read(record);
  json[CHECK_MEMBER] = check_of(json);
  return json_spirit::write_formatted(json) + "\n";
}

} // namespace

std::string set_record_text(const Set_Record& record) {
  return record_text(record);
}

std::string record_content(const Set_Record& record) {
  return content_of(as_read(record));
}

bool read_set_record(const std::string& folder, Set_Record& record, std::string& error, bool* missing,
                     Record_Text& text, bool partial) {
  return read_record_file(folder, partial ? Set_Record::PARTIAL_FILE_NAME : Set_Record::FILE_NAME, record, error,
                          missing, &text);
}

Set_Record describe_set(const MTF::Metadata& metadata) {
  Set_Record record;
  record.host_uuid = metadata.host_uuid;
  record.minor_resource_id = metadata.minor_resource_id;
  record.minor_resource_name = metadata.minor_resource_name;
  record.resource_uuid = metadata.resource_uuid;
  record.definition_uuid = metadata.definition_uuid;
  record.name = metadata.name;
  record.agent = metadata.agent;
  record.host = metadata.host;
  record.type = metadata.type;
  record.start_time = metadata.start_time;
  record.encryption = metadata.encryption;
  return record;
}

bool write_set_record(const std::string& folder, const Set_Record& record, std::string& error) {
  return write_durable_file(folder, Set_Record::FILE_NAME, record_text(record), error);
}

bool read_set_record(const std::string& folder, Set_Record& record, std::string& error, bool* missing) {
  return read_record_file(folder, Set_Record::FILE_NAME, record, error, missing);
}

bool write_partial_record(const std::string& folder, const Set_Record& record, std::string& error) {
  return write_durable_file(folder, Set_Record::PARTIAL_FILE_NAME, record_text(record), error);
}

bool read_partial_record(const std::string& folder, Set_Record& record, std::string& error, bool* missing) {
  return read_record_file(folder, Set_Record::PARTIAL_FILE_NAME, record, error, missing);
}

bool read_stored_record(const std::string& folder, Set_Record& record, std::string& error, bool* missing) {
  bool absent = false;
  if (read_set_record(folder, record, error, &absent)) {
    if (missing != nullptr)
      *missing = false;
    return true;
  }
  if (absent) {
    std::string why;
    bool none = false;
    if (read_partial_record(folder, record, why, &none))
      absent = false;
    else if (!none)
      error = why;
    if (missing != nullptr)
      *missing = none;
    return !absent;
  }
  if (missing != nullptr)
    *missing = false;
  return false;
}
