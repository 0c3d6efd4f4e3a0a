#pragma once

#include "sdk/json/json_spirit.h"

#include <ace/Basic_Types.h>

#include <ctime>

class Job;

/// Levels, facilities and modules that an Error_ID is made of.
enum Error_Level { LV_INFO = 3, LV_WARNING = 5, LV_ERROR = 7 };

/// Flag of identifiers (bit 44) that name one of the common codes below.
constexpr ACE_UINT64 MASK_FLAGS = 0x100000000000ull;

/// Codes that all resources share, for `write_job_alert` with a level.
enum Common_Code {
  COMMON_CODE_FAILED_TO_COMMIT_CATALOG = 45,
  COMMON_CODE_FAILED_TO_GET_POOL = 48,
  COMMON_CODE_FAILED_TO_GET_INCARNATION = 49
};

/// Identifies a message of the agent: bits 0-19 code, 20-27 message type, 28-35 module, 36-43 facility, bit 44 flags,
/// 60-63 level.
class Error_ID {
public:
  Error_ID() = default;
  explicit Error_ID(ACE_UINT64 value) : value_(value) {}
  ACE_UINT64 value() const { return value_; }
  unsigned code() const { return static_cast<unsigned>(value_ & 0xFFFFF); }
  unsigned level() const { return static_cast<unsigned>(value_ >> 60); }
  bool operator==(const Error_ID& other) const { return value_ == other.value_; }

private:
  ACE_UINT64 value_ = 0;
};

/// One failure of a job, as it reaches the operator.
struct Error {
  Error() = default;
  Error(Error_ID id, time_t time, json_spirit::Array params = {}) : id(id), time(time), params(std::move(params)) {}

  Error_ID id;
  time_t time = 0;           ///< seconds since the epoch
  json_spirit::Array params; ///< what fills the message's places, in order
};

/// Keeps the last error of each job.
class Error_Manager {
public:
  static Error_Manager* instance();
  /// Keeps `error` as the last one of the job that the calling thread works for (see Job::set_job_thread); a thread
  /// without a job keeps it for itself. Any thread.
  void set_last_error(const Error& error);
  /// The last error set on the calling thread's job, or by a thread without one; false when there is none.
  bool last_error(Error& error) const;
  /// Forgets it.
  void clear();
};

/// Adds an alert to the job's list, which its outcome shows. `level` with `code` and `flags` name a common message,
/// `id` one of the resource's own; `count` is how often it happened. Any thread.
void write_job_alert(Job& job, int level, int code, ACE_UINT64 flags, const json_spirit::Array& params, int count);
void write_job_alert(Job& job, Error_ID id, const json_spirit::Array& params, int count);

/// The text that an operator reads for an error or alert: the message of its id with the parameters in their places.
std::string error_text(const Error& error);
