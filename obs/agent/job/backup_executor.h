#pragma once

#include "obs/agent/job/backup_job_options.h"
#include "obs/agent/job/backup_job_source.h"
#include "obs/agent/job_frame/job_executor_t.h"
#include "sdk/file_backup/file_backup.h"
#include "sdk/mtf/backup_callback.h"

#include <memory>
#include <string>
#include <unordered_set>
#include <vector>

class MTF_Backup;

/// Runs one backup of object storage: waits for its turn on the source and for a merge in the pool, which a cancelled
/// job waits for as well, decides between full and incremental, connects to the account, runs the engine and commits
/// the catalog.
///
/// Made for one run, on the job's thread.
class OBS_Backup_Executor : public Job_Executor_T<OBS_Backup_Job_Source, OBS_Backup_Job_Options, Job_Event_Handler> {
public:
  static constexpr int RETRY_INTERVAL = 30; ///< seconds between looks while the pool is merging

  explicit OBS_Backup_Executor(Job& job);
  ~OBS_Backup_Executor() override;

protected:
  bool execute_i(const Job_Run_Options* params) override;
  /// Nothing: the engine runs the pre-action.
  bool execute_pre_action() override;
  /// Runs the post-action where the engine, which does it otherwise, was never started.
  bool execute_post_action() override;

private:
  /// What is known about the newest set of the source; empty for none.
  struct Last_Instance {
    bool exists = false;
    ACE_INT64 seq = 0;
    bool online = false;
    std::string incarnation;
    std::string uuid;
    ACE_INT64 channels = 0;
  };
  struct Plan {
    unsigned seq = 0; ///< of the last set in the chain; 0 for a full backup
    unsigned channels = 1;
  };

  bool get_pool_info();
  void wait_for_merge();
  bool get_last_instance(Last_Instance& last);
  void decide_kind(const Last_Instance& last, Plan& plan);
  bool get_entries(std::vector<std::string>& entries, std::unordered_set<std::string>& buckets);
  bool connect(const json_spirit::Object& entry, std::unordered_set<std::string>& buckets);
  /// Null, after a log line, when the account's record lacks something.
  MTF::IBackup_Callback_Factory_var make_factory(const json_spirit::Object& entry);
  bool run(const Last_Instance& last, const Plan& plan, const std::vector<std::string>& entries,
           const json_spirit::Object& entry);
  bool get_metadata(file_backup::File_Metadata& metadata);
  bool make_filter();
  void configure(MTF_Backup& engine, const MTF::IBackup_Callback_Factory_var& factory, const Plan& plan);
  bool set_kind(MTF_Backup& engine);
  bool run_engine(MTF_Backup& engine, MTF::Event_Handler& handler);
  bool commit(const file_backup::File_Metadata& metadata, const Last_Instance& last);

  std::string host_id_; ///< the account's uuid
  std::string minor_resource_id_;
  std::string minor_resource_name_;
  std::string location_;  ///< the pool's URI
  std::string target_id_; ///< the pool's uuid
  std::string target_device_id_;
  std::string pool_type_; ///< scheme of `location_`
  Job_Definition_Subtype type_;
  bool multidevice_;
  std::string encryption_;
  Action_Handler_var action_handler_;
  std::unique_ptr<MTF::IFilter> filter_;
  std::vector<std::string> exclusions_;
  std::vector<std::string> inclusions_;
  bool called_mtf_backup_; ///< the engine was started
  std::string uri_prefix_; ///< of the set inside the pool
};
