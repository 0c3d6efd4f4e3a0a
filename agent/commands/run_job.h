#pragma once

#include "agent/context.h"

/// Builds the job of a definition, runs it in the foreground, records its activity, prints its account and leaves the
/// exit code in the context. Throws Command_Error for a definition that makes no sense.
Outcome run_job(Context& context, const json_spirit::Object& definition);
