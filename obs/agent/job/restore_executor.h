#pragma once

#include "obs/agent/job/restore_job_options.h"
#include "obs/agent/job/restore_job_source.h"
#include "obs/agent/job_frame/job_executor_t.h"
#include "sdk/file_backup/file_backup.h"
#include "sdk/job/action_options.h"
#include "sdk/mtf/restore_callback.h"

#include <string>

class MTF_Restore;

/// Runs one restore into object storage: finds the set (for a rehearsal of disaster recovery the one that is due),
/// waits for a merge in the pool, also when it is cancelled meanwhile, connects to the account and runs the engine.
///
/// Made for one run, on the job's thread.
class OBS_Restore_Executor : public Job_Executor_T<OBS_Restore_Job_Source, OBS_Restore_Job_Options, Job_Event_Handler> {
public:
  explicit OBS_Restore_Executor(Job& job);
  ~OBS_Restore_Executor() override;

protected:
  bool execute_i(const Action_Options* params) override;
  /// Nothing: the engine runs the pre-action.
  bool execute_pre_action() override;
  /// Runs the post-action where the engine, which does it otherwise, was never started.
  bool execute_post_action() override;

private:
  /// The set to restore.
  struct Set {
    std::string incarnation;
    unsigned channels = 0; ///< of the backup
    std::string uri_prefix;
  };

  bool is_dr_test() const { return def_->subtype() == JOB_DEFINITION_SUBTYPE_DR_TEST; }
  bool find_dr_test_set(file_backup::File_DR_Test_Context& context, Set& set);
  bool find_set(Set& set);
  bool wait_for_pool();
  bool run(const Set& set, const file_backup::File_DR_Test_Context& context);
  bool connect(const json_spirit::Object& entry);
  MTF::IRestore_Callback_Factory_var make_factory(const json_spirit::Object& entry);
  void configure(MTF_Restore& engine, const MTF::IRestore_Callback_Factory_var& factory, const Set& set);
  bool run_engine(MTF_Restore& engine, MTF::Event_Handler& handler);
  void alert_no_pool();

  std::string pool_uuid_;
  std::string backup_host_id_;
  std::string backup_minor_resource_id_;
  ACE_INT64 backup_seq_;
  Action_Handler_var action_handler_;
  bool called_mtf_restore_; ///< the engine was started
};
