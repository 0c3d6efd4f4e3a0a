#include "agent/commands/browse_page.h"
#include "agent/commands/commands.h"
#include "agent/commands/dry_run.h"
#include "agent/commands/paths.h"
#include "agent/commands/run_job.h"

#include "platform/mtf/deletion_guard.h"
#include "sdk/base/path.h"
#include "sdk/job/job_definition.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <memory>

namespace {

struct Backup_Arguments {
  std::string account;
  std::vector<std::string> paths;
  std::string pool;
  std::string name;
  bool full = false;
  bool dry_run = false;
  unsigned channels = 4;
  unsigned readers = 0;
  unsigned service_timeout = 300;
  unsigned scan_threads = 8;
  std::uint64_t limit = 0;
  std::string compression = "none";
  int compression_level = 1;
  std::string archived = "skip";
  bool allow_empty = false;
  std::string max_deleted;
  std::vector<std::string> exclusions;
  std::vector<std::string> inclusions;
  bool tags = false;
  bool acl = false;
  bool refresh_tags = false;
};

/// The name of a selection that the operator did not name: the same paths and rules give the same one, so that the next
/// run of the same command goes on with the same chain of sets.
std::string derived_name(const Backup_Arguments& arguments) {
  std::string name;
  for (const std::string& path : arguments.paths)
    name += (name.empty() ? "" : " ") + path;
  if (name.empty())
    name = "all buckets";
  for (const std::string& rule : arguments.exclusions)
    name += " -" + rule;
  for (const std::string& rule : arguments.inclusions)
    name += " +" + rule;
  return name;
}

/// The selection of that name, made or brought up to date.
Selection take_selection(Context& context, const Account& account, const Backup_Arguments& arguments) {
  const std::string name = arguments.name.empty() ? derived_name(arguments) : arguments.name;
  std::string error;
  Selection selection;
  bool found = false;
  if (!context.store().find_selection(account.uuid, name, selection, found, error))
    throw Command_Error(error);
  const bool given = !arguments.paths.empty() || !arguments.exclusions.empty() || !arguments.inclusions.empty();
  if (found && !given)
    return selection;
  if (!found)
    selection.uuid = make_uuid();
  selection.account_uuid = account.uuid;
  selection.name = name;
  selection.paths = arguments.paths;
  selection.exclusions = arguments.exclusions;
  selection.inclusions = arguments.inclusions;
  if (arguments.dry_run)
    return selection;
  const bool kept =
      found ? context.store().update_selection(selection, error) : context.store().add_selection(selection, error);
  if (!kept)
    throw Command_Error(error);
  return selection;
}

/// A path without a "/" at its end is an object. Where none is there and a folder is, the problem says so.
void name_folders(Context& context, const Account& account, const Selection& selection, Outcome& outcome) {
  const auto errors = outcome.figures.find("errors");
  if (errors == outcome.figures.end() || errors->second.type() != json_spirit::array_type)
    return;
  for (json_spirit::Value& value : errors->second.get_array()) {
    if (value.type() != json_spirit::obj_type)
      continue;
    json_spirit::Object& problem = value.get_obj();
    const std::string path = json_spirit::optional_str(problem, "name");
    const std::string message = json_spirit::optional_str(problem, "message");
    if (message.compare(0, 8, "NotFound") == 0 && !path.empty() && path.back() != '/' &&
        std::count(selection.paths.begin(), selection.paths.end(), path) != 0 &&
        has_objects_below(context, account.uuid, path))
      problem["message"] = folder_instead(path) + " (" + message + ")";
  }
}

void backup(Context& context, Backup_Arguments arguments) {
  Deletion_Limits limits;
  if (!arguments.max_deleted.empty() && !Deletion_Limits::parse(arguments.max_deleted, limits))
    throw Command_Error("--max-deleted '" + arguments.max_deleted +
                            "' is no limit: give a share as 30%, up to 100% (no limit), or a number of objects",
                        EXIT_USAGE);
  arguments.paths = checked_paths(arguments.paths);
  const Account account = context.account(arguments.account);
  const Pool_Entry pool = context.pool_entry(arguments.pool);
  context.open_pool(pool);
  const Selection selection = take_selection(context, account, arguments);
  if (arguments.dry_run) {
    dry_run(context, account, selection);
    return;
  }

  json_spirit::Object source;
  source["id"] = account.uuid;
  source["name"] = account.name;
  source["minor_resource_id"] = selection.uuid;
  source["minor_resource_name"] = selection.name;

  json_spirit::Object options;
  options["compression"] = arguments.compression;
  options["compression_level"] = arguments.compression_level;
  options["channels"] = arguments.channels;
  options["scan_file_threads"] = arguments.scan_threads;
  options["tags"] = arguments.tags;
  options["acl"] = arguments.acl;
  if (arguments.refresh_tags)
    options["refresh_tags"] = options["tags"] = true;

  json_spirit::Object target;
  target["id"] = pool.uuid;

  json_spirit::Object definition;
  definition["type"] = "backup";
  definition["subtype"] = arguments.full ? "full" : "incremental";
  definition["id"] = selection.uuid;
  definition["uid"] = selection.uuid;
  definition["name"] = account.name + ": " + selection.name;
  definition["agent"] = "obs-agent";
  definition["host_id"] = account.uuid;
  definition["readers"] = arguments.readers;
  definition["service_timeout"] = arguments.service_timeout;
  definition["rate_limit"] = arguments.limit;
  definition["archived"] = arguments.archived;
  definition["allow_empty"] = arguments.allow_empty;
  if (!arguments.max_deleted.empty())
    definition["max_deleted"] = arguments.max_deleted;
  definition["target"] = target;
  definition["source"] = source;
  definition["options"] = options;
  run_job(context, definition, [&](Outcome& outcome) { name_folders(context, account, selection, outcome); });
}

} // namespace

void add_backup_command(CLI::App& app, Context& context) {
  auto arguments = std::make_shared<Backup_Arguments>();
  CLI::App* command = app.add_subcommand("backup", "Back buckets, prefixes or objects of an account up into a pool");
  command->add_option("account", arguments->account, "Account")->required()->type_name("ACCOUNT");
  command->add_option("path", arguments->paths, "/bucket/, /bucket/prefix/ or /bucket/key; none: every bucket")
      ->type_name("PATH");
  command->add_option("--pool", arguments->pool, "Pool to write to")->required()->type_name("POOL");
  command->add_option("--name", arguments->name, "Name under which the selection of paths and rules is kept")
      ->type_name("SELECTION");
  command->add_flag("--full", arguments->full, "Read every object, whatever the last set holds");
  command->add_option("--channels", arguments->channels, "Media written at the same time")
      ->check(CLI::Range(1, 256))
      ->capture_default_str();
  add_service_timeout_option(*command, arguments->service_timeout);
  command->add_option("--readers", arguments->readers, "Objects read at the same time; 0: 32")
      ->check(CLI::Range(0, 4096))
      ->capture_default_str();
  command->add_option("--scan-threads", arguments->scan_threads, "Prefixes listed at the same time")
      ->check(CLI::Range(1, 256))
      ->capture_default_str();
  add_limit_option(*command, arguments->limit);
  command
      ->add_option("--compression", arguments->compression,
                   "none, zstd, lzop, or auto: zstd for objects that shrink by a tenth at least")
      ->check(CLI::IsMember({"none", "auto", "lzop", "zstd"}))
      ->capture_default_str();
  command->add_option("--compression-level", arguments->compression_level, "1 (fast) to 19 (small), for zstd")
      ->check(CLI::Range(1, 19))
      ->capture_default_str();
  command
      ->add_option("--archived", arguments->archived,
                   "Objects that must be thawed before they can be read: skip, fail, or request (ask the service to "
                   "thaw them, skip them this time)")
      ->check(CLI::IsMember({"skip", "fail", "request"}))
      ->capture_default_str();
  command
      ->add_option("--exclude", arguments->exclusions,
                   "Leave out paths that match, as *.tmp, cache/ or /bucket/logs/**; may be repeated")
      ->type_name("RULE")
      ->allow_extra_args(false);
  command
      ->add_option("--include", arguments->inclusions,
                   "Take in what matches, though excluded; alone: nothing else; may be repeated")
      ->type_name("RULE")
      ->allow_extra_args(false);
  command->add_flag("--allow-empty", arguments->allow_empty,
                    "Paths may hold nothing, or rules exclude everything, also where the last whole set has "
                    "objects");
  command
      ->add_option("--max-deleted", arguments->max_deleted,
                   "Make no set when more objects of the last one are gone, excluded by now or below no path any more: "
                   "a share (100%: no limit) or a number; 50% "
                   "of more than 100 objects unless given")
      ->type_name("N%|N");
  command->add_flag("--tags", arguments->tags,
                    "Save each object's tags: a request for each that may have some and whose tags the last set does "
                    "not know");
  command->add_flag("--acl", arguments->acl,
                    "Save each object's access list: a request for each whose list the last set does not know");
  command->add_flag("--refresh-tags", arguments->refresh_tags,
                    "As --tags, and ask about all objects again, those that the last set knows of too; with --acl "
                    "their access lists likewise");
  command->add_flag("--dry-run", arguments->dry_run,
                    "List every object that the paths and rules take in, whatever the last set holds; read and write "
                    "nothing");
  command->footer(
      "A RULE is a glob over \"/bucket/key\": ? and * match within a name, ** across folders, NAME/ a folder and all "
      "below it; with a leading / it begins at the bucket, else at any depth. README.md, \"Rules\", has all of it.");
  command->callback([&context, arguments] { backup(context, *arguments); });
}
