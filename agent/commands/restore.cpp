#include "agent/commands/commands.h"
#include "agent/commands/extra_objects.h"
#include "agent/commands/open_set.h"
#include "agent/commands/paths.h"
#include "agent/commands/restore_checks.h"
#include "agent/commands/restore_dry_run.h"
#include "agent/commands/run_job.h"
#include "agent/commands/search.h"
#include "agent/entry.h"
#include "agent/prompt.h"
#include "agent/set_choice.h"
#include "agent/set_outcome.h"
#include "agent/times.h"

#include "sdk/job/job_definition.h"

#include <CLI/CLI.hpp>

#include <memory>

namespace {

struct Restore_Arguments {
  std::string set;
  std::vector<std::string> paths;
  std::vector<std::string> globs;
  std::string to;
  std::vector<std::string> maps;
  std::string existing = "overwrite";
  unsigned concurrent = 16;
  unsigned service_timeout = 300;
  std::uint64_t limit = 0;
  bool create_bucket = false;
  bool dry_run = false;
  bool in_place = false;
  bool delete_extra = false;
  bool yes = false;
  std::string as_of;
  bool no_acl = false;
  bool drop_tags = false;
  std::string storage_class;
};

/// The set's objects that paths and globs select; nothing selects all. A glob costs memory for each of its matches.
Catalog_Selection selection_of(const Restore_Arguments& arguments, Catalog_Reader& catalog) {
  Catalog_Selection selection;
  for (const std::string& path : checked_paths(arguments.paths))
    (path.back() == '/' ? selection.folders : selection.objects).push_back(path.substr(1));
  for (const std::string& glob : arguments.globs) {
    bool found = false;
    Search(glob).run(catalog, [&](const Catalog_Object& object) {
      selection.objects.push_back(object.path);
      found = true;
    });
    if (!found)
      throw Command_Error("nothing in the set matches '" + glob + "'");
  }
  return selection;
}

json_spirit::Array entries_of(const Catalog_Selection& selection) {
  json_spirit::Array entries;
  for (const std::string& folder : selection.folders)
    entries.push_back(json_spirit::Object{{"dir", "/" + folder}});
  for (const std::string& object : selection.objects)
    entries.push_back(json_spirit::Object{{"file", "/" + object}});
  return entries;
}

/// A set in which two objects would be written to one key is not restored: the second would replace the first.
void refuse_collisions(Restore_Plan& plan) {
  plan.find_collisions();
  if (plan.collision_count() == 0)
    return;
  const Collision& first = plan.collisions().front();
  throw Command_Error("nothing is restored, because the mapping sends two objects to one key " +
                      std::to_string(plan.collision_count()) + " times: '/" + first.first + "' and '/" + first.second +
                      "' both to '/" + first.target + "' (--dry-run names them all)");
}

void create_missing_buckets(const Account& account, const std::vector<std::string>& buckets) {
  S3_Service_var service = make_account_service(account);
  for (const std::string& bucket : buckets) {
    if (service->bucket_exists(bucket.c_str()))
      continue;
    if (!service->create_bucket(bucket.c_str()))
      throw Command_Error("bucket '" + bucket + "' cannot be created: " + service->error());
  }
}

/// The account that `to` names, else the one that was backed up.
Account target_account(Context& context, const Set& set, const std::string& to) {
  if (!to.empty())
    return context.account(to);
  Account account;
  bool found = false;
  std::string error;
  if (!context.store().find_account(set.account_uuid, account, found, error))
    throw Command_Error(error);
  if (!found)
    throw Command_Error("the account that set " + set.uuid +
                        " was made of is not known here: name the one to restore to with --to");
  return account;
}

/// The set that is meant. With --as-of it is chosen by its age, and what begins as a path is one.
Set chosen_set(Context& context, Restore_Arguments& arguments) {
  if (arguments.as_of.empty()) {
    if (arguments.set.empty())
      throw Command_Error("name a set: its uuid, the beginning of it, or \"latest\"", EXIT_USAGE);
    return context.set(arguments.set);
  }
  time_t moment = 0;
  if (!parse_moment(arguments.as_of, moment))
    throw Command_Error("--as-of '" + arguments.as_of +
                            "' is no moment: \"2026-05-01\", \"2026-05-01 14:30\" or \"2026-05-01T14:30:15\", each "
                            "also with \"Z\" or \"+02:00\"; without a zone it is local time",
                        EXIT_USAGE);
  if (!arguments.set.empty() && arguments.set.front() == '/') {
    arguments.paths.insert(arguments.paths.begin(), arguments.set);
    arguments.set.clear();
  }
  if (arguments.set.empty())
    arguments.set = "latest";
  if (!names_latest(arguments.set))
    throw Command_Error("--as-of chooses the set by its age: name \"latest\", \"latest:SELECTION\" or none",
                        EXIT_USAGE);
  return latest_set(context, arguments.set, moment);
}

/// Finds what is to be removed and has it confirmed; null where nothing is.
std::unique_ptr<Extra_Objects> confirmed_extras(Context& context, const Restore_Arguments& arguments, const Set& set,
                                                const Account& account, Catalog_Reader& catalog,
                                                const Catalog_Selection& selection, const Restore_Plan& plan) {
  if (!arguments.delete_extra)
    return nullptr;
  auto extras = std::make_unique<Extra_Objects>(context, set, account, catalog, selection, plan);
  extras->find();
  if (extras->count() == 0)
    return extras;
  print_error(extras->preview());
  if (!arguments.yes && !(can_prompt() && confirm("obs-agent: remove them after the restore?")))
    throw Command_Error("nothing is restored or removed: --yes removes these " + std::to_string(extras->count()) +
                            " after the restore, without --delete-extra they stay",
                        EXIT_USAGE);
  return extras;
}

void restore(Context& context, Restore_Arguments& arguments) {
  Bucket_Maps maps;
  for (const std::string& text : arguments.maps)
    maps.add(text);
  if (arguments.delete_extra && !arguments.globs.empty())
    throw Command_Error("--delete-extra cannot be used with --glob, which leaves objects out", EXIT_USAGE);
  const Set set = chosen_set(context, arguments);
  checked_paths(arguments.paths);
  if (set.uuid.compare(0, arguments.set.size(), arguments.set) != 0)
    print_error(arguments.set + " is set " + set.uuid + ", which ended " + zoned_time(set.end_time));
  warn_of_incomplete_set(set);
  const Account account = target_account(context, set, arguments.to);
  const std::unique_ptr<Catalog_Reader> catalog = open_catalog(context, set);
  const Catalog_Selection selection = selection_of(arguments, *catalog);
  Restore_Plan plan(*catalog, selection, maps);
  if (!arguments.dry_run)
    refuse_idle_paths(*catalog, selection);
  refuse_idle_maps(plan, maps);
  if (arguments.dry_run)
    return restore_dry_run(context, account, *catalog, selection, plan);

  refuse_collisions(plan);
  refuse_in_place(context, set, account, plan, arguments.in_place);
  const std::unique_ptr<Extra_Objects> extras =
      confirmed_extras(context, arguments, set, account, *catalog, selection, plan);
  context.module(); // before anything is changed: from here on an interrupt cancels instead of ending the process
  json_spirit::Array bucket_maps;
  for (const Bucket_Maps::Map& map : maps.maps()) {
    json_spirit::Object item;
    item["source"] = map.source;
    item["target"] = map.target;
    item["prefix"] = map.prefix;
    bucket_maps.push_back(item);
  }
  if (arguments.create_bucket)
    create_missing_buckets(account, plan.target_buckets());

  json_spirit::Object source;
  source["id"] = set.account_uuid;
  source["catalog_id"] = set.uuid;
  source["backup_host_id"] = set.account_uuid;
  source["backup_minor_resource_id"] = set.minor_resource_id;
  source["pool_uuid"] = set.pool_uuid;
  source["seq"] = set.seq;
  if (!selection.everything())
    source["entries"] = entries_of(selection);

  json_spirit::Object options;
  options["channels"] = arguments.concurrent;
  // The module knows policies that look at dates; what is the same is left out by the engine.
  const bool different = arguments.existing == "different";
  options["existing"] = different ? "overwrite" : arguments.existing;
  options["bucket_maps"] = bucket_maps;
  options["no_acl"] = arguments.no_acl;
  options["drop_tags"] = arguments.drop_tags;
  if (!arguments.storage_class.empty())
    options["storage_class"] = arguments.storage_class;

  json_spirit::Object definition;
  definition["type"] = "restore";
  definition["name"] = "restore of " + set.uuid;
  definition["agent"] = "obs-agent";
  definition["host_id"] = account.uuid;
  definition["rate_limit"] = arguments.limit;
  definition["service_timeout"] = arguments.service_timeout;
  definition["source"] = source;
  definition["options"] = options;
  if (different)
    definition["only_different"] = true;
  run_job(context, definition, [&extras](Outcome& outcome) {
    if (extras)
      extras->remove(outcome);
  });
}

} // namespace

void add_restore_command(CLI::App& app, Context& context) {
  auto arguments = std::make_shared<Restore_Arguments>();
  CLI::App* command = app.add_subcommand("restore", "Restore a set, or parts of it, as objects");
  command->add_option("set", arguments->set, "Set: its uuid, the beginning of it, or \"latest\"")->type_name("SET");
  command->add_option("path", arguments->paths, "/bucket/, /bucket/folder/ or /bucket/key; none: everything")
      ->type_name("PATH");
  command->add_option("--to", arguments->to, "Account to restore to; the one that was backed up unless given")
      ->type_name("ACCOUNT");
  command
      ->add_option("--map", arguments->maps,
                   "Where a bucket's objects go; SOURCE '*' for the rest; none: back where they came from, with "
                   "--in-place; may be repeated")
      ->type_name("SOURCE=TARGET[/PREFIX]")
      ->allow_extra_args(false);
  command
      ->add_option(
          "--existing", arguments->existing,
          "An object that is there already is overwritten, or left (skip), left unless the set's is newer (newest), or "
          "left where size and ETag are the same (different)")
      ->check(CLI::IsMember({"overwrite", "skip", "newest", "different"}))
      ->capture_default_str();
  command
      ->add_option("--as-of", arguments->as_of,
                   "The newest whole set that ended at or before this moment, instead of a SET; local time unless it "
                   "has a zone")
      ->type_name("TIME");
  command->add_flag("--in-place", arguments->in_place,
                    "Write over the places that the objects came from; without it a restore there is refused");
  command->add_flag("--delete-extra", arguments->delete_extra,
                    "Afterwards remove what the restored buckets and folders have and the set does not");
  command->add_flag("--yes", arguments->yes, "Remove it without being asked");
  command->add_option("--concurrent", arguments->concurrent, "Objects written at the same time")
      ->check(CLI::Range(1, 1024))
      ->capture_default_str();
  add_service_timeout_option(*command, arguments->service_timeout);
  add_limit_option(*command, arguments->limit);
  command->add_flag("--no-acl", arguments->no_acl, "Give no access lists");
  command->add_flag("--drop-tags", arguments->drop_tags, "Give no tags");
  command
      ->add_option("--storage-class", arguments->storage_class,
                   "Storage class for all objects; each one's own unless told")
      ->type_name("CLASS");
  command->add_flag("--create-bucket", arguments->create_bucket,
                    "Create each target bucket that does not exist; without it they must be there");
  command
      ->add_option("--glob", arguments->globs,
                   "Also the objects whose path matches (*, ?, **, as for find); may be repeated")
      ->type_name("GLOB")
      ->allow_extra_args(false);
  command->add_flag(
      "--dry-run", arguments->dry_run,
      "Write nothing: list what would be written where, and which objects would collide; --existing is not looked at");
  command->callback([&context, arguments] { restore(context, *arguments); });
}
