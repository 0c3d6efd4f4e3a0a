#include "agent/commands/run_job.h"

#include "agent/definition.h"
#include "agent/job_runner.h"

#include <cstdio>
#include <ctime>

namespace {

/// Keeps the run in the agent's database. The run itself is over: a failure here is only worth a line.
void record_activity(Context& context, const std::string& id, const std::string& definition_id,
                     const std::string& type, time_t start, const Outcome& outcome) {
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

/// The set that a backup made has the uuid of its activity; it is there when its record is.
std::string set_of(Context& context, const std::string& activity_id) {
  Set set;
  bool found = false;
  std::string error;
  return context.store().find_set(activity_id, set, found, error) && found ? activity_id : std::string();
}

} // namespace

Outcome run_job(Context& context, const json_spirit::Object& json) {
  std::string error;
  const Job_Definition_var definition = make_job_definition(json, context.module(), error);
  if (definition.null())
    throw Command_Error(error);

  const time_t start = std::time(nullptr);
  std::string activity_id;
  Outcome outcome = Job_Runner(context.module(), context.log(), !context.json).run(definition, &activity_id);
  if (definition->type() == JOB_DEFINITION_BACKUP)
    outcome.set = set_of(context, activity_id);
  record_activity(context, activity_id, definition->id(),
                  definition->type() == JOB_DEFINITION_BACKUP ? "backup" : "restore", start, outcome);

  if (context.json)
    context.print(outcome.to_json(), std::string());
  else if (outcome.code != EXIT_FAILED)
    context.print(json_spirit::Value(), outcome.to_text());
  if (outcome.code == EXIT_FAILED)
    std::fprintf(stderr, "obs-agent: %s\n", outcome.failure.c_str());
  context.exit_code = outcome.code;
  return outcome;
}
