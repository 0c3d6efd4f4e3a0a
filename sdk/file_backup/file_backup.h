#pragma once

#include "sdk/job/compression.h"
#include "sdk/job/job.h"
#include "sdk/mtf/event_handler.h"
#include "sdk/mtf/filter.h"
#include "sdk/mtf/metadata.h"

#include <list>
#include <memory>
#include <string>
#include <vector>

/// What is known about a pool.
struct Pool_Info {
  std::string uuid;
  std::string name;
  std::string location; ///< URI, as "file:///var/backup"
  bool multidevice = false;
  Encryption_Algorithm encryption = ENCRYPTION_NONE;
};

/// Looks a pool up. Only `pool_uuid` (or, when that is empty, `device_uuid`) selects; the other arguments narrow the
/// answer on hosts that have several devices per pool and have no effect here. False, after a log line, when there is
/// no such pool.
bool get_pool_info(const std::string& pool_uuid, const std::string& device_uuid, Pool_Info& info, bool refresh = false,
                   int timeout = 0, const void* credentials = nullptr, bool local = true, const void* session = nullptr,
                   const void* channel = nullptr, bool force = false);
/// The location of a pool as a URI; false, `url` untouched, when there is no such pool. `session`, `refresh` and
/// `channel` are accepted and have no effect here.
bool get_url_by_pool_uuid(const std::string& pool_uuid, const void* session, std::string& url, bool refresh,
                          const void* channel);
/// True for "mtf://" and "mtfs://".
bool is_mtf_uri(const std::string& url);

namespace file_backup {

/// What an engine found out about the set that it wrote.
class File_Metadata : public MTF::Metadata {
public:
  ~File_Metadata() override;
};

/// A set as the catalog knows it.
class Backup_Set {
public:
  virtual ~Backup_Set();
  std::string uuid;
  std::string incarnation;      ///< uuid of the full set that began the chain
  std::list<std::string> bases; ///< sets that this one was compared with
  unsigned seq = 0;             ///< its number in the chain
};

class File_Backup_Set : public Backup_Set {
public:
  ~File_Backup_Set() override;
  File_Metadata metadata;
};

// The functions here may be called from any thread. `max_seconds_retry`: seconds for which a pool or database that
// cannot be read is tried again; -1: until the job is cancelled.

/// True while a merge rewrites sets of that resource in the pool.
bool is_merging(const std::string& location, const std::string& pool_uuid, const std::string& minor_resource_id);

/// The newest set of a resource in a pool: "seq", "state", "incarnation", "uuid", "channels", "uri". An empty object
/// when there is none. False when the pool or the agent's database cannot be read within `max_seconds_retry`.
bool get_last_instance_info(const std::string& minor_resource_id, const std::string& pool_uuid,
                            json_spirit::Object& record, int max_seconds_retry);

/// What a resource selects: its paths, its rules, and its name. False, after a log line, when there is no such
/// resource.
bool get_entries_from_backupd(const std::string& minor_resource_id, std::vector<std::string>& entries,
                              std::vector<std::string>& exclusions, std::vector<std::string>& inclusions,
                              std::string& minor_resource_name);

/// A filter of glob rules over whole paths: `*` and `?` within a component, `**` across, a trailing "/" for folders,
/// a rule without a leading "/" matches at any depth. A path is left out when an exclusion matches and no inclusion
/// does; with inclusions only, what matches none is left out, but folders that could hold a match are walked. False,
/// after a log line that names the rule, for a rule that makes no sense. No rules: a null filter and true.
bool make_filter(const std::vector<std::string>& exclusions, const std::vector<std::string>& inclusions,
                 std::unique_ptr<MTF::IFilter>& filter);

/// Fills `set` from what the engine left in `metadata`. 0, or non-zero when that is incomplete.
int build_file_catalog(const File_Metadata& metadata, File_Backup_Set& set);

/// The incarnation, channel count and URI prefix of the set with that number. Several may have it: the one is meant
/// that the calling thread's job names (Job_Definition::set_uuid), or a merged set that took that one's place. False,
/// after a log line, when there is none, when it is another one than the job names, and when several have the number
/// and the job names none.
bool get_incarnation(const std::string& pool_uuid, const std::string& minor_resource_id, ACE_UINT32 seq,
                     std::string& incarnation, unsigned& channels, std::string& uri_prefix, int max_seconds_retry);

/// Where a rehearsal of disaster recovery stands.
struct File_DR_Test_Context {
  bool update = false; ///< there is a set that was not rehearsed yet
  int incarnation = 0; ///< for hosts that number their chains; 0 here, where `uri` tells the set
  int seq = 0;         ///< the set's number
  std::string minor_resource_id;
  std::string host_uuid; ///< account that was backed up
  int channels = 0;      ///< of the set
  std::string pool_uuid;
  std::string uuid;          ///< of the set
  std::string uri;           ///< the set's folder in the pool
  ACE_INT64 backup_time = 0; ///< seconds since the epoch
};
/// Fills `context` with what the last rehearsal of that definition left; with nothing when there was none.
void load_dr_test_context(const std::string& definition_id, File_DR_Test_Context& context);
/// Sets `update`, and with it the other members to the newest set of the resource in the pool (the context's own when
/// `pool_uuid` is null or empty), when that set is none that was rehearsed and none from before it. False when the pool
/// or the agent's database cannot be read within `max_seconds_retry`.
bool get_dr_test_seqs(const std::string& minor_resource_id, File_DR_Test_Context& context, int max_seconds_retry,
                      const std::string* pool_uuid);
/// Keeps it for the next rehearsal.
void save_dr_test_context(const std::string& definition_id, const File_DR_Test_Context& context);

/// The engine's event handler of a backup: keeps the activity's figures current, collects item errors (up to 1000,
/// all counted), publishes the account of the run as the job's result "outcome", and answers cancel and pause from
/// the activity's state.
class Backup_Event_Handler : public MTF::Event_Handler {
public:
  /// None is owned; all outlive it.
  Backup_Event_Handler(Job_Definition& def, Job_Activity& act, Job_Event_Handler& handler, Job& job);
  ~Backup_Event_Handler() override;
  int notify_event(unsigned code, const json_spirit::Object& options) override;
  int handle_progress(int code, unsigned long long a, unsigned long long b, unsigned long long c) override;
  bool canceling() override;
  bool pausing() override;

private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

/// The same for a restore.
class Restore_Event_Handler : public MTF::Event_Handler {
public:
  Restore_Event_Handler(Job_Definition& def, Job_Activity& act, Job_Event_Handler& handler, Job& job);
  ~Restore_Event_Handler() override;
  int notify_event(unsigned code, const json_spirit::Object& options) override;
  int handle_progress(int code, unsigned long long a, unsigned long long b, unsigned long long c) override;
  bool canceling() override;
  bool pausing() override;

private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

} // namespace file_backup

/// Makes sets appear.
class Catalog_Operator {
public:
  /// Bounds for hosts that commit over a network; accepted, no effect here.
  Catalog_Operator(int timeout, int retries);
  /// Writes the set's record into the pool, which is the moment from which the set exists, and then into the agent's
  /// database. `online`: the set's data can be reached now. False, after a log line, when either fails; a set that is
  /// in the pool but not in the database is taken up by the next run.
  bool commit(const file_backup::Backup_Set& set, bool online);
};
