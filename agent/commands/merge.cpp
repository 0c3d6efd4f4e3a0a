#include "agent/cancel_signals.h"
#include "agent/commands/commands.h"

#include "platform/file_backup/merge_lock.h"
#include "platform/file_backup/set_catalog.h"
#include "platform/mtf/merge.h"
#include "platform/pool/pool_files.h"
#include "sdk/job/job_definition.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <memory>

namespace {

/// The records of the sets of these names, oldest first, and the pool that they lie in.
std::vector<Set_Record> find_sets(Context& context, const std::vector<std::string>& names, Pool_Entry& entry,
                                  Pool& pool) {
  std::vector<Set> rows;
  for (const std::string& name : names) {
    Set set = context.set(name);
    if (std::none_of(rows.begin(), rows.end(), [&](const Set& row) { return row.uuid == set.uuid; }))
      rows.push_back(std::move(set));
  }
  if (rows.size() < 2)
    throw Command_Error("nothing is merged: name two sets at least", EXIT_USAGE);
  for (const Set& row : rows)
    if (row.pool_uuid != rows.front().pool_uuid || row.minor_resource_id != rows.front().minor_resource_id)
      throw Command_Error("sets " + rows.front().uuid + " and " + row.uuid +
                          " cannot be merged: they are not of one selection in one pool");
  entry = context.pool_entry(rows.front().pool_uuid);
  pool = context.open_pool(entry);
  std::vector<std::string> bad;
  std::vector<Set_Record> records;
  const std::string place = rows.front().uri.substr(0, rows.front().uri.rfind('/'));
  for (Set_Record& record : pool.sets(place, bad))
    if (std::any_of(rows.begin(), rows.end(), [&](const Set& row) { return row.uuid == record.uuid; }))
      records.push_back(std::move(record));
  if (records.size() != rows.size())
    throw Command_Error(bad.empty() ? "not all of these sets are in pool '" + entry.name + "' any more" : bad.front());
  return records;
}

void cancelled(Context& context, const Merge_Report& report) {
  json_spirit::Object json;
  json["outcome"] = "cancelled";
  json["objects"] = report.objects;
  json["bytes"] = report.bytes;
  context.print(json, "cancelled: the sets are as they were (" + std::to_string(report.objects) +
                          " objects had been copied)");
  context.exit_code = EXIT_CANCELLED;
}

void merge(Context& context, const std::vector<std::string>& names) {
  Cancel_Request cancel;
  context.lock_state();
  Pool_Entry entry;
  Pool pool;
  std::vector<Set_Record> sets = find_sets(context, names, entry, pool);
  // Backups of the selection wait while this is held, whoever runs them.
  const std::string merging = merge_lock_folder(pool.folder(), sets.front().minor_resource_id);
  for (const std::string& folder : {merging.substr(0, merging.rfind('/')), merging})
    if (!make_pool_folder(folder) && errno != EEXIST)
      throw Command_Error("cannot make folder " + folder + ": " + pool_file_error(errno));
  Set_Lock merge_lock(Lock_Rank::MERGE);
  std::string error;
  if (!merge_lock.acquire(merging, false, error))
    throw Command_Error("the sets cannot be merged: " + error);
  context.lock_pool(pool);
  if (cancel.asked())
    return cancelled(context, Merge_Report());

  const std::string place = sets.front().uri.substr(0, sets.front().uri.rfind('/'));
  std::vector<std::string> busy;
  if (!finish_merges(pool, place, busy, error))
    throw Command_Error("an earlier merge cannot be ended: " + error);
  // A merge that was ended just now may have dropped some of them.
  sets = find_sets(context, names, entry, pool);
  Merge_Options options;
  options.uuid = make_uuid();
  options.canceling = [&cancel] { return cancel.asked(); };
  options.begin_commit = [&cancel] { return cancel.begin_commit(); };
  Merge_Report report;
  if (!merge_sets(pool, sets, options, report, error)) {
    if (report.canceled)
      return cancelled(context, report);
    for (const std::string& damage : report.damages)
      print_error("damaged: " + damage);
    throw Command_Error("the sets cannot be merged: " + error);
  }
  Store& store = context.store();
  if (!store.replace_set(report.moment_of, set_from_record(report.record, entry.uuid), error))
    throw Command_Error("the sets are merged into " + report.record.uuid + ", but the database is not: " + error);
  busy.clear();
  const bool ended = finish_merges(pool, place, busy, error);
  std::string ignored;
  for (const Set_Record& set : sets)
    if (set.uuid != report.moment_of && !store.remove_set(set.uuid, ignored))
      print_error("set " + set.uuid + ": " + ignored);

  json_spirit::Object json;
  json["set"] = report.record.uuid;
  json["type"] = report.record.type;
  json["objects"] = report.objects;
  json["bytes"] = report.bytes;
  json["storage_size"] = report.record.backup_set_storage_size;
  json_spirit::Array replaced, waiting;
  for (const Set_Record& set : sets)
    replaced.push_back(set.uuid);
  Lines text(std::to_string(sets.size()) + " sets are merged into " + report.record.uuid + ": " +
             std::to_string(report.objects) + " objects, " + human_bytes(report.bytes) + " copied");
  for (const std::string& uuid : busy) {
    waiting.push_back(uuid);
    text.add("set " + uuid + " is being read; its media go with the next backup, merge or forget");
  }
  json["replaced"] = replaced;
  json["waiting"] = waiting;
  context.print(json, text);
  if (!ended)
    throw Command_Error("the merged set is there, but the old ones stay for now: " + error, EXIT_COMPLETED_WITH_ERRORS);
}

} // namespace

void add_merge_command(CLI::App& app, Context& context) {
  auto names = std::make_shared<std::vector<std::string>>();
  CLI::App* command = app.add_subcommand(
      "merge", "Put the live data of sets into one new set, which takes the newest one's place, and drop them");
  command->add_option("set", *names, "Sets of one selection, two at least")->required()->type_name("SET");
  command->callback([&context, names] { merge(context, *names); });
}
