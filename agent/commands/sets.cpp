#include "agent/commands/commands.h"
#include "agent/commands/open_set.h"
#include "agent/set_outcome.h"
#include "agent/times.h"

#include "platform/pool/set_order.h"
#include "sdk/base/clock.h"
#include "sdk/s3/object_attributes.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <map>
#include <memory>

namespace {

constexpr unsigned LS_PAGE = 1000;

/// What people call accounts and pools, by uuid.
struct Names {
  explicit Names(Store& store) {
    std::vector<Account> all_accounts;
    std::vector<Pool_Entry> all_pools;
    std::string error;
    if (!store.accounts(all_accounts, error) || !store.pools(all_pools, error))
      throw Command_Error(error);
    for (const Account& account : all_accounts)
      accounts[account.uuid] = account.name;
    for (const Pool_Entry& pool : all_pools)
      pools[pool.uuid] = pool.name;
  }
  /// Empty for what is not known here, as the account of a set that another agent made.
  static std::string of(const std::map<std::string, std::string>& names, const std::string& uuid) {
    const auto found = names.find(uuid);
    return found == names.end() ? std::string() : found->second;
  }

  std::map<std::string, std::string> accounts;
  std::map<std::string, std::string> pools;
};

json_spirit::Object set_json(const Set& set, const Names& names) {
  json_spirit::Object json;
  json["set"] = set.uuid;
  json["account"] = set.account_uuid;
  json["account_name"] = Names::of(names.accounts, set.account_uuid);
  json["pool"] = set.pool_uuid;
  json["pool_name"] = Names::of(names.pools, set.pool_uuid);
  json["selection"] = set.minor_resource_id;
  json["selection_name"] = set.minor_resource_name;
  json["type"] = set.type;
  json["seq"] = set.seq;
  json["start_time"] = json_time(set.start_time);
  json["end_time"] = json_time(set.end_time);
  json["objects"] = set.objects;
  add_set_outcome(set.missing, json);
  json["source_size"] = set.source_size;
  json["storage_size"] = set.backup_set_storage_size;
  return json;
}

/// Names that are not known are "-".
std::string set_line(const Set& set, const Names& names) {
  std::string line = set.uuid + "  " + zoned_time(set.start_time) + " to " + zoned_time(set.end_time) + "  " +
                     set.type + "  " + std::to_string(set.objects) + " objects  " + human_bytes(set.source_size) +
                     " (" + human_bytes(set.backup_set_storage_size) + " stored)  " + set_outcome_text(set.missing);
  for (const std::string& name :
       {Names::of(names.accounts, set.account_uuid), Names::of(names.pools, set.pool_uuid), set.minor_resource_name})
    line += "  " + (name.empty() ? std::string("-") : name);
  return line;
}

/// What is wrong with start times, by the uuids of the sets.
std::map<std::string, std::string> wrong_times(const std::vector<Set>& sets) {
  std::map<std::pair<std::string, std::string>, std::vector<Set_In_Order>> places; // by pool and selection
  for (const Set& set : sets)
    places[{set.pool_uuid, set.minor_resource_id}].push_back({set.uuid, set.bases, set.seq, set.start_time});
  std::map<std::string, std::string> wrong;
  for (const auto& [place, all] : places) {
    const std::vector<std::string> problems = time_problems(all, Clock::instance().now());
    for (size_t i = 0; i < all.size(); ++i)
      if (!problems[i].empty())
        wrong[all[i].uuid] = problems[i];
  }
  return wrong;
}

void list_sets(Context& context, const std::string& account_name) {
  const std::string account_uuid = account_name.empty() ? std::string() : context.account(account_name).uuid;
  for (const std::string& warning : context.reconcile())
    print_error(warning);
  std::vector<Set> sets;
  std::string error;
  if (!context.store().sets(std::string(), account_uuid, std::string(), false, sets, error))
    throw Command_Error(error);
  const Names names(context.store());
  const std::map<std::string, std::string> wrong = wrong_times(sets);
  json_spirit::Array array;
  Lines text;
  for (const Set& set : sets) {
    json_spirit::Object one = set_json(set, names);
    const auto found = wrong.find(set.uuid);
    if (found != wrong.end())
      one["time_problem"] = found->second;
    array.push_back(std::move(one));
    text.add(set_line(set, names));
    if (found != wrong.end())
      text.add("    " + found->second);
  }
  json_spirit::Object json;
  json["sets"] = array;
  context.print(json, text);
}

/// Characters of `attributes_head`.
constexpr size_t ATTRIBUTES_WIDTH = 72;

/// "none", "2 grants" or, where nobody asked, "not asked".
std::string count_text(bool known, size_t count, const char* none, const char* what) {
  if (!known)
    return "not asked";
  return count == 0 ? none : std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

/// Content type, storage class, tags and access list, in columns.
std::string attributes_head(const Catalog_Object& object) {
  Object_Attributes attributes;
  std::string ignored, type = "-";
  attributes.parse(object.attributes.common, std::string(), ignored);
  for (const auto& header : attributes.headers)
    if (header.first == "content-type")
      type = header.second.substr(0, header.second.find(';'));
  const std::string tags = count_text(attributes.tags_known, attributes.tags.size(), "none", "tag");
  const std::string access =
      count_text(attributes.acl_known(), attributes.is_shared() ? attributes.grants.size() : 0, "private", "grant");
  char head[160];
  std::snprintf(head, sizeof head, "%-26.26s %-11.11s tags %-9.9s access %-9.9s  ", type.c_str(),
                attributes.storage_class.empty() ? "-" : attributes.storage_class.c_str(), tags.c_str(),
                access.c_str());
  return head;
}

/// The attributes as the catalog has them.
void add_attributes(const Catalog_Object& object, json_spirit::Object& entry) {
  json_spirit::Object all;
  for (const std::string* text : {&object.attributes.common, &object.attributes.own}) {
    json_spirit::Value value;
    if (!text->empty() && json_spirit::read(*text, value) && value.type() == json_spirit::obj_type)
      all.insert(value.get_obj().begin(), value.get_obj().end());
  }
  entry["attributes"] = std::move(all);
}

/// Prints entries as they come, so that a large set costs no memory.
class Ls_Printer {
public:
  Ls_Printer(bool json, bool all) : json_(json), long_(all) {}
  void folder(const std::string& path) {
    json_spirit::Object entry;
    entry["dir"] = "/" + path;
    if (json_)
      print_json_line(entry);
    else
      print_line("                                -  " + std::string(long_ ? ATTRIBUTES_WIDTH : 0, ' ') + "/" + path);
  }
  void object(const Catalog_Object& object) {
    if (json_) {
      json_spirit::Object entry = object_json(object);
      add_flags(object, entry);
      if (long_)
        add_attributes(object, entry);
      print_json_line(entry);
      return;
    }
    print_line(object_head(object) + (long_ ? attributes_head(object) : std::string()) + "/" + object.path +
               flags_text(object));
  }

private:
  bool json_;
  bool long_;
};

void list_folder(Catalog_Reader& catalog, const std::string& path, Ls_Printer& printer) {
  std::string error;
  std::string marker;
  Catalog_Page page;
  do {
    page = Catalog_Page();
    if (!catalog.list(path, marker, LS_PAGE, page, error))
      throw Command_Error(error);
    for (const std::string& folder : page.folders)
      printer.folder(folder);
    for (const Catalog_Object& object : page.objects)
      printer.object(object);
    marker = page.next_marker;
  } while (page.truncated);
}

void ls(Context& context, const std::string& set_id, const std::string& given_path, bool recursive, bool all) {
  // The catalog knows paths without their leading "/".
  std::string path = given_path;
  if (!path.empty() && path[0] == '/')
    path.erase(0, 1);
  const Set set = context.set(set_id);
  std::string error;
  const std::unique_ptr<Catalog_Reader> catalog = open_catalog(context, set);
  Ls_Printer printer(context.json, all);
  const bool is_folder = path.empty() || path.back() == '/';
  if (!is_folder) {
    Catalog_Object object;
    if (catalog->find(path, object, error)) {
      printer.object(object);
      return;
    }
    if (!error.empty())
      throw Command_Error(error);
    path += '/';
  }
  if (!catalog->has_folder(path, error))
    throw Command_Error(error.empty() ? "set " + set.uuid + " holds nothing at '" + given_path + "'" : error);
  if (!recursive) {
    list_folder(*catalog, path, printer);
    return;
  }
  const bool walked = catalog->walk(
      path,
      [&printer](const Catalog_Object& object) {
        printer.object(object);
        return true;
      },
      error);
  if (!walked)
    throw Command_Error(error);
}

} // namespace

void add_set_commands(CLI::App& app, Context& context) {
  auto account = std::make_shared<std::string>();
  CLI::App* sets = app.add_subcommand("sets", "List the sets, oldest first");
  sets->add_option("account", *account, "Of one account only")->type_name("ACCOUNT");
  sets->callback([&context, account] { list_sets(context, *account); });

  auto set = std::make_shared<std::string>();
  auto path = std::make_shared<std::string>();
  auto recursive = std::make_shared<bool>(false);
  CLI::App* list = app.add_subcommand("ls", "List what a set holds");
  list->add_option("set", *set, "Set: its uuid, the beginning of it, or \"latest\"")->required()->type_name("SET");
  list->add_option("path", *path, "/bucket/folder/ or /bucket/key; none: the buckets")->type_name("PATH");
  list->add_flag("-r,--recursive", *recursive, "Everything below");
  auto all = std::make_shared<bool>(false);
  list->add_flag("-l,--long", *all, "Content type, storage class and number of tags too; with --json all attributes");
  list->callback([&context, set, path, recursive, all] { ls(context, *set, *path, *recursive, *all); });
}
