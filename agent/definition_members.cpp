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

const Definition_Members BACKUP_SOURCE = {{"id", MEMBER_TEXT},
                                          {"name", MEMBER_TEXT},
                                          {"minor_resource_id", MEMBER_TEXT},
                                          {"minor_resource_name", MEMBER_TEXT}};
const Definition_Members BACKUP_OPTIONS = {{"compression", MEMBER_TEXT},
                                           {"compression_level", MEMBER_TEXT | MEMBER_NUMBER},
                                           {"channels", MEMBER_NUMBER},
                                           {"exclusion", MEMBER_LIST},
                                           {"exclusion[]", MEMBER_TEXT},
                                           {"inclusion", MEMBER_LIST},
                                           {"inclusion[]", MEMBER_TEXT},
                                           {"cache_dir", MEMBER_TEXT},
                                           {"scan_file_threads", MEMBER_NUMBER},
                                           {"list_cache_limits", MEMBER_NUMBER},
                                           {"tags", MEMBER_FLAG},
                                           {"acl", MEMBER_FLAG},
                                           {"refresh_tags", MEMBER_FLAG}};
const Definition_Members RESTORE_SOURCE = {{"id", MEMBER_TEXT},
                                           {"name", MEMBER_TEXT},
                                           {"catalog_id", MEMBER_TEXT},
                                           {"entries", MEMBER_LIST},
                                           {"entries[]", MEMBER_OBJECT},
                                           {"entries[].file", MEMBER_TEXT},
                                           {"entries[].dir", MEMBER_TEXT},
                                           {"backup_host_id", MEMBER_TEXT},
                                           {"backup_definition_id", MEMBER_NUMBER},
                                           {"backup_minor_resource_id", MEMBER_TEXT},
                                           {"seq", MEMBER_NUMBER},
                                           {"pool_uuid", MEMBER_TEXT}};
const Definition_Members RESTORE_OPTIONS = {{"channels", MEMBER_NUMBER},
                                            {"bucket_maps", MEMBER_LIST},
                                            {"bucket_maps[]", MEMBER_OBJECT},
                                            {"bucket_maps[].source", MEMBER_TEXT},
                                            {"bucket_maps[].target", MEMBER_TEXT},
                                            {"bucket_maps[].prefix", MEMBER_TEXT},
                                            {"standalone", MEMBER_FLAG},
                                            {"existing", MEMBER_TEXT},
                                            {"cache_dir", MEMBER_TEXT},
                                            {"no_acl", MEMBER_FLAG},
                                            {"drop_tags", MEMBER_FLAG},
                                            {"storage_class", MEMBER_TEXT}};

/// The names right below `path`, which is empty or ends with ".".
Names names_below(const Definition_Members& members, const std::string& path) {
  Names names;
  for (const Definition_Member& member : members) {
    const std::string name = std::string(member.path).substr(0, path.size()) == path
                                 ? std::string(member.path).substr(path.size())
                                 : std::string("[");
    if (name.find('[') == std::string::npos)
      names.push_back(name);
  }
  return names;
}

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

/// Looks at the definition's member `name` and the objects in its lists.
bool all_known(const json_spirit::Object& definition, const char* name, const Definition_Members& members,
               std::string& error) {
  const json_spirit::Value* const value = json_spirit::find(definition, name);
  const std::string path = std::string(name) + ".";
  if (!known(value, path, names_below(members, ""), error))
    return false;
  for (const Definition_Member& member : members) {
    const json_spirit::Value* const list =
        member.kinds == MEMBER_LIST && value != nullptr && value->type() == json_spirit::obj_type
            ? json_spirit::find(value->get_obj(), member.path)
            : nullptr;
    if (list == nullptr || list->type() != json_spirit::array_type)
      continue;
    const Names names = names_below(members, std::string(member.path) + "[].");
    for (const json_spirit::Value& item : list->get_array())
      if (!known(&item, path + member.path + ".", names, error))
        return false;
  }
  return true;
}

} // namespace

const Definition_Members& source_members(bool restore) {
  return restore ? RESTORE_SOURCE : BACKUP_SOURCE;
}

const Definition_Members& options_members(bool restore) {
  return restore ? RESTORE_OPTIONS : BACKUP_OPTIONS;
}

bool has_known_members(const json_spirit::Object& definition, std::string& error) {
  const json_spirit::Value* const type = json_spirit::find(definition, "type");
  const bool restore = type != nullptr && type->type() == json_spirit::str_type && type->get_str() == "restore";
  const json_spirit::Value whole(definition);
  return known(&whole, "", DEFINITION, error) &&
         known(json_spirit::find(definition, "target"), "target.", TARGET, error) &&
         all_known(definition, "source", source_members(restore), error) &&
         all_known(definition, "options", options_members(restore), error);
}
