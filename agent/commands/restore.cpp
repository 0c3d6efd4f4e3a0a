#include "agent/commands/commands.h"
#include "agent/commands/paths.h"
#include "agent/commands/run_job.h"
#include "agent/entry.h"

#include "sdk/job/job_definition.h"

#include <CLI/CLI.hpp>

#include <memory>
#include <set>

namespace {

struct Restore_Arguments {
  std::string set;
  std::vector<std::string> paths;
  std::string to;
  std::vector<std::string> maps;
  std::string existing = "overwrite";
  unsigned concurrent = 16;
  bool create_bucket = false;
  bool no_acl = false;
  bool drop_tags = false;
  std::string storage_class;
};

struct Bucket_Map {
  std::string source;
  std::string target;
  std::string prefix;
};

/// Reads "SOURCE=TARGET" or "SOURCE=TARGET/PREFIX"; "*" stands for every bucket without a map of its own.
Bucket_Map parse_map(const std::string& text) {
  const std::string::size_type equals = text.find('=');
  Bucket_Map map;
  if (equals != std::string::npos) {
    map.source = text.substr(0, equals);
    map.target = text.substr(equals + 1);
    const std::string::size_type slash = map.target.find('/');
    if (slash != std::string::npos) {
      map.prefix = map.target.substr(slash + 1);
      map.target.erase(slash);
    }
  }
  if (map.source.empty() || map.target.empty() || map.source.find('/') != std::string::npos)
    throw Command_Error("--map '" + text + "' is not of the form SOURCE=TARGET or SOURCE=TARGET/PREFIX", EXIT_USAGE);
  return map;
}

json_spirit::Array selected_entries(const std::vector<std::string>& paths) {
  json_spirit::Array entries;
  for (const std::string& path : checked_paths(paths)) {
    json_spirit::Object entry;
    entry[path.back() == '/' ? "dir" : "file"] = path;
    entries.push_back(entry);
  }
  return entries;
}

void create_missing_buckets(const Account& account, const std::set<std::string>& buckets) {
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

void restore(Context& context, const Restore_Arguments& arguments) {
  std::vector<Bucket_Map> maps;
  for (const std::string& text : arguments.maps)
    maps.push_back(parse_map(text));
  const json_spirit::Array entries = selected_entries(arguments.paths);
  const Set set = context.set(arguments.set);
  const Account account = target_account(context, set, arguments.to);

  context.module();   // before the first request: from here on an interrupt cancels instead of ending the process
  json_spirit::Array bucket_maps;
  std::set<std::string> targets;
  for (const Bucket_Map& map : maps) {
    json_spirit::Object item;
    item["source"] = map.source;
    item["target"] = map.target;
    item["prefix"] = map.prefix;
    bucket_maps.push_back(item);
    targets.insert(map.target);
  }
  if (arguments.create_bucket)
    create_missing_buckets(account, targets);

  json_spirit::Object source;
  source["id"] = set.account_uuid;
  source["catalog_id"] = set.uuid;
  source["backup_host_id"] = set.account_uuid;
  source["backup_minor_resource_id"] = set.minor_resource_id;
  source["pool_uuid"] = set.pool_uuid;
  source["seq"] = set.seq;
  if (!entries.empty())
    source["entries"] = entries;

  json_spirit::Object options;
  options["channels"] = arguments.concurrent;
  options["existing"] = arguments.existing;
  options["bucket_maps"] = bucket_maps;
  options["no_acl"] = arguments.no_acl;
  options["drop_tags"] = arguments.drop_tags;
  if (!arguments.storage_class.empty())
    options["storage_class"] = arguments.storage_class;

  json_spirit::Object definition;
  definition["type"] = "restore";
  definition["id"] = make_uuid();
  definition["name"] = "restore of " + set.uuid;
  definition["agent"] = "obs-agent";
  definition["host_id"] = account.uuid;
  definition["source"] = source;
  definition["options"] = options;
  run_job(context, definition);
}

} // namespace

void add_restore_command(CLI::App& app, Context& context) {
  auto arguments = std::make_shared<Restore_Arguments>();
  CLI::App* command = app.add_subcommand("restore", "Restore a set, or parts of it, as objects");
  command->add_option("set", arguments->set, "Set, or the beginning of its uuid")->required()->type_name("SET");
  command->add_option("path", arguments->paths, "/bucket/, /bucket/folder/ or /bucket/key; none: everything")
      ->type_name("PATH");
  command->add_option("--to", arguments->to, "Account to restore to; the one that was backed up unless told")
      ->type_name("ACCOUNT");
  command->add_option("--map", arguments->maps, "SOURCE=TARGET[/PREFIX]: where a bucket's objects go; '*' for the rest")
      ->type_name("MAP")
      ->allow_extra_args(false);
  command->add_option("--existing", arguments->existing, "What to do with objects that exist: overwrite, skip or newest")
      ->check(CLI::IsMember({"overwrite", "skip", "newest"}))
      ->capture_default_str();
  command->add_option("--concurrent", arguments->concurrent, "Objects written at the same time")
      ->check(CLI::Range(1, 1024))
      ->capture_default_str();
  command->add_flag("--no-acl", arguments->no_acl, "Give no access lists");
  command->add_flag("--drop-tags", arguments->drop_tags, "Give no tags");
  command->add_option("--storage-class", arguments->storage_class, "Storage class for all objects; each one's own unless told")
      ->type_name("CLASS");
  command->add_flag("--create-bucket", arguments->create_bucket, "Create the buckets of --map that do not exist");
  command->callback([&context, arguments] { restore(context, *arguments); });
}
