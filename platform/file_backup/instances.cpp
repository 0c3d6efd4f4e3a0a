#include "platform/file_backup/glob_filter.h"
#include "platform/file_backup/merge_lock.h"
#include "platform/file_backup/retry.h"
#include "platform/file_backup/set_catalog.h"
#include "sdk/file_backup/file_backup.h"

#include <sys/stat.h>

namespace {

Store* open_store(std::string& error) {
  Store* const store = Store::instance();
  if (store == nullptr)
    error = "the agent's database is not open";
  return store;
}

} // namespace

std::string merge_lock_folder(const std::string& pool_folder, const std::string& minor_resource_id) {
  if (minor_resource_id.empty() || minor_resource_id[0] == '.' || minor_resource_id.find('/') != std::string::npos)
    return std::string();
  return pool_folder + "/.merging/" + minor_resource_id;
}

namespace file_backup {

File_Metadata::~File_Metadata() = default;
Backup_Set::~Backup_Set() = default;
File_Backup_Set::~File_Backup_Set() = default;

bool is_merging(const std::string& location, const std::string& pool_uuid, const std::string& minor_resource_id) {
  Pool pool;
  std::string error;
  if (!Pool::open(location, pool_uuid, pool, error)) {
    ACE_ERROR(
        (LM_WARNING, ACE_TEXT("Cannot tell whether pool %C is merging: %C.\n"), pool_uuid.c_str(), error.c_str()));
    return false;
  }
  const std::string folder = merge_lock_folder(pool.folder(), minor_resource_id);
  struct stat status;
  if (folder.empty() || ::stat(folder.c_str(), &status) != 0)
    return false;
  Set_Lock probe;
  bool busy = false;
  return !probe.acquire(folder, false, error, &busy) && busy;
}

bool get_last_instance_info(const std::string& minor_resource_id, const std::string& pool_uuid,
                            json_spirit::Object& record, int max_seconds_retry) {
  Set set;
  bool found = false;
  const bool read = retry_within(max_seconds_retry, "find the last set", [&](std::string& error) {
    Store* const store = open_store(error);
    return store != nullptr && reconcile_sets(*store, pool_uuid, minor_resource_id, error) &&
           store->newest_set(pool_uuid, minor_resource_id, set, found, error);
  });
  if (!read)
    return false;
  record.clear();
  if (!found)
    return true;
  record["seq"] = set.seq;
  record["state"] = json_spirit::Array{json_spirit::Value(Set::STATE_ONLINE)};
  record["incarnation"] = set.incarnation;
  record["uuid"] = set.uuid;
  record["channels"] = set.channels;
  // Empty: the next set gets a folder of its own beside this one's, and is not written into this one's.
  record["uri"] = "";
  return true;
}

bool get_entries_from_backupd(const std::string& minor_resource_id, std::vector<std::string>& entries,
                              std::vector<std::string>& exclusions, std::vector<std::string>& inclusions,
                              std::string& minor_resource_name) {
  std::string error;
  Selection selection;
  bool found = false;
  Store* const store = open_store(error);
  if (store != nullptr && store->find_selection(minor_resource_id, selection, found, error) && !found)
    error = "it is not known";
  if (!found) {
    ACE_ERROR(
        (LM_ERROR, ACE_TEXT("Failed to look up selection '%C': %C.\n"), minor_resource_id.c_str(), error.c_str()));
    return false;
  }
  entries = std::move(selection.paths);
  exclusions = std::move(selection.exclusions);
  inclusions = std::move(selection.inclusions);
  minor_resource_name = selection.name;
  return true;
}

bool make_filter(const std::vector<std::string>& exclusions, const std::vector<std::string>& inclusions,
                 std::unique_ptr<MTF::IFilter>& filter) {
  filter.reset();
  if (exclusions.empty() && inclusions.empty())
    return true;
  std::string error;
  filter = Glob_Filter::make(exclusions, inclusions, error);
  if (filter)
    return true;
  ACE_ERROR((LM_ERROR, ACE_TEXT("%C.\n"), error.c_str()));
  return false;
}

bool get_incarnation(const std::string& pool_uuid, const std::string& minor_resource_id, ACE_UINT32 seq,
                     std::string& incarnation, unsigned& channels, std::string& uri_prefix, int max_seconds_retry) {
  Set set;
  bool found = false;
  const bool read = retry_within(max_seconds_retry, "find the set", [&](std::string& error) {
    Store* const store = open_store(error);
    return store != nullptr && reconcile_sets(*store, pool_uuid, minor_resource_id, error) &&
           store->find_set_by_seq(pool_uuid, minor_resource_id, seq, set, found, error);
  });
  if (!read)
    return false;
  if (!found) {
    ACE_ERROR((LM_ERROR, ACE_TEXT("There is no set %u of '%C' in pool '%C'.\n"), static_cast<unsigned>(seq),
               minor_resource_id.c_str(), pool_uuid.c_str()));
    return false;
  }
  incarnation = set.incarnation;
  channels = set.channels;
  uri_prefix = set.uri;
  return true;
}

} // namespace file_backup
