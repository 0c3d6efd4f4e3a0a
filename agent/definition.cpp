#include "agent/definition.h"

#include "agent/definition_members.h"
#include "platform/mtf/deletion_guard.h"

namespace {

/// Reads members of the definition's object and remembers the first that is wrong.
class Member_Reader {
public:
  explicit Member_Reader(const json_spirit::Object& json) : json_(json) {}

  void text(const char* key, std::string& out) {
    if (const json_spirit::Value* value = typed(key, json_spirit::str_type, "a string"))
      out = value->get_str();
  }
  void flag(const char* key, bool& out) {
    if (const json_spirit::Value* value = typed(key, json_spirit::bool_type, "true or false"))
      out = value->get_bool();
  }
  template <typename T>
  void number(const char* key, T& out) {
    const json_spirit::Value* value = typed(key, json_spirit::int_type, "a whole number");
    if (value == nullptr)
      return;
    const ACE_INT64 given = value->get_int64();
    out = static_cast<T>(given);
    if (static_cast<ACE_INT64>(out) != given)
      wrong(key, "a number in range");
  }
  const json_spirit::Object* object(const char* key) {
    const json_spirit::Value* value = typed(key, json_spirit::obj_type, "an object");
    return value ? &value->get_obj() : nullptr;
  }

  bool good() const { return error_.empty(); }
  const std::string& error() const { return error_; }
  void wrong(const char* key, const char* wanted) {
    if (error_.empty())
      error_ = std::string("job definition: \"") + key + "\" must be " + wanted;
  }

private:
  const json_spirit::Value* typed(const char* key, json_spirit::Value_type type, const char* wanted) {
    const json_spirit::Value* value = json_spirit::find(json_, key);
    if (value != nullptr && value->type() != type) {
      wrong(key, wanted);
      return nullptr;
    }
    return value;
  }

  const json_spirit::Object& json_;
  std::string error_;
};

/// Drives one of the module's parsers with the member `key`; the record goes to `record`. An absent member is an empty
/// object, which the parser may refuse.
template <typename RECORD>
bool parse_record(const json_spirit::Object* json, const char* key, Object_Creator_T<YAJL_Handler>& parsers,
                  ACE_Refcounted_Auto_Ptr<RECORD, ACE_Thread_Mutex>& record, std::string& error) {
  YAJL_Handler* handler = parsers.create();
  if (handler == nullptr) {
    error = "out of memory";
    return false;
  }
  const std::string text = json ? json_spirit::write(json_spirit::Value(*json)) : std::string("{}");
  const bool parsed = yajl_parse(text, *handler, error);
  if (parsed)
    record = static_cast<YAJL_Parser<RECORD>*>(handler)->result();
  else
    error = std::string("job definition: \"") + key + "\" is not valid: " + error;
  parsers.destroy(handler);
  return parsed;
}

} // namespace

Job_Definition_var make_job_definition(const json_spirit::Object& json, Module& module, std::string& error) {
  if (!has_known_members(json, error))
    return Job_Definition_var();
  Member_Reader reader(json);
  Job_Definition::Settings settings;
  std::string type;
  std::string subtype;
  reader.text("type", type);
  reader.text("subtype", subtype);
  reader.text("id", settings.id);
  reader.text("uid", settings.uid);
  reader.text("name", settings.name);
  reader.text("agent", settings.agent);
  reader.text("host_id", settings.host_id);
  reader.text("precondition", settings.precondition);
  reader.text("pre_action", settings.pre_action);
  reader.text("post_action", settings.post_action);
  reader.flag("redirect_pre_action_stdout", settings.redirect_pre_action_stdout);
  reader.flag("redirect_post_action_stdin", settings.redirect_post_action_stdin);
  reader.flag("ignore_pre_action_failure", settings.ignore_pre_action_failure);
  reader.flag("ignore_post_action_failure", settings.ignore_post_action_failure);
  reader.flag("run_post_action_always", settings.run_post_action_always);
  reader.text("backup_protection_password", settings.backup_protection_password);
  reader.number("max_seconds_retry", settings.max_seconds_retry);
  reader.number("readers", settings.readers);
  reader.number("rate_limit", settings.rate_limit);
  reader.flag("only_different", settings.only_different);
  reader.text("archived", settings.archived);
  if (settings.archived != "" && settings.archived != "skip" && settings.archived != "fail" &&
      settings.archived != "request")
    reader.wrong("archived", "\"skip\", \"fail\" or \"request\"");

  Deletion_Limits deletions;
  std::string most;
  reader.flag("allow_empty", deletions.allow_empty);
  reader.text("max_deleted", most);
  if (!most.empty() && !Deletion_Limits::parse(most, deletions))
    reader.wrong("max_deleted", "a share as \"30%\", up to \"100%\", or a number of objects as \"500\"");

  settings.type = type == "backup"    ? JOB_DEFINITION_BACKUP
                  : type == "restore" ? JOB_DEFINITION_RESTORE
                                      : JOB_DEFINITION_NONE;
  if (settings.type == JOB_DEFINITION_NONE)
    reader.wrong("type", "\"backup\" or \"restore\"");
  if (!subtype.empty()) {
    settings.subtype = job_def_subtype_from_string(subtype);
    if (settings.subtype == JOB_DEFINITION_SUBTYPE_NONE)
      reader.wrong("subtype", "\"full\", \"incremental\" or another kind of job");
  } else if (settings.type == JOB_DEFINITION_BACKUP) {
    settings.subtype = JOB_DEFINITION_SUBTYPE_INCREMENTAL;
  }
  if (settings.host_id.empty())
    reader.wrong("host_id", "the uuid of an account");

  if (const json_spirit::Object* target = reader.object("target")) {
    Member_Reader target_reader(*target);
    std::string id, device_id, location;
    target_reader.text("id", id);
    target_reader.text("device_id", device_id);
    target_reader.text("location", location);
    if (!target_reader.good())
      reader.wrong("target", "an object with the strings \"id\", \"device_id\" and \"location\"");
    settings.target = Job_Target(id, device_id, location);
  } else if (settings.type == JOB_DEFINITION_BACKUP) {
    reader.wrong("target", "an object with the pool's uuid in \"id\"");
  }
  if (settings.id.empty())
    settings.id = make_uuid();
  unsigned char binary[16];
  if (settings.uid.empty())
    settings.uid = settings.id;
  if (!uuid_string_to_binary(settings.uid, binary))
    reader.wrong("uid", "a uuid");

  const json_spirit::Object* source = reader.object("source");
  const json_spirit::Object* options = reader.object("options");
  if (!reader.good()) {
    error = reader.error();
    return Job_Definition_var();
  }

  const bool backup = settings.type == JOB_DEFINITION_BACKUP;
  // A rehearsal finds its set itself.
  if (!backup && settings.subtype != JOB_DEFINITION_SUBTYPE_DR_TEST && source != nullptr)
    settings.set_uuid = json_spirit::optional_str(*source, "catalog_id");
  Job_Definition_var definition(new Guarded_Definition(settings, deletions));
  if (!parse_record<Job_Source>(source, "source",
                                backup ? module.backup_source_parsers() : module.restore_source_parsers(),
                                definition->source, error) ||
      !parse_record<Job_Options>(options, "options",
                                 backup ? module.backup_options_parsers() : module.restore_options_parsers(),
                                 definition->options, error))
    return Job_Definition_var();
  return definition;
}
