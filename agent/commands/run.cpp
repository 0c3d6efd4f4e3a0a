#include "agent/commands/commands.h"
#include "agent/commands/run_job.h"

#include <CLI/CLI.hpp>

#include <memory>

void add_run_command(CLI::App& app, Context& context) {
  auto path = std::make_shared<std::string>();
  CLI::App* command = app.add_subcommand("run", "Run a job as a definition describes it (doc/definition.md)");
  command->add_option("definition", *path, "File with the definition")->required()->type_name("DEFINITION.json");
  auto print = std::make_shared<bool>(false);
  command->add_flag("--print", *print, "Print the definition as it is understood, and run nothing");
  command->callback([&context, path, print] {
    const Definition_File definition = read_definition_file(*path);
    if (*print)
      print_definition(context, definition);
    else
      run_job(context, definition);
  });
}
