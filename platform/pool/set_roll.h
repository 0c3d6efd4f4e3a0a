#pragma once

#include "platform/crypto/master_key.h"

#include <map>
#include <string>

/// What a pool's roll says of one set. The text of a record is told by its SHA-256 in hexadecimal digits.
struct Roll_Entry {
  std::string uri;    ///< "HOST/RESOURCE/ACTIVITY", where its record was written
  unsigned seq = 0;   ///< the set's number
  std::string record; ///< of the record that is there; empty: the set was to come
  std::string next;   ///< of the one that was to be written when the roll was; empty: none
  bool going = false; ///< the set was to be removed
};

/// The roll of a pool's sets, `sets.json` in the pool's folder: which sets there are, and their records. It is written
/// before the first and after the last step of whatever changes that, so that of an entry which says that its set was
/// to come, change or go either is true. A value.
class Set_Roll {
public:
  static constexpr const char* FILE_NAME = "sets.json";
  static constexpr unsigned FORMAT = 1;

  /// Reads what `text` wrote. False with the reason: it is damaged, newer, another pool's or, under `key`, not the
  /// pool's own. Without the key of an encrypted pool (null) nothing says who wrote it. A plain pool's has no key.
  static bool parse(const std::string& text, const std::string& pool_uuid, bool encrypted, const Secret_Key* key,
                    Set_Roll& roll, std::string& error);
  /// What the file holds, with its check: in an encrypted pool one that only who has the key can make.
  std::string text(const std::string& pool_uuid, const Secret_Key* key) const;

  /// How often it was written.
  unsigned long long generation = 0;
  /// What was wrong with the roll before this one: not empty until an operator says that the pool is to be trusted.
  std::string doubt;
  std::map<std::string, Roll_Entry> sets; ///< by uuid
};

/// The SHA-256 of a text in hexadecimal digits, as a roll tells records by.
std::string record_hash(const std::string& text);
