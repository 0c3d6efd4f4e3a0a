#include "agent/commands/commands.h"
#include "agent/commands/open_set.h"
#include "agent/commands/search.h"
#include "agent/times.h"

#include "platform/crypto/base64.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <functional>
#include <memory>

namespace {

struct Find_Arguments {
  std::string glob;
  std::string set;
  std::string account;
};

void print_match(const Context& context, const Set& set, const std::string& stored_in, const Catalog_Object& object) {
  if (!context.json) {
    print_line(set.uuid + "  " + zoned_time(set.end_time) + "  " + object_head(object) + "/" + object.path +
               flags_text(object));
    return;
  }
  json_spirit::Object line = object_json(object);
  line["set"] = set.uuid;
  line["set_time"] = json_time(set.end_time);
  line["stored_in"] = stored_in;
  line["sha256"] = to_hex(object.sha256, sizeof object.sha256);
  add_flags(object, line);
  print_json_line(line);
}

/// What the set before had and the listing of this one no longer.
void print_deletion(const Context& context, const Set& set, const Catalog_Deletion& deletion) {
  Catalog_Object object;
  object.path = deletion.path;
  object.size = deletion.size;
  object.mtime = deletion.mtime;
  if (!context.json) {
    print_line(set.uuid + "  " + zoned_time(set.end_time) + "  " + object_head(object) + "/" + object.path +
               "  (deleted)");
    return;
  }
  json_spirit::Object line = object_json(object);
  line["set"] = set.uuid;
  line["set_time"] = json_time(set.end_time);
  line["deleted"] = true;
  print_json_line(line);
}

std::vector<Set> sets_to_search(Context& context, const Find_Arguments& arguments) {
  if (!arguments.set.empty())
    return {context.set(arguments.set)};
  const std::string account = arguments.account.empty() ? std::string() : context.account(arguments.account).uuid;
  for (const std::string& warning : context.reconcile())
    print_error(warning);
  std::vector<Set> sets;
  std::string error;
  if (!context.store().sets(std::string(), account, std::string(), false, sets, error))
    throw Command_Error(error);
  return sets;
}

void find(Context& context, const Find_Arguments& arguments) {
  const Search search(arguments.glob);
  unsigned long long matches = 0;
  std::string failed;
  for (const Set& set : sets_to_search(context, arguments)) {
    // One set that cannot be read does not hide what the others hold.
    try {
      const std::unique_ptr<Catalog_Reader> catalog = open_catalog(context, set);
      search.run(*catalog, [&](const Catalog_Object& object) {
        ++matches;
        // Numbers may be missing in the list.
        std::string holder;
        for (const Catalog_Set& one : catalog->sets())
          if (one.index == object.set)
            holder = one.uuid;
        print_match(context, set, holder, object);
      });
      search.run_deleted(*catalog, [&](const Catalog_Deletion& deletion) {
        ++matches;
        print_deletion(context, set, deletion);
      });
    } catch (const Command_Error& error) {
      if (!failed.empty())
        print_error(failed);
      failed = error.what();
    }
  }
  if (!failed.empty())
    throw Command_Error(failed);
  if (matches == 0)
    throw Command_Error("nothing matches '" + arguments.glob + "'");
}

} // namespace

void add_find_command(CLI::App& app, Context& context) {
  auto arguments = std::make_shared<Find_Arguments>();
  CLI::App* command = app.add_subcommand(
      "find", "Find objects in sets: when they were there, when they were gone, and which versions are held");
  command
      ->add_option("glob", arguments->glob,
                   "/bucket/key with *, ? and **; without the leading / it matches at any depth")
      ->required()
      ->type_name("GLOB");
  CLI::Option* set = command->add_option("--set", arguments->set, "In this set only")->type_name("SET");
  command->add_option("--account", arguments->account, "In the sets of this account only")
      ->type_name("ACCOUNT")
      ->excludes(set);
  command->callback([&context, arguments] { find(context, *arguments); });
}
