#pragma once

#include "platform/pool/set_record.h"

#include <string>

class Pool;

/// A record names up to 1000 problems of its run.
constexpr size_t MAX_RECORD_TEXT = 64u << 20;

/// What a record's file says beside its members.
struct Record_Text {
  std::string hash;    ///< record_hash of the file
  std::string content; ///< record_hash of all members but the check and `sealed`, which says it too; empty without that
};

/// What write_set_record writes.
std::string set_record_text(const Set_Record& record);
/// What `Record_Text::content` will be of a record that is written as it is now.
std::string record_content(const Set_Record& record);
/// read_set_record, or the same of a partial set's where `partial`, with what its file says.
bool read_set_record(const std::string& folder, Set_Record& record, std::string& error, bool* missing,
                     Record_Text& text, bool partial = false);

/// Opens the names in the record of an encrypted set, and compares all of it with what was sealed there under the set's
/// key. True as well where nothing is to be compared: the pool is not encrypted, its key is not known, or the record
/// is of an earlier version. False with the reason: the record was not written by who had the key.
bool open_whole_record(const Pool& pool, const Record_Text& text, Set_Record& record, std::string& error);
