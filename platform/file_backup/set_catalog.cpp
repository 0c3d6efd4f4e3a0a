#include "platform/file_backup/set_catalog.h"

#include "platform/pool/pool_roll.h"

#include <ace/Log_Msg.h>

#include <algorithm>
#include <map>
#include <set>

namespace {

/// Whether a row says what the record says. Sizes and names of a set never change; its place may, and what was made
/// again from media.
bool same(const Set& row, const Set& record) {
  return row.state == record.state && row.pool_uuid == record.pool_uuid && row.uri == record.uri &&
         row.seq == record.seq && row.start_time == record.start_time && row.channels == record.channels &&
         row.incarnation == record.incarnation && row.bases == record.bases && row.missing == record.missing;
}

/// Where the sets of a resource lie: below its account's folder when the selection is known.
bool prefix_of(Store& store, const std::string& minor_resource_id, std::string& prefix, std::string& error) {
  prefix.clear();
  if (minor_resource_id.empty())
    return true;
  Selection selection;
  bool found = false;
  if (!store.find_selection(minor_resource_id, selection, found, error))
    return false;
  if (found)
    prefix = selection.account_uuid + "/" + minor_resource_id;
  return true;
}

} // namespace

Set set_from_record(const Set_Record& record, const std::string& pool_uuid) {
  Set set;
  set.uuid = record.uuid;
  set.pool_uuid = pool_uuid;
  set.account_uuid = record.host_uuid;
  set.minor_resource_id = record.minor_resource_id;
  set.minor_resource_name = record.minor_resource_name;
  set.name = record.name;
  set.seq = record.seq;
  set.channels = record.channels;
  set.incarnation = record.incarnation;
  set.bases = record.bases;
  set.uri = record.uri;
  set.type = record.type;
  set.start_time = record.start_time;
  set.end_time = record.end_time;
  set.source_size = record.source_size;
  set.backup_set_size = record.backup_set_size;
  set.backup_set_storage_size = record.backup_set_storage_size;
  // Records of older versions do not say it.
  set.objects = figure_of(record.figures, "objects")
                    .value_or(figure_of(record.figures, "saved").value_or(0) +
                              figure_of(record.figures, "unchanged").value_or(0));
  set.missing = record.missing();
  return set;
}

bool numbers_in_use(Store& store, const std::string& pool_uuid, const std::string& minor_resource_id,
                    const std::string& uuid, Set_Numbers& numbers, std::string& error) {
  std::vector<Set> sets;
  if (!store.sets(pool_uuid, std::string(), minor_resource_id, true, sets, error))
    return false;
  for (const Set& set : sets)
    if (set.uuid != uuid)
      numbers.take(set.seq);
  return true;
}

bool open_known_pool(Store& store, const std::string& pool_uuid, Pool& pool, std::string& error) {
  Pool_Entry entry;
  bool found = false;
  if (!store.find_pool(pool_uuid, entry, found, error))
    return false;
  if (!found) {
    error = "there is no pool '" + pool_uuid + "'";
    return false;
  }
  return Pool::open(entry.url, entry.uuid, pool, error);
}

bool reconcile_sets(Store& store, const std::string& pool_uuid, const std::string& minor_resource_id,
                    std::string& error, std::vector<std::string>* problems) {
  Pool pool;
  std::string prefix;
  std::vector<Set> rows;
  if (!open_known_pool(store, pool_uuid, pool, error) || !prefix_of(store, minor_resource_id, prefix, error) ||
      !store.sets(pool_uuid, std::string(), minor_resource_id, true, rows, error))
    return false;
  std::map<std::string, const Set*> known;
  for (const Set& row : rows)
    known[row.uuid] = &row;

  std::vector<std::string> bad;
  std::set<std::string> replaced; // by merged sets
  for (const Set_Record& record : pool.sets(prefix, bad)) {
    replaced.insert(record.replaces.begin(), record.replaces.end());
    if (!minor_resource_id.empty() && record.minor_resource_id != minor_resource_id)
      continue;
    const Set set = set_from_record(record, pool_uuid);
    const auto row = known.find(set.uuid);
    if (row == known.end()) {
      // A merged set takes the place of the set whose moment it is.
      const auto replaced = std::find_if(known.begin(), known.end(), [&](const auto& one) {
        return one.second->seq == set.seq && one.second->start_time == set.start_time &&
               std::find(record.replaces.begin(), record.replaces.end(), one.first) != record.replaces.end();
      });
      if (replaced != known.end()) {
        if (!store.replace_set(replaced->first, set, error))
          return false;
        known.erase(replaced);
        continue;
      }
    }
    if ((row == known.end() || !same(*row->second, set)) && !store.put_set(set, error))
      return false;
    if (row != known.end())
      known.erase(row);
  }
  for (const std::string& message : bad)
    ACE_ERROR((LM_WARNING, ACE_TEXT("Something is wrong with a pool's sets: %C.\n"), message.c_str()));
  if (problems != nullptr) {
    *problems = bad;
    for (std::string& away : sets_taken_away(pool))
      problems->push_back(std::move(away));
  }

  for (const auto& [uuid, row] : known) {
    if (replaced.count(uuid) != 0) {
      if (!store.remove_set(uuid, error))
        return false;
      continue;
    }
    if (row->state == Set::STATE_GONE)
      continue;
    // Only what is surely not there is gone: a folder may be unreadable for a while.
    Set_Record record;
    std::string why;
    bool missing = false;
    const bool there = read_set_record(pool.set_folder(row->uri), record, why, &missing);
    if (there ? record.uuid == uuid : !missing)
      continue;
    if (there)
      ACE_ERROR((LM_WARNING, ACE_TEXT("Set %C is no longer in its pool: in %C lies another set, %C.\n"), uuid.c_str(),
                 pool.set_folder(row->uri).c_str(), record.uuid.c_str()));
    else
      ACE_ERROR((LM_WARNING, ACE_TEXT("Set %C is no longer in its pool.\n"), uuid.c_str()));
    if (!store.set_state(uuid, Set::STATE_GONE, error))
      return false;
  }
  return true;
}
