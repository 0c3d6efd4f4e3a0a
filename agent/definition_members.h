#pragma once

#include "sdk/json/json_spirit.h"

#include <string>

/// Whether all members of a job definition, and of the objects inside it, are ones that somebody knows. The module's
/// parsers pass over what they do not know, as their format has it; of what an operator wrote that is a slip of the
/// pen, which would carry out another job than was meant. False with the path of the first one ("options.chanels") and
/// the names that there are. Says nothing about the members' values. Pure.
bool has_known_members(const json_spirit::Object& definition, std::string& error);
