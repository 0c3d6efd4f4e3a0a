#include "agent/definition_members.h"

#include <algorithm>
#include <vector>

namespace {

typedef std::vector<std::string> Names;

const Names DEFINITION = {"type",
                          "subtype",
                          "id",
                          "uid",
                          "name",
                          "agent",
                          "host_id",
                          "target",
                          "source",
                          "options",
                          "precondition",
                          "pre_action",
                          "post_action",
                          "redirect_pre_action_stdout",
                          "redirect_post_action_stdin",
                          "ignore_pre_action_failure",
                          "ignore_post_action_failure",
                          "run_post_action_always",
                          "backup_protection_password",
                          "max_seconds_retry",
                          "service_timeout",
                          "readers",
                          "rate_limit",
                          "only_different",
                          "archived",
                          "allow_empty",
                          "max_deleted"};
const Names TARGET = {"id", "device_id", "location"};
const Names BACKUP_SOURCE = {"id", "name", "minor_resource_id", "minor_resource_name"};
const Names RESTORE_SOURCE = {
    "id",  "name",     "catalog_id", "entries", "backup_host_id", "backup_definition_id", "backup_minor_resource_id",
    "seq", "pool_uuid"};
const Names ENTRY = {"file", "dir"};
const Names BACKUP_OPTIONS = {"compression", "compression_level", "channels",          "exclusion", "inclusion",
                              "cache_dir",   "scan_file_threads", "list_cache_limits", "tags",      "acl"};
const Names RESTORE_OPTIONS = {"channels",  "bucket_maps", "standalone", "existing",
                               "cache_dir", "no_acl",      "drop_tags",  "storage_class"};
const Names BUCKET_MAP = {"source", "target", "prefix"};

/// Looks at an object. What is no object is for others to refuse.
bool known(const json_spirit::Value* value, const std::string& path, const Names& names, std::string& error) {
  if (value == nullptr || value->type() != json_spirit::obj_type)
    return true;
  for (const auto& member : value->get_obj()) {
    if (std::find(names.begin(), names.end(), member.first) != names.end())
      continue;
    error = "job definition: there is no member \"" + path + member.first + "\"; there are";
    for (const std::string& name : names)
      error += (&name == &names.front() ? " " : ", ") + name;
    return false;
  }
  return true;
}

bool all_known(const json_spirit::Value* value, const char* list, const std::string& path, const Names& names,
               std::string& error) {
  const json_spirit::Value* const array =
      value != nullptr && value->type() == json_spirit::obj_type ? json_spirit::find(value->get_obj(), list) : nullptr;
  if (array == nullptr || array->type() != json_spirit::array_type)
    return true;
  const json_spirit::Array& items = array->get_array();
  return std::all_of(items.begin(), items.end(),
                     [&](const json_spirit::Value& item) { return known(&item, path + list + ".", names, error); });
}

} // namespace

bool has_known_members(const json_spirit::Object& definition, std::string& error) {
  const json_spirit::Value* const type = json_spirit::find(definition, "type");
  const bool restore = type != nullptr && type->type() == json_spirit::str_type && type->get_str() == "restore";
  const json_spirit::Value* const source = json_spirit::find(definition, "source");
  const json_spirit::Value* const options = json_spirit::find(definition, "options");
  const json_spirit::Value whole(definition);
  return known(&whole, "", DEFINITION, error) &&
         known(json_spirit::find(definition, "target"), "target.", TARGET, error) &&
         known(source, "source.", restore ? RESTORE_SOURCE : BACKUP_SOURCE, error) &&
         all_known(source, "entries", "source.", ENTRY, error) &&
         known(options, "options.", restore ? RESTORE_OPTIONS : BACKUP_OPTIONS, error) &&
         all_known(options, "bucket_maps", "options.", BUCKET_MAP, error);
}
