#pragma once

#include "sdk/json/json_spirit.h"

#include <ace/Refcounted_Auto_Ptr.h>
#include <ace/Thread_Mutex.h>

#include <atomic>
#include <ctime>
#include <string>
#include <vector>

struct yajl_gen_t;

enum Job_Definition_Type {
  JOB_DEFINITION_NONE = 0,
  JOB_DEFINITION_BACKUP = 1,
  JOB_DEFINITION_RESTORE = 2,
  JOB_DEFINITION_STANDBY = 3,
  JOB_DEFINITION_STORAGE = 4
};

enum Job_Definition_Subtype {
  JOB_DEFINITION_SUBTYPE_NONE = 0,
  JOB_DEFINITION_SUBTYPE_FULL = 1,
  JOB_DEFINITION_SUBTYPE_INCREMENTAL = 2,
  JOB_DEFINITION_SUBTYPE_CUMULATIVE = 3,
  JOB_DEFINITION_SUBTYPE_MERGE = 6,
  JOB_DEFINITION_SUBTYPE_ONDEMAND = 7,
  JOB_DEFINITION_SUBTYPE_DR_TEST = 17 ///< a restore that rehearses disaster recovery
};

enum Job_State {
  JOB_STATE_NONE = 0,
  JOB_STATE_IDLE = 1,
  JOB_STATE_STARTING = 2,
  JOB_STATE_RUNNING = 3,
  JOB_STATE_PAUSING = 4,
  JOB_STATE_PAUSED = 5,
  JOB_STATE_COMPLETING = 6,
  JOB_STATE_COMPLETED = 7,
  JOB_STATE_CANCELING = 8,
  JOB_STATE_CANCELED = 9,
  JOB_STATE_ERROR = 10,
  JOB_STATE_CREATED = 11,
  JOB_STATE_UPDATED = 12,
  JOB_STATE_DELETING = 13,
  JOB_STATE_DELETED = 14,
  JOB_STATE_COMPLETED_WITH_ERRORS = 15,
  JOB_STATE_DISPATCHING = 16,
  JOB_STATE_SKIPPED = 17,
  JOB_STATE_EXPIRED = 18,
  JOB_STATE_DISABLED = 19,
  JOB_STATE_ABORTING = 20,
  JOB_STATE_CREATING = 21,
  JOB_STATE_SYNCING = 22,
  JOB_STATE_SWITCHING = 23,
  JOB_STATE_ACTIVATING = 24,
  JOB_STATE_OPENING = 25
};

/// "full", "incremental", "cumulative", "merge", "ondemand", "dr_test"; an empty text for any other value.
const char* job_def_subtype_to_string(Job_Definition_Subtype type);
/// The value of one of these texts; JOB_DEFINITION_SUBTYPE_NONE for any other.
Job_Definition_Subtype job_def_subtype_from_string(const std::string& name);
/// "running", "completed_with_errors" and so on.
const char* job_state_to_string(Job_State state);

/// What a job is told with a request to start, stop, pause ... A null pointer stands for none.
typedef json_spirit::Object Job_Run_Options;

/// The running record of a job, which its work fills and any thread may read at any time. Every member that changes
/// while the job runs is atomic; there is no lock.
struct Job_Activity {
  unsigned char uid[16] = {}; ///< binary uuid of the job's definition
  std::string id;             ///< uuid of this activity as text; set before the job starts
  std::atomic<Job_State> state{JOB_STATE_CREATED};
  std::atomic<time_t> start_time{0}; ///< seconds since the epoch
  std::atomic<time_t> last_run_time{0};
  std::atomic<time_t> end_time{0};
  std::atomic<ACE_UINT64> size{0};     ///< bytes of the objects that were read or written
  std::atomic<ACE_UINT64> set_size{0}; ///< bytes that the set takes
  std::atomic<ACE_UINT64> objects{0};  ///< objects done so far
  std::atomic<ACE_UINT64> listed{0};   ///< objects listed so far
  std::atomic<ACE_UINT64> problems{0}; ///< objects and folders skipped or failed so far
};

/// What a job works on. Resources derive their own records from it.
class Job_Source {
public:
  virtual ~Job_Source();
  const std::string& id() const { return id_; }
  void id(const std::string& id) { id_ = id; }
  const std::string& name() const { return name_; }
  void name(const std::string& name) { name_ = name; }
  /// Writes the record as one JSON object, as its parser reads it; the base its id, and its name unless that is empty.
  /// Always 0.
  virtual int generate(yajl_gen_t* gen) const;

private:
  std::string id_;
  std::string name_;
};

/// How a job does it. Resources derive their own records from it.
class Job_Options {
public:
  virtual ~Job_Options();
  /// Writes the record as one JSON object, as its parser reads it; the base an empty one. Always 0.
  virtual int generate(yajl_gen_t* gen);
};

typedef ACE_Refcounted_Auto_Ptr<Job_Source, ACE_Thread_Mutex> Job_Source_var;
typedef ACE_Refcounted_Auto_Ptr<Job_Options, ACE_Thread_Mutex> Job_Options_var;

/// Where a job writes to.
class Job_Target {
public:
  Job_Target() = default;
  Job_Target(std::string id, std::string device_id, std::string location)
      : id_(std::move(id)), device_id_(std::move(device_id)), location_(std::move(location)) {}

  const std::string& id() const { return id_; }               ///< for a backup the pool's uuid
  const std::string& device_id() const { return device_id_; } ///< may be empty
  const std::string& location() const { return location_; }   ///< for a restore a location of its own; may be empty

private:
  std::string id_;
  std::string device_id_;
  std::string location_;
};

/// One way in which a definition is started.
class Job_Schedule {
public:
  explicit Job_Schedule(Job_Definition_Subtype type) : type_(type) {}
  Job_Definition_Subtype type() const { return type_; }

private:
  Job_Definition_Subtype type_;
};
