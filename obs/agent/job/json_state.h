#pragma once

#include <ace/Basic_Types.h>

#include <cstddef>
#include <cstring>

/// One open container of a job definition while it is being read.
struct JSON_State {
  bool obj;         ///< an object; false for an array
  ACE_UINT64 key;   ///< bit of the key read last; 0 for an unknown one and in arrays
  ACE_UINT64 masks; ///< bits of all keys whose values were accepted
};

/// A key that a parser knows. A table ends with an entry of bit 0.
struct JSON_Key {
  const char* text;
  size_t length;
  ACE_UINT64 bit;
};

/// Why a parser refused an event.
enum JSON_Parse_Error {
  JSON_ERROR_NOT_OPEN = 3,    ///< a key or an end with no container open
  JSON_ERROR_LACK_OF_KEY = 7, ///< a required key is missing
  JSON_ERROR_WRONG_VALUE = 9  ///< a value of the wrong kind or at the wrong level
};

/// The bit of a key by exact bytes; 0 when the table does not know it.
inline ACE_UINT64 find_json_key(const JSON_Key* table, const char* text, size_t length) {
  for (; table->bit != 0; ++table)
    if (table->length == length && std::memcmp(table->text, text, length) == 0)
      return table->bit;
  return 0;
}

/// Logs each key of `required` that is not in `masks`, from the lowest bit up. False when there is one.
bool check_required_json_keys(const JSON_Key* table, ACE_UINT64 required, ACE_UINT64 masks);
