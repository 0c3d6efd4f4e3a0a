#pragma once

#include "sdk/json/json_spirit.h"

#include <string>
#include <vector>

/// JSON types that a member of a definition may have, to be combined.
enum Member_Kind : unsigned {
  MEMBER_TEXT = 1,
  MEMBER_NUMBER = 2,
  MEMBER_FLAG = 4,
  MEMBER_NULL = 8,
  MEMBER_OBJECT = 16,
  MEMBER_LIST = 32
};

/// A member of what the module's parsers read. The items of a list are named with "[]" after its name: "entries[].dir".
struct Definition_Member {
  const char* path;
  unsigned kinds; ///< Member_Kind
};
typedef std::vector<Definition_Member> Definition_Members;

/// All members of "source" and of "options", of a backup or a restore, in the order in which messages list them. The
/// one place that knows them: whoever checks names or types looks here.
const Definition_Members& source_members(bool restore);
const Definition_Members& options_members(bool restore);

/// Whether all members of a job definition, and of the objects inside it, are ones that somebody knows. The module's
/// parsers pass over what they do not know, as their format has it; of what an operator wrote that is a slip of the
/// pen, which would carry out another job than was meant. False with the path of the first one ("options.chanels") and
/// the names that there are. Says nothing about the members' values. Pure.
bool has_known_members(const json_spirit::Object& definition, std::string& error);
