#pragma once

#include "agent/context.h"

#include <cstdint>
#include <functional>

namespace CLI {
class App;
}

/// Reads a job definition from a file. Throws Command_Error when that is no JSON object.
json_spirit::Object read_definition_file(const std::string& path);

/// Builds the job of a definition, runs it in the foreground, records its activity, prints its account and leaves the
/// exit code in the context. `after`, when given, is run after the job and may add to its outcome. Throws Command_Error
/// for a definition that makes no sense.
Outcome run_job(Context& context, const json_spirit::Object& definition,
                const std::function<void(Outcome&)>& after = nullptr);

/// The option for the "rate_limit" of a run's definition: bytes per second, also as 500K, 20M or 20Mi.
void add_limit_option(CLI::App& command, std::uint64_t& limit);
