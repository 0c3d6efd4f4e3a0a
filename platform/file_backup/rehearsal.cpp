#include "platform/file_backup/retry.h"
#include "platform/file_backup/set_catalog.h"
#include "sdk/file_backup/file_backup.h"

#include <ctime>

namespace {

constexpr const char* NOTE_KIND = "dr_test";

/// Seconds since the epoch of "%Y-%m-%d %H:%M:%S", UTC; 0 when the text is none.
ACE_INT64 parse_time(const std::string& text) {
  struct tm parts = {};
  const char* const end = ::strptime(text.c_str(), "%Y-%m-%d %H:%M:%S", &parts);
  return end != nullptr && *end == '\0' ? static_cast<ACE_INT64>(::timegm(&parts)) : 0;
}

/// Whether the newest set is one from before the set that was rehearsed, which was removed since. Both number and time
/// must say so: numbers begin anew after the last one, and clocks are set back.
bool is_older(const Set& set, const std::string& minor_resource_id, const std::string& pool,
              const file_backup::File_DR_Test_Context& rehearsed) {
  return !rehearsed.uuid.empty() && rehearsed.minor_resource_id == minor_resource_id && rehearsed.pool_uuid == pool &&
         static_cast<int>(set.seq) < rehearsed.seq && parse_time(set.end_time) < rehearsed.backup_time;
}

template <typename T>
void get_number(const json_spirit::Object& json, const char* key, T& value) {
  if (const json_spirit::Value* found = json_spirit::find(json, key))
    value = static_cast<T>(found->get_int64());
}

} // namespace

namespace file_backup {

void load_dr_test_context(const std::string& definition_id, File_DR_Test_Context& context) {
  context = File_DR_Test_Context();
  Store* const store = Store::instance();
  std::string text;
  std::string error = "the agent's database is not open";
  bool found = false;
  if (store == nullptr || !store->find_note(NOTE_KIND, definition_id, text, found, error)) {
    ACE_ERROR(
        (LM_ERROR, ACE_TEXT("Failed to load the rehearsal of '%C': %C.\n"), definition_id.c_str(), error.c_str()));
    return;
  }
  if (!found)
    return;
  try {
    json_spirit::Value value;
    if (!json_spirit::read(text, value, &error))
      throw json_spirit::Type_Error(error);
    const json_spirit::Object& json = value.get_obj();
    File_DR_Test_Context read;
    get_number(json, "incarnation", read.incarnation);
    get_number(json, "seq", read.seq);
    get_number(json, "channels", read.channels);
    get_number(json, "backup_time", read.backup_time);
    read.minor_resource_id = json_spirit::optional_str(json, "minor_resource_id");
    read.host_uuid = json_spirit::optional_str(json, "host_uuid");
    read.pool_uuid = json_spirit::optional_str(json, "pool_uuid");
    read.uuid = json_spirit::optional_str(json, "uuid");
    read.uri = json_spirit::optional_str(json, "uri");
    context = read;
  } catch (const json_spirit::Type_Error& damage) {
    ACE_ERROR((LM_WARNING, ACE_TEXT("What is kept of the rehearsal of '%C' makes no sense and is forgotten: %C.\n"),
               definition_id.c_str(), damage.what()));
  }
}

bool get_dr_test_seqs(const std::string& minor_resource_id, File_DR_Test_Context& context, int max_seconds_retry,
                      const std::string* pool_uuid) {
  const std::string pool = pool_uuid != nullptr && !pool_uuid->empty() ? *pool_uuid : context.pool_uuid;
  Set set;
  bool found = false;
  const bool read = retry_within(max_seconds_retry, "find the set to rehearse", [&](std::string& error) {
    Store* const store = Store::instance();
    if (store == nullptr) {
      error = "the agent's database is not open";
      return false;
    }
    return reconcile_sets(*store, pool, minor_resource_id, error) &&
           store->newest_set(pool, minor_resource_id, set, found, error);
  });
  if (!read)
    return false;
  context.update = found && set.uuid != context.uuid && !is_older(set, minor_resource_id, pool, context);
  if (!context.update)
    return true;
  context.seq = static_cast<int>(set.seq);
  context.minor_resource_id = minor_resource_id;
  context.host_uuid = set.account_uuid;
  context.channels = static_cast<int>(set.channels);
  context.pool_uuid = pool;
  context.uuid = set.uuid;
  context.uri = set.uri;
  context.backup_time = parse_time(set.end_time);
  return true;
}

void save_dr_test_context(const std::string& definition_id, const File_DR_Test_Context& context) {
  json_spirit::Object json;
  json["incarnation"] = context.incarnation;
  json["seq"] = context.seq;
  json["channels"] = context.channels;
  json["backup_time"] = context.backup_time;
  json["minor_resource_id"] = context.minor_resource_id;
  json["host_uuid"] = context.host_uuid;
  json["pool_uuid"] = context.pool_uuid;
  json["uuid"] = context.uuid;
  json["uri"] = context.uri;
  Store* const store = Store::instance();
  std::string error = "the agent's database is not open";
  if (store == nullptr || !store->put_note(NOTE_KIND, definition_id, json_spirit::write(json), error))
    ACE_ERROR(
        (LM_ERROR, ACE_TEXT("Failed to keep the rehearsal of '%C': %C.\n"), definition_id.c_str(), error.c_str()));
}

} // namespace file_backup
