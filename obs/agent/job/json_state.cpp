#include "obs/agent/job/json_state.h"

#include <ace/Log_Msg.h>

bool check_required_json_keys(const JSON_Key* table, ACE_UINT64 required, ACE_UINT64 masks) {
  const ACE_UINT64 missing = required & ~masks;
  for (ACE_UINT64 bit = 1; bit != 0 && bit <= missing; bit <<= 1) {
    if (!(missing & bit))
      continue;
    const JSON_Key* key = table;
    while (key->bit != 0 && key->bit != bit)
      ++key;
    ACE_ERROR((LM_ERROR, ACE_TEXT("Failed to parse job definition source, lack of '%s'.\n"), key->text));
  }
  return missing == 0;
}
