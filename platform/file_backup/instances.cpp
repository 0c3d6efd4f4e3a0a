#include "platform/file_backup/glob_filter.h"
#include "platform/file_backup/merge_lock.h"
#include "platform/file_backup/retry.h"
#include "platform/file_backup/set_catalog.h"
#include "platform/job/current_job.h"
#include "platform/pool/pool_files.h"
#include "sdk/file_backup/file_backup.h"
#include "sdk/job/job.h"

#include <sys/stat.h>

#include <algorithm>

namespace {

Store* open_store(std::string& error) {
  Store* const store = Store::instance();
  if (store == nullptr)
    error = "the agent's database is not open";
  return store;
}

/// The one of `sets`, which have one number, that is `wanted`, or a merged one that took its place; where nothing is
/// wanted, the only one. `chosen` is null when there is none. False with the reason when the pool cannot be read.
bool choose_set(Store& store, const std::string& pool_uuid, const std::string& wanted, const std::vector<Set>& sets,
                const Set*& chosen, std::string& error) {
  chosen = nullptr;
  if (wanted.empty()) {
    if (sets.size() == 1)
      chosen = &sets.front();
    return true;
  }
  for (const Set& set : sets)
    if (set.uuid == wanted)
      chosen = &set;
  if (chosen != nullptr || sets.empty())
    return true;
  Pool pool;
  if (!open_known_pool(store, pool_uuid, pool, error))
    return false;
  for (const Set& set : sets) {
    Set_Record record;
    std::string ignored;
    if (read_set_record(pool.set_folder(set.uri), record, ignored) && record.uuid == set.uuid &&
        std::find(record.replaces.begin(), record.replaces.end(), wanted) != record.replaces.end())
      chosen = &set;
  }
  return true;
}

std::string why_no_set(const std::vector<Set>& sets, const std::string& wanted) {
  if (sets.empty())
    return "there is none of that number" + (wanted.empty() ? std::string() : ", and it is to be " + wanted);
  std::string names;
  for (const Set& set : sets)
    names += (names.empty() ? "" : " and ") + set.uuid;
  if (!wanted.empty())
    return "it is to be " + wanted + ", but that number is " + names + "'s";
  return "the number is that of " + names + ": name the set by \"catalog_id\"";
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
  // A cancelled job shall not wait: it does nothing more with the pool.
  if (is_current_job_canceling())
    return false;
  Pool pool;
  std::string error;
  if (!Pool::open(location, pool_uuid, pool, error)) {
    ACE_ERROR(
        (LM_WARNING, ACE_TEXT("Cannot tell whether pool %C is merging: %C.\n"), pool_uuid.c_str(), error.c_str()));
    return false;
  }
  const std::string folder = merge_lock_folder(pool.folder(), minor_resource_id);
  struct stat status;
  if (folder.empty() || !find_pool_file(folder, status))
    return false;
  Set_Lock probe(Lock_Rank::MERGE);
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
  Job* const job = Job::current();
  const std::string wanted = job != nullptr ? job->definition().set_uuid() : std::string();
  std::vector<Set> sets;
  const Set* set = nullptr;
  const bool read = retry_within(max_seconds_retry, "find the set", [&](std::string& error) {
    Store* const store = open_store(error);
    return store != nullptr && reconcile_sets(*store, pool_uuid, minor_resource_id, error) &&
           store->sets_by_seq(pool_uuid, minor_resource_id, seq, sets, error) &&
           choose_set(*store, pool_uuid, wanted, sets, set, error);
  });
  if (!read)
    return false;
  if (set == nullptr) {
    const std::string problem = "Set " + std::to_string(seq) + " of '" + minor_resource_id + "' in pool '" + pool_uuid +
                                "' is not restored: " + why_no_set(sets, wanted) + ".";
    ACE_ERROR((LM_ERROR, ACE_TEXT("%C\n"), problem.c_str()));
    if (job != nullptr)
      job->set_result("failure", problem);
    return false;
  }
  incarnation = set->incarnation;
  channels = set->channels;
  uri_prefix = set->uri;
  return true;
}

} // namespace file_backup
