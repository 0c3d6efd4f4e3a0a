#pragma once

#include "platform/s3/endpoint_settings.h"
#include "platform/s3/reachability.h"
#include "sdk/s3/s3_types.h"

#include <chrono>
#include <string>
#include <vector>

namespace s3 {

/// One thing that was looked at.
struct Check {
  enum State {
    PASSED,
    NOTED,  ///< not as it might be, but the client copes
    FAILED, ///< work with the account will fail
    SKIPPED ///< could not be looked at; `found` says why
  };
  /// "name", "connect", "tls", "http", "clock", "credentials", "signature", "addressing", "region", "listing",
  /// "paging", "encoding", "range", "if-match".
  std::string name;
  State state = SKIPPED;
  std::string fault; ///< "tls.expired"; empty where nothing is wrong
  std::string tried;
  std::string found;
  std::string advice; ///< what to do; empty where nothing is to be done
};

/// What became of a look at an account. Where the settings leave a choice, what was found to work; empty where it was
/// not found out.
struct Diagnosis {
  std::vector<Check> checks;
  std::string addressing;   ///< "path", "virtual"
  std::string list_version; ///< "1", "2"
  std::string url_encoding; ///< "on", "off"

  /// No check failed.
  bool good() const;
  /// The first check that failed; null where none did.
  const Check* failure() const;
  /// Whoever listens there does not talk as a service does: nothing else needs to be asked.
  bool unreachable() const;
};

/// "passed", "noted", "failed", "skipped".
const char* text_of(Check::State state);
/// What to do about a fault; empty for an unknown one.
const char* advice_for(const std::string& fault);

struct Diagnosis_Options {
  S3_Service_Options service;
  Endpoint_Settings settings;
  std::vector<std::string> buckets;      ///< those to look at, the first one closely; none: what the account lists
  Resolver resolver;                     ///< none: the system's
  std::chrono::milliseconds limit{4500}; ///< for all of it
};

/// Looks at an account step by step, each on what was learned before, and changes nothing at the service. It ends
/// within the limit: what there was no time for is skipped. Any thread.
Diagnosis diagnose(const Diagnosis_Options& options);

} // namespace s3
