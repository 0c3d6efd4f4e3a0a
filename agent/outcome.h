#pragma once

#include "agent/lines.h"
#include "sdk/json/json_spirit.h"

#include <string>

/// How a command ended; the process ends with this number.
enum Exit_Code {
  EXIT_COMPLETED = 0,
  EXIT_FAILED = 1,
  EXIT_USAGE = 2,
  EXIT_COMPLETED_WITH_ERRORS = 3,
  EXIT_CANCELLED = 130
};

/// The account of one run, as it is printed and as it stands in JSON.
struct Outcome {
  Exit_Code code = EXIT_FAILED;
  std::string failure;         ///< why it failed, one line; empty otherwise
  std::string set;             ///< uuid of the set; empty when there is none
  json_spirit::Object figures; ///< as the engine gave them; may lack members

  /// "completed", "completed with errors", "cancelled" or "failed".
  const char* name() const;
  /// {"outcome","set","listed", ... ,"errors"}: every member is there, zero where the run never got so far. A failure
  /// is in "message".
  json_spirit::Object to_json() const;
  /// Several lines for people.
  Lines to_text() const;
  unsigned long long figure(const char* name) const;
};

/// "1.5 GiB", "812 B".
std::string human_bytes(unsigned long long bytes);
