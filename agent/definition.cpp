#include "agent/definition.h"

#include "agent/definition_members.h"
#include "agent/definition_records.h"
#include "platform/mtf/deletion_guard.h"
#include "sdk/json/yajl_writer.h"

namespace {

constexpr ACE_INT64 MAX_SERVICE_TIMEOUT = 86400;

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

} // namespace

Job_Definition_var make_job_definition(const json_spirit::Object& json, const std::string& text, Module& module,
                                       std::string& error) {
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
  unsigned service_timeout = Service_Watch::DEFAULT_LIMIT;
  reader.number("service_timeout", service_timeout);
  if (service_timeout < 1 || service_timeout > MAX_SERVICE_TIMEOUT)
    reader.wrong("service_timeout", "a whole number of seconds from 1 to 86400");
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
  reader.object("options");
  if (!reader.good()) {
    error = reader.error();
    return Job_Definition_var();
  }

  const bool backup = settings.type == JOB_DEFINITION_BACKUP;
  // A rehearsal finds its set itself.
  if (!backup && settings.subtype != JOB_DEFINITION_SUBTYPE_DR_TEST && source != nullptr)
    settings.set_uuid = json_spirit::optional_str(*source, "catalog_id");
  Job_Definition_var definition(new Host_Definition(settings, deletions, service_timeout));
  const bool rehearsal = !backup && settings.subtype == JOB_DEFINITION_SUBTYPE_DR_TEST;
  if (!read_definition_records(text, settings.type, rehearsal, module, definition->source, definition->options, error))
    return Job_Definition_var();
  return definition;
}

Job_Definition_var make_job_definition(const json_spirit::Object& json, Module& module, std::string& error) {
  return make_job_definition(json, json_spirit::write(json_spirit::Value(json)), module, error);
}

namespace {

/// Writes the host's members that say something else than their absence does.
class Member_Writer {
public:
  explicit Member_Writer(yajl_gen_t* gen) : gen_(gen) {}
  void text(const char* key, const std::string& value) {
    if (value.empty())
      return;
    yajl_write(gen_, key);
    yajl_write(gen_, value);
  }
  void flag(const char* key, bool value) {
    if (!value)
      return;
    yajl_write(gen_, key);
    yajl_gen_bool(gen_, 1);
  }
  template <typename T>
  void number(const char* key, const T& value, const T absent) {
    if (value == absent)
      return;
    yajl_write(gen_, key);
    const std::string digits = std::to_string(value);
    yajl_gen_number(gen_, digits.data(), digits.size());
  }

private:
  yajl_gen_t* gen_;
};

/// Job_Definition, in the form that yajl_generate wants.
struct Definition_Text {
  Job_Definition& definition;
  bool with_password;

  void generate(yajl_gen_t* gen) {
    Member_Writer writer(gen);
    yajl_gen_map_open(gen);
    writer.text("type", definition.type() == JOB_DEFINITION_BACKUP ? "backup" : "restore");
    writer.text("subtype", job_def_subtype_to_string(definition.subtype()));
    writer.text("id", definition.id());
    writer.text("uid", definition.uid());
    writer.text("name", definition.name());
    writer.text("agent", definition.agent());
    writer.text("host_id", definition.host_id());
    const Job_Target& target = definition.target();
    if (!target.id().empty() || !target.device_id().empty() || !target.location().empty()) {
      yajl_write(gen, "target");
      yajl_gen_map_open(gen);
      writer.text("id", target.id());
      writer.text("device_id", target.device_id());
      writer.text("location", target.location());
      yajl_gen_map_close(gen);
    }
    writer.text("precondition", definition.precondition());
    writer.text("pre_action", definition.pre_action());
    writer.text("post_action", definition.post_action());
    writer.flag("redirect_pre_action_stdout", definition.redirect_pre_action_stdout());
    writer.flag("redirect_post_action_stdin", definition.redirect_post_action_stdin());
    writer.flag("ignore_pre_action_failure", definition.ignore_pre_action_failure());
    writer.flag("ignore_post_action_failure", definition.ignore_post_action_failure());
    writer.flag("run_post_action_always", definition.run_post_action_always());
    if (with_password)
      writer.text("backup_protection_password", definition.backup_protection_password());
    const Job_Definition::Settings absent;
    writer.number("max_seconds_retry", definition.max_seconds_retry(), absent.max_seconds_retry);
    writer.number("readers", definition.readers(), absent.readers);
    writer.number("rate_limit", definition.rate_limit(), absent.rate_limit);
    writer.number("service_timeout", service_timeout(definition), Service_Watch::DEFAULT_LIMIT);
    writer.flag("only_different", definition.only_different());
    writer.text("archived", definition.archived());
    const Deletion_Limits deletions = deletion_limits(definition);
    writer.flag("allow_empty", deletions.allow_empty);
    if (deletions.given)
      writer.text("max_deleted", deletions.text());
    yajl_write(gen, "source");
    definition.source->generate(gen);
    yajl_write(gen, "options");
    definition.options->generate(gen);
    yajl_gen_map_close(gen);
  }
};

} // namespace

unsigned service_timeout(const Job_Definition& definition) {
  const auto* const host = dynamic_cast<const Host_Definition*>(&definition);
  return host != nullptr ? host->service_timeout() : Service_Watch::DEFAULT_LIMIT;
}

std::string write_job_definition(Job_Definition& definition, bool with_password) {
  Definition_Text text{definition, with_password};
  return yajl_generate(text);
}
