#include "agent/commands/commands.h"
#include "agent/commands/open_set.h"

#include <CLI/CLI.hpp>

#include <memory>

namespace {

const char* name_of(Catalog_Problem::Kind kind) {
  switch (kind) {
  case Catalog_Problem::SKIPPED:
    return "skipped";
  case Catalog_Problem::FAILED:
    return "failed";
  case Catalog_Problem::NOT_LISTED:
    return "not listed";
  case Catalog_Problem::INCOMPLETE:
    return "incomplete";
  }
  return "unknown";
}

/// Prints them as they come: the outcome keeps a bounded number, the catalog all of them.
void problems(Context& context, const std::string& set_id) {
  const std::unique_ptr<Catalog_Reader> catalog = open_catalog(context, context.set(set_id));
  std::string error;
  const bool read = catalog->problems(
      [&context](const Catalog_Problem& problem) {
        if (!context.json) {
          print_line(std::string(name_of(problem.kind)) + "  /" + problem.path + ": " + problem.message);
          return true;
        }
        json_spirit::Object line;
        line["kind"] = name_of(problem.kind);
        line["file"] = "/" + problem.path;
        line["errno"] = problem.number != 0 ? json_spirit::Value(problem.number) : json_spirit::Value();
        line["message"] = problem.message;
        print_json_line(line);
        return true;
      },
      error);
  if (!read)
    throw Command_Error(error);
}

} // namespace

void add_problems_command(CLI::App& app, Context& context) {
  auto set = std::make_shared<std::string>();
  CLI::App* command =
      app.add_subcommand("problems", "List what the run of a set could not save, not list, or not save whole");
  command->add_option("set", *set, "Set: its uuid, the beginning of it, or \"latest\"")->required()->type_name("SET");
  command->callback([&context, set] { problems(context, *set); });
}
