#include "agent/commands/commands.h"
#include "agent/commands/run_job.h"

#include <CLI/CLI.hpp>

#include <memory>

void add_run_command(CLI::App& app, Context& context) {
  auto path = std::make_shared<std::string>();
  CLI::App* command = app.add_subcommand("run", "Run a job as a definition describes it (doc/definition.md)");
  command->add_option("definition", *path, "File with the definition")->required()->type_name("DEFINITION.json");
  command->callback([&context, path] {
    const json_spirit::Object definition = read_definition_file(*path);
    run_job(context, definition);
  });
}
