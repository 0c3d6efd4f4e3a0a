#pragma once

#include "agent/module_loader.h"
#include "platform/mtf/deletion_guard.h"
#include "platform/s3/service_watch.h"

#include <string>

/// A job definition with what the program itself sees to while the job runs.
class Host_Definition : public Guarded_Definition {
public:
  Host_Definition(Settings settings, const Deletion_Limits& limits, unsigned service_timeout)
      : Guarded_Definition(std::move(settings), limits), service_timeout_(service_timeout) {}
  unsigned service_timeout() const { return service_timeout_; }

private:
  unsigned service_timeout_;
};

/// Seconds after which a service that answers nothing at all ends the definition's run.
unsigned service_timeout(const Job_Definition& definition);

/// A job definition in JSON:
///
///     { "type": "backup" | "restore", "subtype": "full" | "incremental" | ...,
///       "id", "uid", "name", "host_id": account uuid,
///       "target": { "id": pool uuid, "device_id", "location" },
///       "precondition", "pre_action", "post_action": scripts, "redirect_pre_action_stdout",
///       "redirect_post_action_stdin", "ignore_pre_action_failure", "ignore_post_action_failure",
///       "run_post_action_always": booleans,
///       "max_seconds_retry", "readers", "rate_limit", "service_timeout": numbers, "only_different": boolean,
///       "archived": "skip" | "fail" | "request", "allow_empty": boolean, "max_deleted": "N%" | "N",
///       "source": { ... }, "options": { ... } as the module's parsers read them }
///
/// The "catalog_id" of a restore's source is the uuid of the set: numbers of sets may repeat.
/// Builds the definition with the module's parsers, which read "source" and "options" from `text`: the JSON object as
/// it was written, numbers, order and doubled keys included (definition_records.h). `json` is the same object for the
/// host's own members. Null with a message that names the member that is wrong.
Job_Definition_var make_job_definition(const json_spirit::Object& json, const std::string& text, Module& module,
                                       std::string& error);
/// The same for one that was never a text.
Job_Definition_var make_job_definition(const json_spirit::Object& json, Module& module, std::string& error);

/// The definition in JSON: the host's members that are set, then "source" and "options" as the module's records write
/// themselves. What it makes is read back as the same definition. `with_password`: also the protection password.
std::string write_job_definition(Job_Definition& definition, bool with_password);
