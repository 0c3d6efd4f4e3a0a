#pragma once

#include "agent/context.h"

#include <cstdint>
#include <functional>

namespace CLI {
class App;
}

/// A job definition as it was written, and what is in it.
struct Definition_File {
  json_spirit::Object members;
  std::string text; ///< what the module's parsers read "source" and "options" from
};

/// Reads a job definition from a file. Throws Command_Error when that is no JSON object.
Definition_File read_definition_file(const std::string& path);

/// Builds the job of a definition, runs it in the foreground, records its activity, prints its account and leaves the
/// exit code in the context. A definition that has an "id" is kept in the agent's database, as its records write it.
/// `after`, when given, is run after the job and may add to its outcome. Throws Command_Error for a definition that
/// makes no sense.
Outcome run_job(Context& context, const Definition_File& definition,
                const std::function<void(Outcome&)>& after = nullptr);
/// The same for one that the program has made itself.
Outcome run_job(Context& context, const json_spirit::Object& definition,
                const std::function<void(Outcome&)>& after = nullptr);
/// Prints the definition as its records write it; nothing is run.
void print_definition(Context& context, const Definition_File& definition);

/// The option for the "service_timeout" of a run's definition.
void add_service_timeout_option(CLI::App& command, unsigned& seconds);
/// The option for the "rate_limit" of a run's definition: bytes per second, also as 500K, 20M or 20Mi.
void add_limit_option(CLI::App& command, std::uint64_t& limit);
