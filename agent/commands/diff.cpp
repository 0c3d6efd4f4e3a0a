#include "agent/commands/commands.h"
#include "agent/commands/open_set.h"

#include <CLI/CLI.hpp>

#include <cstring>
#include <functional>
#include <memory>
#include <utility>

namespace {

/// Looks one catalog's objects up in another, in the order in which they are walked: folder by folder, each a merge of
/// two runs. Holds nothing but the folder's name.
class Follower {
public:
  explicit Follower(Catalog_Reader& catalog) : catalog_(catalog) {}

  bool find(const std::string& path, Catalog_Object& object) {
    std::string error;
    const size_t name = path.rfind('/') + 1;
    if (folder_.size() != name || path.compare(0, name, folder_) != 0) {
      folder_ = path.substr(0, name);
      if (!catalog_.enter(folder_, error))
        throw Command_Error(error);
    }
    const bool found = catalog_.match(path.substr(name), object, error);
    if (!error.empty())
      throw Command_Error(error);
    return found;
  }

private:
  Catalog_Reader& catalog_;
  std::string folder_;
};

void walk_all(Catalog_Reader& catalog, const std::function<void(const Catalog_Object&)>& told) {
  std::string error;
  const bool walked = catalog.walk(
      std::string(),
      [&told](const Catalog_Object& object) {
        told(object);
        return true;
      },
      error);
  if (!walked)
    throw Command_Error(error);
}

class Diff_Printer {
public:
  explicit Diff_Printer(bool json) : json_(json) {}

  void removed(const Catalog_Object& object) {
    ++removed_;
    one("removed", '-', object);
  }
  void added(const Catalog_Object& object) {
    ++added_;
    one("added", '+', object);
  }
  void both(const Catalog_Object& before, const Catalog_Object& after) {
    const bool size = before.size != after.size;
    const bool mtime = before.mtime != after.mtime;
    const bool content = std::memcmp(before.sha256, after.sha256, sizeof before.sha256) != 0;
    if (!size && !mtime && !content) {
      ++same_;
      return;
    }
    ++changed_;
    json_spirit::Array what;
    std::string names;
    for (const auto& [differs, name] :
         {std::pair(size, "size"), std::pair(mtime, "mtime"), std::pair(content, "content")})
      if (differs) {
        what.push_back(name);
        names += (names.empty() ? "" : ", ") + std::string(name);
      }
    if (!json_) {
      print_line("M " + object_head(after) + "/" + after.path + "  (" + names + ")");
      return;
    }
    json_spirit::Object line = object_json(after);
    line["change"] = "changed";
    line["differs"] = what;
    line["before"] = object_json(before);
    print_json_line(line);
  }
  void finish() const {
    if (!json_) {
      print_line(std::to_string(added_) + " added, " + std::to_string(removed_) + " removed, " +
                 std::to_string(changed_) + " changed, " + std::to_string(same_) + " the same");
      return;
    }
    json_spirit::Object line;
    line["added"] = added_;
    line["removed"] = removed_;
    line["changed"] = changed_;
    line["same"] = same_;
    print_json_line(line);
  }

private:
  void one(const char* change, char sign, const Catalog_Object& object) const {
    if (!json_) {
      print_line(std::string(1, sign) + " " + object_head(object) + "/" + object.path);
      return;
    }
    json_spirit::Object line = object_json(object);
    line["change"] = change;
    print_json_line(line);
  }

  bool json_;
  unsigned long long added_ = 0, removed_ = 0, changed_ = 0, same_ = 0;
};

/// Two passes, since the sets may have been listed in different orders: what the first holds, then what only the
/// second does.
void diff(Context& context, const std::string& first, const std::string& second) {
  const std::unique_ptr<Catalog_Reader> before = open_catalog(context, context.set(first));
  const std::unique_ptr<Catalog_Reader> after = open_catalog(context, context.set(second));
  Diff_Printer printer(context.json);
  Catalog_Object other;
  Follower in_after(*after);
  walk_all(*before, [&](const Catalog_Object& object) {
    if (in_after.find(object.path, other))
      printer.both(object, other);
    else
      printer.removed(object);
  });
  Follower in_before(*before);
  walk_all(*after, [&](const Catalog_Object& object) {
    if (!in_before.find(object.path, other))
      printer.added(object);
  });
  printer.finish();
}

} // namespace

void add_diff_command(CLI::App& app, Context& context) {
  auto first = std::make_shared<std::string>();
  auto second = std::make_shared<std::string>();
  CLI::App* command = app.add_subcommand("diff", "Show what was added, removed and changed between two sets");
  command->add_option("first", *first, "Set: its uuid, the beginning of it, or \"latest\"")
      ->required()
      ->type_name("SET");
  command->add_option("second", *second, "The set to compare it with")->required()->type_name("SET");
  command->callback([&context, first, second] { diff(context, *first, *second); });
}
