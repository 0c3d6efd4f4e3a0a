#pragma once

#include <ace/Log_Msg.h>

/// Reports a broken invariant: `name` is the text of the offending variable or member. The caller then fails the
/// operation; nothing is thrown and nothing ends.
#define LOG_UNEXPECTED_NULL(name)                                                                                      \
  ACE_ERROR((LM_EMERGENCY, ACE_TEXT("Unexpected error in %N:%l, " name " is NULL:\n%?\n")))

/// Returns `result` from the calling function, with the report above, when `pointer` is null. `...` is the result and
/// may be left out in a function without one.
#define CHECK_NULL_RETURN(pointer, ...)                                                                                \
  do {                                                                                                                 \
    if (!(pointer)) {                                                                                                  \
      LOG_UNEXPECTED_NULL(#pointer);                                                                                   \
      return __VA_ARGS__;                                                                                              \
    }                                                                                                                  \
  } while (false)

/// True when lines of priority LM_DEBUG are written at all. Lines per object are made only then.
inline bool is_debug_enabled() {
  return ACE_LOG_MSG->log_priority_enabled(LM_DEBUG) != 0;
}
