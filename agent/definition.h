#pragma once

#include "agent/module_loader.h"

#include <string>

/// A job definition in JSON:
///
///     { "type": "backup" | "restore", "subtype": "full" | "incremental" | ...,
///       "id", "uid", "name", "host_id": account uuid,
///       "target": { "id": pool uuid, "device_id", "location" },
///       "precondition", "pre_action", "post_action": scripts, "redirect_pre_action_stdout",
///       "redirect_post_action_stdin", "ignore_pre_action_failure", "ignore_post_action_failure",
///       "run_post_action_always": booleans,
///       "max_seconds_retry", "readers", "rate_limit": numbers,
///       "archived": "skip" | "fail" | "request", "allow_empty": boolean, "max_deleted": "N%" | "N",
///       "source": { ... }, "options": { ... } as the module's parsers read them }
///
/// The "catalog_id" of a restore's source is the uuid of the set: numbers of sets may repeat.
/// Builds the definition with the module's parsers. Null with a message that names the member that is wrong.
Job_Definition_var make_job_definition(const json_spirit::Object& json, Module& module, std::string& error);
