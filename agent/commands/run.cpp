#include "agent/commands/commands.h"
#include "agent/commands/run_job.h"
#include "agent/definition.h"
#include "agent/job_runner.h"

#include <CLI/CLI.hpp>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>

namespace {

json_spirit::Object read_definition(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file)
    throw Command_Error("the job definition '" + path + "' cannot be read: " + std::strerror(errno));
  std::ostringstream text;
  text << file.rdbuf();
  json_spirit::Value value;
  std::string error;
  if (!json_spirit::read(text.str(), value, &error))
    throw Command_Error("the job definition '" + path + "' is no JSON: " + error);
  if (value.type() != json_spirit::obj_type)
    throw Command_Error("the job definition '" + path + "' is no JSON object");
  return value.get_obj();
}

} // namespace

void add_run_command(CLI::App& app, Context& context) {
  auto path = std::make_shared<std::string>();
  CLI::App* command = app.add_subcommand("run", "Run a job definition");
  command->add_option("definition", *path, "File with the definition")->required()->type_name("DEFINITION.json");
  command->callback([&context, path] {
    const json_spirit::Object definition = read_definition(*path);
    run_job(context, definition);
  });
}
