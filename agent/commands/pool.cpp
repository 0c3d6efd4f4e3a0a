#include "agent/commands/commands.h"

#include "platform/file_backup/set_catalog.h"
#include "sdk/job/job_definition.h"

#include <CLI/CLI.hpp>

#include <memory>

namespace {

json_spirit::Object pool_json(const Pool_Entry& entry) {
  json_spirit::Object json;
  json["uuid"] = entry.uuid;
  json["name"] = entry.name;
  json["url"] = entry.url;
  json["encrypt"] = entry.encrypt;
  return json;
}

void add(Context& context, const std::string& name, const std::string& url) {
  Store& store = context.store();
  Pool_Entry entry;
  bool found = false;
  std::string error;
  if (!store.find_pool_by_name(name, entry, found, error))
    throw Command_Error(error);
  if (found)
    throw Command_Error("there is a pool '" + name + "' already");
  entry.name = name;
  entry.url = url;
  Pool pool;
  if (Pool::open(url, std::string(), pool, error)) {
    // A pool that was made elsewhere, or that this agent's database has lost: its sets come back with it.
    entry.uuid = pool.uuid();
  } else {
    entry.uuid = make_uuid();
    if (!Pool::create(url, entry.uuid, error))
      throw Command_Error(error);
  }
  if (!store.add_pool(entry, error))
    throw Command_Error(error);
  if (!reconcile_sets(store, entry.uuid, std::string(), error))
    throw Command_Error("pool '" + name + "' is added, but its sets cannot be taken up: " + error);
  std::vector<Set> sets;
  if (!store.sets(entry.uuid, std::string(), std::string(), false, sets, error))
    throw Command_Error(error);
  json_spirit::Object json = pool_json(entry);
  json["sets"] = static_cast<unsigned long long>(sets.size());
  context.print(json, "pool '" + name + "' added at " + url +
                          (sets.empty() ? std::string() : " with " + std::to_string(sets.size()) + " sets"));
}

void list(Context& context) {
  std::vector<Pool_Entry> pools;
  std::string error;
  if (!context.store().pools(pools, error))
    throw Command_Error(error);
  json_spirit::Array array;
  std::string text;
  for (const Pool_Entry& entry : pools) {
    array.push_back(pool_json(entry));
    text += entry.name + "  " + entry.url + "\n";
  }
  json_spirit::Object json;
  json["pools"] = array;
  context.print(json, text);
}

void show(Context& context, const std::string& name) {
  const Pool_Entry entry = context.pool_entry(name);
  const Pool pool = context.open_pool(entry);
  std::vector<std::string> errors;
  const std::vector<Set_Record> sets = pool.sets(std::string(), errors);
  unsigned long long stored = 0;
  for (const Set_Record& set : sets)
    stored += set.backup_set_storage_size;
  json_spirit::Object json = pool_json(entry);
  json["sets"] = static_cast<unsigned long long>(sets.size());
  json["storage_size"] = stored;
  std::string text = entry.name + "  " + entry.url + "  " + entry.uuid + "\n" + std::to_string(sets.size()) +
                     " sets, " + human_bytes(stored) + " stored\n";
  json_spirit::Array problems;
  for (const std::string& error : errors) {
    problems.push_back(error);
    text += "not readable: " + error + "\n";
  }
  json["problems"] = problems;
  context.print(json, text);
  if (!errors.empty())
    context.exit_code = EXIT_COMPLETED_WITH_ERRORS;
}

} // namespace

void add_pool_commands(CLI::App& app, Context& context) {
  CLI::App* pool = app.add_subcommand("pool", "Pools that sets are kept in");
  pool->require_subcommand(1);
  auto name = std::make_shared<std::string>();
  auto url = std::make_shared<std::string>();

  CLI::App* add_command = pool->add_subcommand("add", "Make a pool in an empty folder, or take up the one that is there");
  add_command->add_option("name", *name, "Name to call it by")->required()->type_name("NAME");
  add_command->add_option("url", *url, "file:///FOLDER")->required()->type_name("URL");
  add_command->callback([&context, name, url] { add(context, *name, *url); });

  pool->add_subcommand("list", "List the pools")->callback([&context] { list(context); });

  CLI::App* show_command = pool->add_subcommand("show", "Show a pool and how much it holds");
  show_command->add_option("name", *name, "Pool")->required()->type_name("NAME");
  show_command->callback([&context, name] { show(context, *name); });
}
