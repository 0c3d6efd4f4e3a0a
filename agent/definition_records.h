#pragma once

#include "agent/module_loader.h"
#include "sdk/job/job_definition.h"

#include <string>

/// Reads the members "source" and "options" of a definition as they stand in its text: the module's parsers get every
/// event in the order of the text, numbers as their digits and doubled keys twice. `text` is the whole definition, one
/// JSON object; of a doubled "source" or "options" the last one counts. One that is absent is an empty object, which
/// the parser may refuse.
///
/// Before the parser sees a value, its JSON type is checked against what the member wants (doc/definition.md). A
/// rehearsal's source without "seq" gets one: it finds its set itself.
///
/// False with a message that names the member and where it stands; `source` and `options` are untouched then.
bool read_definition_records(const std::string& text, Job_Definition_Type type, bool rehearsal, Module& module,
                             Job_Source_var& source, Job_Options_var& options, std::string& error);
