#include "agent/commands/run_job.h"

#include "agent/commands/browse_page.h"
#include "agent/definition.h"
#include "agent/job_runner.h"
#include "sdk/file_backup/file_backup.h"

#include <CLI/CLI.hpp>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <limits>
#include <set>
#include <sstream>

namespace {

/// Keeps the run in the agent's database. The run itself is over: a failure here is only worth a line.
void record_activity(Context& context, const std::string& id, const std::string& definition_id, const std::string& type,
                     time_t start, const Outcome& outcome) {
  Activity activity;
  activity.id = id;
  activity.definition_id = definition_id;
  activity.type = type;
  activity.state = outcome.name();
  activity.start = start;
  activity.end = std::time(nullptr);
  activity.outcome = json_spirit::write(outcome.to_json());
  std::string error;
  if (!context.store().put_activity(activity, error))
    ACE_ERROR((LM_WARNING, ACE_TEXT("The run cannot be recorded: %C\n"), error.c_str()));
}

/// What the service says to somebody who asks again, once a run could not even begin: host, bucket and cause, which the
/// job's own message lacks. Empty when all of it answers. The buckets of the selection, else the account's, else the
/// list of buckets.
std::string cause_of(Context& context, const json_spirit::Object& definition) {
  Account account;
  Selection selection;
  bool found = false;
  std::string error;
  if (!context.store().find_account(json_spirit::optional_str(definition, "host_id"), account, found, error) || !found)
    return std::string();
  const json_spirit::Value* const source = json_spirit::find(definition, "source");
  const std::string id = source != nullptr && source->type() == json_spirit::obj_type
                             ? json_spirit::optional_str(source->get_obj(), "minor_resource_id")
                             : std::string();
  std::set<std::string> places(account.buckets.begin(), account.buckets.end());
  if (!id.empty() && context.store().find_selection(id, selection, found, error) && found)
    for (const std::string& path : selection.paths)
      places.insert(path.substr(1, path.find('/', 1) - 1));
  if (places.empty())
    places.insert(std::string());
  for (const std::string& bucket : places) {
    try {
      browse_page(context, account.uuid, bucket.empty() ? bucket : "/" + bucket + "/", 1, std::string());
    } catch (const Command_Error& refused) {
      return account.scheme + "://" + account.endpoint + (bucket.empty() ? "" : ", bucket '" + bucket + "'") + ": " +
             refused.what();
    }
  }
  return std::string();
}

/// The set that a rehearsal's next run need not restore any more; empty for any other job.
std::string rehearsed_set(const Job_Definition& definition) {
  if (definition.type() != JOB_DEFINITION_RESTORE || definition.subtype() != JOB_DEFINITION_SUBTYPE_DR_TEST)
    return std::string();
  file_backup::File_DR_Test_Context context;
  file_backup::load_dr_test_context(definition.id(), context);
  return context.uuid;
}

/// The set that a backup made has the uuid of its activity; it is there when its record is.
std::string set_of(Context& context, const std::string& activity_id) {
  Set set;
  bool found = false;
  std::string error;
  return context.store().find_set(activity_id, set, found, error) && found ? activity_id : std::string();
}

Job_Definition_var definition_of(Context& context, const Definition_File& file) {
  std::string error;
  const Job_Definition_var definition = make_job_definition(file.members, file.text, context.module(), error);
  if (definition.null())
    throw Command_Error(error);
  return definition;
}

/// Keeps the definition in the agent's database, by its id: one with an id made up for this run would stay there as
/// often as it runs. The run goes on without: a failure is only worth a line.
void keep_definition(Context& context, Job_Definition& definition) {
  const Definition kept{definition.id(), definition.uid(), definition.name(), write_job_definition(definition, false)};
  std::string error;
  if (!context.store().put_definition(kept, error))
    ACE_ERROR((LM_WARNING, ACE_TEXT("The definition cannot be kept: %C\n"), error.c_str()));
}

} // namespace

Definition_File read_definition_file(const std::string& path) {
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
  return {value.get_obj(), text.str()};
}

void print_definition(Context& context, const Definition_File& file) {
  const Job_Definition_var definition = definition_of(context, file);
  // As a text in either form of output: a parsed one would put the members in another order.
  const std::string text = write_job_definition(*definition, true) + "\n";
  std::fwrite(text.data(), 1, text.size(), stdout);
}

Outcome run_job(Context& context, const json_spirit::Object& json, const std::function<void(Outcome&)>& after) {
  return run_job(context, Definition_File{json, json_spirit::write(json_spirit::Value(json))}, after);
}

Outcome run_job(Context& context, const Definition_File& file, const std::function<void(Outcome&)>& after) {
  const Job_Definition_var definition = definition_of(context, file);
  if (!json_spirit::optional_str(file.members, "id").empty())
    keep_definition(context, *definition);

  Job_Runner runner(context.module(), context.log(), !context.json);
  runner.service_timeout(service_timeout(*definition));
  if (definition->type() == JOB_DEFINITION_BACKUP)
    context.lock_state();
  const time_t start = std::time(nullptr);
  const std::string rehearsed = rehearsed_set(*definition);
  std::string activity_id;
  Outcome outcome = runner.run(definition, &activity_id);
  if (definition->type() == JOB_DEFINITION_BACKUP)
    outcome.set = set_of(context, activity_id);
  else if (const std::string now = rehearsed_set(*definition); now != rehearsed)
    outcome.set = now;
  if (outcome.code == EXIT_FAILED && outcome.figures.empty())
    if (const std::string cause = cause_of(context, file.members); !cause.empty())
      outcome.failure += " " + cause;
  if (after)
    after(outcome);
  record_activity(context, activity_id, definition->id(),
                  definition->type() == JOB_DEFINITION_BACKUP ? "backup" : "restore", start, outcome);

  // A run that failed has an account too once it got so far: what it did to which object must be told.
  if (context.json)
    context.print(outcome.to_json(), std::string());
  else if (outcome.code != EXIT_FAILED || !outcome.figures.empty())
    context.print(json_spirit::Value(), outcome.to_text());
  if (outcome.code == EXIT_FAILED)
    print_error(outcome.failure);
  context.exit_code = outcome.code;
  return outcome;
}

void add_service_timeout_option(CLI::App& command, unsigned& seconds) {
  command
      .add_option("--service-timeout", seconds,
                  "Seconds after which a service that answers nothing at all ends the run")
      ->check(CLI::Range(1, 86400))
      ->capture_default_str()
      ->type_name("SECONDS");
}

void add_limit_option(CLI::App& command, std::uint64_t& limit) {
  command
      .add_option("--limit", limit,
                  "Bytes per second that the run sends and receives, all channels and readers together, as 500K or 20M")
      ->transform(CLI::AsSizeValue(true))
      ->transform(CLI::Validator(
          [](std::string& text) {
            const bool rate = !text.empty() && text.front() >= '0' && text.front() <= '9';
            return rate ? std::string() : "'" + text + "' is no rate: give bytes per second, as 500K or 20M";
          },
          std::string()))
      ->check(CLI::Range(std::uint64_t(0), static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())))
      ->type_name("RATE");
}
