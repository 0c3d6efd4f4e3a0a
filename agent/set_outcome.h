#pragma once

#include "platform/store/records.h"
#include "sdk/json/json_spirit.h"

#include <optional>
#include <string>

/// What a set lacks, as Set_Record::missing says it: "whole", "1 object missing", "5 objects missing", or "not known
/// whether whole".
std::string set_outcome_text(const std::optional<unsigned long long>& missing);

/// Adds "missing" (a number) and "whole" (true or false); both null where it is not known.
void add_set_outcome(const std::optional<unsigned long long>& missing, json_spirit::Object& json);

/// What whoever restores from the set is told first; empty for a set that is known to be whole.
std::string incomplete_set_warning(const Set& set);
/// Says it on standard error.
void warn_of_incomplete_set(const Set& set);
