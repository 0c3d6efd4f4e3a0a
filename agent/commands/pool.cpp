#include "agent/commands/commands.h"
#include "agent/prompt.h"

#include "platform/file_backup/set_catalog.h"
#include "platform/pool/known_pool.h"
#include "platform/pool/pool_place.h"
#include "platform/pool/pool_roll.h"
#include "platform/pool/set_keys.h"
#include "sdk/job/job_definition.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <filesystem>
#include <memory>

namespace {

struct Pool_Arguments {
  std::string name;
  std::string url;
  bool encrypt = false;
  std::string passphrase_file;
  std::string key_file;

  bool secret_given() const { return !passphrase_file.empty() || !key_file.empty(); }
};

/// The passphrase, asked for twice where it is a new one. Throws Command_Error.
Pool_Secret ask_passphrase(bool fresh) {
  const std::string text = prompt_secret("Passphrase of the pool: ");
  if (text.size() < Pool_Secret::LEAST_PASSPHRASE)
    throw Command_Error("the passphrase is too short: it must have " + std::to_string(Pool_Secret::LEAST_PASSPHRASE) +
                        " bytes at least");
  if (fresh && prompt_secret("The same again: ") != text)
    throw Command_Error("the two passphrases differ");
  return Pool_Secret(Pool_Secret::PASSPHRASE, text);
}

/// What the pool's key is locked with, or is to be. Throws Command_Error.
Pool_Secret take_secret(const Pool_Arguments& arguments, bool fresh) {
  if (!arguments.secret_given() && can_prompt())
    return ask_passphrase(fresh);
  if (!arguments.secret_given())
    throw Command_Error("the pool is encrypted: give --passphrase-file or --key-file");
  const bool passphrase = !arguments.passphrase_file.empty();
  Pool_Secret secret;
  std::string error;
  if (!secret.read(passphrase ? Pool_Secret::PASSPHRASE : Pool_Secret::KEY_FILE,
                   passphrase ? arguments.passphrase_file : arguments.key_file, error))
    throw Command_Error(error);
  return secret;
}

json_spirit::Object pool_json(const Pool_Entry& entry) {
  json_spirit::Object json;
  json["uuid"] = entry.uuid;
  json["name"] = entry.name;
  json["url"] = entry.url;
  json["encrypt"] = entry.encrypt;
  return json;
}

/// Why the pool that lies at `url` cannot be added beside those that are known here; empty when it can.
std::string known_already(Context& context, const Pool& pool, const std::string& url) {
  std::vector<Pool_Entry> pools;
  std::string error;
  if (!context.store().pools(pools, error))
    throw Command_Error(error);
  for (const Pool_Entry& one : pools) {
    if (one.uuid != pool.uuid())
      continue;
    Pool other;
    std::error_code code;
    if (!Pool::open(one.url, one.uuid, other, error))
      return "the pool at " + url + " is pool '" + one.name + "', which is known at " + one.url +
             " and cannot be opened there (" + error + "): if it was moved, say so with \"pool change " + one.name +
             " --url " + url + "\"";
    if (std::filesystem::equivalent(other.folder(), pool.folder(), code))
      return "the pool at " + url + " is known here already, as pool '" + one.name + "'";
    return "the pool at " + url + " is a copy of pool '" + one.name + "' at " + one.url +
           ": both have the same uuid, and only one of them can be known here";
  }
  return std::string();
}

/// Whether a pool that says that it is plain was an encrypted one: what is stored there from now on would be as well.
bool holds_encrypted_sets(const Pool& pool) {
  std::vector<std::string> ignored;
  const std::vector<Set_Record> sets = pool.encrypted() ? std::vector<Set_Record>() : pool.sets(std::string(), ignored);
  return std::any_of(sets.begin(), sets.end(), [](const Set_Record& one) { return !one.data_key.empty(); });
}

/// The pool of a folder that has one already, or a new one, which `made` says. Throws Command_Error.
Pool take_pool(Context& context, const Pool_Arguments& arguments, bool& made) {
  Pool pool;
  Secret_Key key;
  std::string error;
  // A pool that was made elsewhere, or that this agent's database has lost: its sets come back with it.
  made = !Pool::open(arguments.url, std::string(), pool, error);
  // What is there and cannot be read is neither taken for a pool nor written over.
  if (made && may_hold_pool(arguments.url))
    throw Command_Error(error);
  if (!made) {
    if (!pool.encrypted() && (arguments.encrypt || arguments.secret_given()))
      throw Command_Error("the pool at " + arguments.url + " is there already, and it is not encrypted");
    if (const std::string known = known_already(context, pool, arguments.url); !known.empty())
      throw Command_Error(known);
    if (holds_encrypted_sets(pool))
      throw Command_Error("the pool at " + arguments.url +
                          " says that it is not encrypted, and holds encrypted sets: " +
                          "its file pool.json was replaced. Bring the right one back");
    if (pool.encrypted() && !pool.unlock(take_secret(arguments, false), key, error))
      throw Command_Error("the pool at " + arguments.url + " cannot be opened: " + error);
  } else {
    if (arguments.secret_given() && !arguments.encrypt)
      throw Command_Error("there is no pool at " + arguments.url + " yet; a new one is encrypted with --encrypt");
    const std::string uuid = make_uuid();
    const bool created =
        arguments.encrypt ? Pool::create(arguments.url, uuid, take_secret(arguments, true), Scrypt_Cost(), key, error)
                          : Pool::create(arguments.url, uuid, error);
    if (!created || !Pool::open(arguments.url, uuid, pool, error))
      throw Command_Error(error);
  }
  if (pool.encrypted() && !keep_pool_key(context.store(), pool.uuid(), key, error))
    throw Command_Error("the pool's key cannot be kept: " + error);
  return pool;
}

void add(Context& context, const Pool_Arguments& arguments) {
  const std::string& name = arguments.name;
  const std::string& url = arguments.url;
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
  bool made = false;
  const Pool pool = take_pool(context, arguments, made);
  entry.uuid = pool.uuid();
  entry.encrypt = pool.encrypted();
  if (!store.add_pool(entry, error) || !check_known_pool(pool, error))
    throw Command_Error(error);
  if (!reconcile_sets(store, entry.uuid, std::string(), error))
    throw Command_Error("pool '" + name + "' is added, but its sets cannot be taken up: " + error);
  std::vector<Set> sets;
  if (!store.sets(entry.uuid, std::string(), std::string(), false, sets, error))
    throw Command_Error(error);
  json_spirit::Object json = pool_json(entry);
  json["made"] = made;
  json["sets"] = static_cast<unsigned long long>(sets.size());
  const std::string what = std::string(entry.encrypt ? "encrypted " : "") + "pool '" + name + "'";
  const std::string count = std::to_string(sets.size()) + (sets.size() == 1 ? " set" : " sets");
  context.print(json, made ? "a new " + what + " is made at " + url
                           : "the " + what + " that was at " + url + " already is taken up, with " + count);
}

void list(Context& context) {
  std::vector<Pool_Entry> pools;
  std::string error;
  if (!context.store().pools(pools, error))
    throw Command_Error(error);
  json_spirit::Array array;
  Lines text;
  for (const Pool_Entry& entry : pools) {
    array.push_back(pool_json(entry));
    text.add(entry.name + "  " + entry.url);
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
  for (std::string& away : sets_taken_away(pool))
    errors.push_back(std::move(away));
  unsigned long long stored = 0;
  for (const Set_Record& set : sets)
    stored += set.backup_set_storage_size;
  json_spirit::Object json = pool_json(entry);
  json["sets"] = static_cast<unsigned long long>(sets.size());
  json["storage_size"] = stored;
  Lines text(entry.name + "  " + entry.url + "  " + entry.uuid + (pool.encrypted() ? "  encrypted" : ""));
  text.add(std::to_string(sets.size()) + " sets, " + human_bytes(stored) + " stored");
  json_spirit::Array problems;
  for (const std::string& error : errors) {
    problems.push_back(error);
    text.add("problem: " + error);
  }
  json["problems"] = problems;
  context.print(json, text);
  if (!errors.empty())
    context.exit_code = EXIT_COMPLETED_WITH_ERRORS;
}

/// Where a pool is that was moved. That it is the same one is seen before anything is changed.
void change(Context& context, const Pool_Arguments& arguments) {
  Pool_Entry entry = context.pool_entry(arguments.name);
  context.lock_state();
  Pool pool;
  std::string error;
  if (!Pool::open(arguments.url, entry.uuid, pool, error))
    throw Command_Error("pool '" + entry.name + "' stays at " + entry.url + ": " + error);
  entry.url = arguments.url;
  if (!context.store().update_pool(entry, error))
    throw Command_Error(error);
  if (!reconcile_sets(context.store(), entry.uuid, std::string(), error))
    throw Command_Error("pool '" + entry.name + "' is at " + entry.url +
                        " now, but its sets cannot be taken up: " + error);
  context.print(pool_json(entry), "pool '" + entry.name + "' is at " + entry.url + " now");
}

/// Nothing in the pool is touched, which need not even be there any more.
void remove(Context& context, const std::string& name) {
  const Pool_Entry entry = context.pool_entry(name);
  context.lock_state();
  Store& store = context.store();
  std::vector<Set> sets;
  std::string error;
  if (!store.sets(entry.uuid, std::string(), std::string(), true, sets, error))
    throw Command_Error(error);
  // Cut short, this leaves a pool whose sets are taken up again when they are listed.
  unsigned long long online = 0;
  for (const Set& set : sets) {
    online += set.state == Set::STATE_ONLINE;
    if (!store.remove_set(set.uuid, error))
      throw Command_Error(error);
  }
  if (!store.remove_pool(entry.uuid, error) || !forget_known_pool(store, entry.uuid, error) ||
      !forget_known_roll(store, entry.uuid, error) || (entry.encrypt && !forget_pool_key(store, entry.uuid, error)))
    throw Command_Error(error);
  json_spirit::Object json = pool_json(entry);
  json["sets"] = online;
  context.print(json, "pool '" + entry.name + "' is forgotten here with " + std::to_string(online) +
                          " sets; what lies at " + entry.url + " stays");
}

/// The key of a pool that is known here, when the kept one is lost with its master key.
void unlock(Context& context, const Pool_Arguments& arguments) {
  const Pool_Entry entry = context.pool_entry(arguments.name);
  const Pool pool = context.open_pool(entry);
  Secret_Key key;
  std::string error;
  if (!pool.encrypted())
    throw Command_Error("pool '" + entry.name + "' is not encrypted");
  if (!pool.unlock(take_secret(arguments, false), key, error))
    throw Command_Error("pool '" + entry.name + "' cannot be opened: " + error);
  if (!keep_pool_key(context.store(), pool.uuid(), key, error))
    throw Command_Error("the pool's key cannot be kept: " + error);
  context.print(pool_json(entry), "pool '" + entry.name + "' can be used");
}

/// An operator has seen what is in the pool and takes it for what should be there.
void trust(Context& context, const std::string& name) {
  const Pool_Entry entry = context.pool_entry(name);
  context.lock_state();
  const Pool pool = context.open_pool(entry);
  context.lock_pool(pool);
  std::string error;
  if (!trust_pool(pool, error))
    throw Command_Error("pool '" + entry.name + "' cannot be trusted as it is: " + error);
  std::vector<std::string> errors;
  const size_t count = pool.sets(std::string(), errors).size();
  json_spirit::Object json = pool_json(entry);
  json["sets"] = static_cast<unsigned long long>(count);
  context.print(json, "pool '" + entry.name + "' is taken as it is now, with " + std::to_string(count) + " sets");
}

void rekey(Context& context, const Pool_Arguments& arguments) {
  const Pool_Entry entry = context.pool_entry(arguments.name);
  Pool pool = context.open_pool(entry);
  Secret_Key key;
  std::string error;
  if (!pool.encrypted())
    throw Command_Error("pool '" + entry.name + "' is not encrypted");
  if (!find_pool_key(pool, key, error))
    throw Command_Error(error);
  const auto lock = pool.lock(error);
  if (!lock)
    throw Command_Error(error);
  if (!pool.relock(key, take_secret(arguments, true), Scrypt_Cost(), error))
    throw Command_Error("pool '" + entry.name + "' stays as it was: " + error);
  context.print(pool_json(entry), "pool '" + entry.name + "' is now opened with the new " +
                                      (arguments.key_file.empty() ? "passphrase" : "key file") + " only");
}

} // namespace

void add_pool_commands(CLI::App& app, Context& context) {
  CLI::App* pool = app.add_subcommand("pool", "Pools that sets are kept in");
  pool->require_subcommand(1);
  auto arguments = std::make_shared<Pool_Arguments>();
  const auto add_secret = [arguments](CLI::App* command) {
    CLI::Option* passphrase =
        command
            ->add_option("--passphrase-file", arguments->passphrase_file, "File with the passphrase; -: standard input")
            ->type_name("FILE");
    command
        ->add_option("--key-file", arguments->key_file, "File of 32 bytes or more that is the key; -: standard input")
        ->type_name("FILE")
        ->excludes(passphrase);
  };

  CLI::App* add_command =
      pool->add_subcommand("add", "Make a pool in an empty folder, or take up the one that is there");
  add_command->add_option("name", arguments->name, "Name to call it by")->required()->type_name("NAME");
  add_command->add_option("url", arguments->url, "file:///FOLDER")->required()->type_name("URL");
  add_command->add_flag("--encrypt", arguments->encrypt, "Encrypt what a new pool holds: contents, names and sizes");
  add_secret(add_command);
  add_command->callback([&context, arguments] { add(context, *arguments); });

  CLI::App* change_command = pool->add_subcommand("change", "Say where a pool lies that was moved");
  change_command->add_option("name", arguments->name, "Pool")->required()->type_name("NAME");
  change_command->add_option("--url", arguments->url, "file:///FOLDER that the same pool lies in now")
      ->required()
      ->type_name("URL");
  change_command->callback([&context, arguments] { change(context, *arguments); });

  CLI::App* remove_command =
      pool->add_subcommand("remove", "Forget a pool here; what it holds stays, and \"pool add\" takes it up again");
  remove_command->add_option("name", arguments->name, "Pool")->required()->type_name("NAME");
  remove_command->callback([&context, arguments] { remove(context, arguments->name); });

  CLI::App* unlock_command = pool->add_subcommand(
      "unlock", "Give the key of an encrypted pool again, when the one that is kept cannot be used");
  unlock_command->add_option("name", arguments->name, "Pool")->required()->type_name("NAME");
  add_secret(unlock_command);
  unlock_command->callback([&context, arguments] { unlock(context, *arguments); });

  CLI::App* rekey_command = pool->add_subcommand(
      "rekey", "Give an encrypted pool another passphrase or key file; what it holds stays as it is");
  rekey_command->add_option("name", arguments->name, "Pool")->required()->type_name("NAME");
  add_secret(rekey_command);
  rekey_command->callback([&context, arguments] { rekey(context, *arguments); });

  CLI::App* trust_command = pool->add_subcommand(
      "trust", "Take what is in a pool now for what should be there, after sets were put there, back or away by hand");
  trust_command->add_option("name", arguments->name, "Pool")->required()->type_name("NAME");
  trust_command->callback([&context, arguments] { trust(context, arguments->name); });

  pool->add_subcommand("list", "List the pools")->callback([&context] { list(context); });

  CLI::App* show_command = pool->add_subcommand("show", "Show a pool and how much it holds");
  show_command->add_option("name", arguments->name, "Pool")->required()->type_name("NAME");
  show_command->callback([&context, arguments] { show(context, arguments->name); });
}
