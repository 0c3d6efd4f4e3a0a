#include "agent/commands/commands.h"
#include "agent/commands/run_job.h"

#include <CLI/CLI.hpp>

#include <memory>

namespace {

/// What is missing in a definition of a rehearsal is filled in; what contradicts one is refused.
Definition_File rehearsal_of(Definition_File file) {
  json_spirit::Object& definition = file.members;
  if (json_spirit::find(definition, "type") == nullptr)
    definition["type"] = "restore";
  if (json_spirit::optional_str(definition, "type") != "restore")
    throw Command_Error("job definition: a rehearsal's \"type\" must be \"restore\"");
  if (json_spirit::find(definition, "subtype") == nullptr)
    definition["subtype"] = "dr_test";
  if (json_spirit::optional_str(definition, "subtype") != "dr_test")
    throw Command_Error("job definition: a rehearsal's \"subtype\" must be \"dr_test\"");
  // What was rehearsed is kept by this id: without one every rehearsal would be the first.
  if (json_spirit::optional_str(definition, "id").empty())
    throw Command_Error("job definition: \"id\" must be a uuid that stays the same from rehearsal to rehearsal");
  return file;
}

} // namespace

void add_rehearse_command(CLI::App& app, Context& context) {
  auto path = std::make_shared<std::string>();
  CLI::App* command =
      app.add_subcommand("rehearse", "Rehearse disaster recovery: restore the newest set unless that was done already");
  command->add_option("definition", *path, "File with the definition of the restore")
      ->required()
      ->type_name("DEFINITION.json");
  command->callback([&context, path] { run_job(context, rehearsal_of(read_definition_file(*path))); });
}
