#include "agent/commands/commands.h"

#include "platform/file_backup/set_catalog.h"
#include "platform/mtf/catalog_rebuild.h"
#include "platform/mtf/merge.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <filesystem>
#include <memory>

namespace fs = std::filesystem;

namespace {

/// A set's folder: where its pool is, and what it is called there.
struct Place {
  Pool_Entry entry;
  Pool pool;
  std::string uri;
};

/// The set of that name, or the folder of that path, absolute or inside one of the pools: a set whose record is lost
/// has no name.
Place find_place(Context& context, const std::string& name) {
  Place place;
  std::string error;
  std::vector<Pool_Entry> pools;
  if (!context.store().pools(pools, error))
    throw Command_Error(error);
  if (name.find('/') == std::string::npos) {
    try {
      const Set set = context.set(name);
      place.entry = context.pool_entry(set.pool_uuid);
      place.uri = set.uri;
      place.pool = context.open_pool(place.entry);
      return place;
    } catch (const Command_Error&) {
      // Known no more: its folder may still bear its name.
      for (const Pool_Entry& entry : pools) {
        if (!Pool::open(entry.url, entry.uuid, place.pool, error))
          continue;
        for (const std::string& uri : place.pool.unfinished(std::string()))
          if (uri.compare(uri.rfind('/') + 1, std::string::npos, name) == 0) {
            place.entry = entry;
            place.uri = uri;
            return place;
          }
      }
      throw;
    }
  }
  for (const Pool_Entry& entry : pools) {
    if (!Pool::open(entry.url, entry.uuid, place.pool, error))
      continue;
    std::error_code code;
    const fs::path root = fs::canonical(place.pool.folder(), code);
    for (const fs::path& candidate : {fs::path(name), root / name}) {
      const fs::path folder = fs::canonical(candidate, code);
      if (code || !fs::is_directory(folder, code))
        continue;
      const std::string inside = folder.lexically_relative(root).string();
      if (inside.compare(0, 2, "..") == 0 || std::count(inside.begin(), inside.end(), '/') != 2)
        continue;
      place.entry = entry;
      place.uri = inside;
      return place;
    }
  }
  throw Command_Error("'" + name + "' is no folder of a set in a pool that is known here");
}

void rebuild(Context& context, const std::string& name) {
  context.lock_state();
  const Place place = find_place(context, name);
  context.lock_pool(place.pool);
  Rebuild_Report report;
  std::string error;
  if (!rebuild_catalog(place.pool, place.uri, report, error))
    throw Command_Error("the catalog of '" + name + "' cannot be rebuilt: " + error);
  // A copy from before a merge points into sets that this has replaced.
  std::vector<std::string> busy;
  if (!finish_merges(place.pool, place.uri.substr(0, place.uri.rfind('/')), busy, error))
    report.problems.push_back("merges beside it cannot be ended: " + error);
  if (!context.store().put_set(set_from_record(report.record, place.entry.uuid), error))
    throw Command_Error("the catalog is rebuilt, but the set cannot be taken up: " + error);

  json_spirit::Object json;
  json["set"] = report.record.uuid;
  json["exact"] = report.exact;
  json["record_made"] = report.record_made;
  json["objects"] = report.objects;
  json["of_others"] = report.of_others;
  json_spirit::Array problems;
  Lines text;
  for (const std::string& problem : report.problems) {
    problems.push_back(problem);
    text.add(problem);
  }
  json["problems"] = problems;
  text.add("set " + report.record.uuid + ": " + std::to_string(report.objects) + " objects, " +
           (report.exact ? "the catalog is what it was" : "as far as its media know") +
           (report.record_made ? "; its record was made anew" : ""));
  // An incremental's media do not hold what did not change.
  if (!report.exact && report.record.type != "full")
    text.add("objects whose data lie in other sets are missing in it: take a set before or after it for those");
  if (!report.exact && !report.record.replaces.empty() && report.of_others == 0)
    text.add("the set was merged from others: where an earlier version did that, versions of objects that are not of "
             "its moment may be among its own");
  context.print(json, text);
  if (!report.problems.empty())
    context.exit_code = EXIT_COMPLETED_WITH_ERRORS;
}

} // namespace

void add_catalog_commands(CLI::App& app, Context& context) {
  CLI::App* catalog = app.add_subcommand("catalog", "Catalogs of sets");
  catalog->require_subcommand(1);
  auto name = std::make_shared<std::string>();
  CLI::App* command = catalog->add_subcommand("rebuild", "Make a set's catalog and record from its media alone");
  command->add_option("set", *name, "Set, or the folder that its media lie in")->required()->type_name("SET|FOLDER");
  command->callback([&context, name] { rebuild(context, *name); });
}
