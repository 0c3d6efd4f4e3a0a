#include "obs/agent/job/restore_executor.h"

#include "obs/agent/job/merge_wait.h"
#include "obs/agent/job/obs_backup_util.h"
#include "obs/agent/job/obs_restore_callback.h"
#include "obs/agent/job_frame/object_creator_impl_t.h"
#include "obs/agent/path_converter/obs_existing_handler.h"
#include "obs/agent/util/utils.h"
#include "sdk/base/clock.h"
#include "sdk/error/error.h"
#include "sdk/mtf/mtf_restore.h"

#include <ace/OS_NS_stdio.h>

#include <cerrno>
#include <new>

namespace {

constexpr ACE_UINT64 AGENT_OBS_ERROR_FAILED_TO_PROBE_OBS = 0x70000031E0100001;
constexpr ACE_UINT64 AGENT_OBS_ERROR_NO_OBJECTS_RESTORED = 0x70000031E0200004;
constexpr ACE_UINT64 AGENT_OBS_WARNING_RESTORE_END_WITH_SKIPPED_OBJECTS = 0x50000031E0200005;
constexpr ACE_UINT64 NO_FLAGS = 0;
constexpr unsigned RETRY_INTERVAL = 30; // seconds between looks while the pool is merging

} // namespace

OBS_Restore_Executor::OBS_Restore_Executor(Job& job)
    : Job_Executor_T(job), backup_seq_(0), called_mtf_restore_(false) {}

OBS_Restore_Executor::~OBS_Restore_Executor() = default;

bool OBS_Restore_Executor::execute_pre_action() {
  return true;
}

bool OBS_Restore_Executor::execute_post_action() {
  if (called_mtf_restore_)
    return true;
  if (def_->run_post_action_always() && !def_->redirect_post_action_stdin() && act_->state != JOB_STATE_CANCELING)
    return Job_Executor_T::execute_post_action();
  return true;
}

bool OBS_Restore_Executor::execute_i(const Action_Options*) {
  CHECK_NULL_RETURN(src_, false);
  CHECK_NULL_RETURN(opts_, false);
  try {
    file_backup::File_DR_Test_Context context;
    Set set;
    if (is_dr_test()) {
      if (!find_dr_test_set(context, set))
        return false;
      if (!context.update)
        return true;
    } else if (!find_set(set)) {
      return false;
    }
    return wait_for_pool() && run(set, context);
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
    return false;
  }
}

bool OBS_Restore_Executor::find_dr_test_set(file_backup::File_DR_Test_Context& context, Set& set) {
  file_backup::load_dr_test_context(def_->id(), context);
  if (!file_backup::get_dr_test_seqs(src_->backup_minor_resource_id_, context, def_->max_seconds_retry(),
                                     &src_->pool_uuid_)) {
    ACE_ERROR((LM_ERROR, ACE_TEXT("Failed to get dr test sets by context.\n")));
    return false;
  }
  if (!context.update)
    return true;
  backup_host_id_ = src_->backup_host_id_;
  backup_minor_resource_id_ = src_->backup_minor_resource_id_;
  pool_uuid_ = context.pool_uuid;
  backup_seq_ = context.seq;
  set.incarnation = std::to_string(context.incarnation);
  set.channels = static_cast<unsigned>(context.channels);
  set.uri_prefix = context.uri;
  return true;
}

bool OBS_Restore_Executor::find_set(Set& set) {
  pool_uuid_ = src_->pool_uuid_;
  backup_minor_resource_id_ = src_->backup_minor_resource_id_;
  backup_seq_ = src_->seq_;
  backup_host_id_ = src_->backup_host_id_;
  if (file_backup::get_incarnation(pool_uuid_, backup_minor_resource_id_, static_cast<ACE_UINT32>(backup_seq_),
                                   set.incarnation, set.channels, set.uri_prefix, def_->max_seconds_retry()))
    return true;
  write_job_alert(job_, LV_ERROR, COMMON_CODE_FAILED_TO_GET_INCARNATION, NO_FLAGS, {}, 1);
  ACE_ERROR((LM_ERROR, ACE_TEXT("Failed to get incarnation to restore.\n")));
  return false;
}

void OBS_Restore_Executor::alert_no_pool() {
  write_job_alert(job_, LV_ERROR, COMMON_CODE_FAILED_TO_GET_POOL, MASK_FLAGS, {pool_uuid_}, 1);
}

bool OBS_Restore_Executor::wait_for_pool() {
  std::string url;
  if (!get_url_by_pool_uuid(pool_uuid_, nullptr, url, false, nullptr)) {
    alert_no_pool();
    ACE_ERROR((LM_ERROR, ACE_TEXT("Failed to get info of pool %s\n"), pool_uuid_.c_str()));
    return false;
  }
  while (is_mtf_uri(url) && file_backup::is_merging(url, pool_uuid_, backup_minor_resource_id_))
    sleep_for_merge(RETRY_INTERVAL);
  return true;
}

bool OBS_Restore_Executor::run(const Set& set, const file_backup::File_DR_Test_Context& context) {
  const MTF::Event_Handler_var handler =
      make_counted<MTF::Event_Handler_var, file_backup::Restore_Event_Handler>(*def_, *act_, evt_handler_, job_);
  if (handler.null())
    return false;
  MTF_Restore engine(handler, job_.log_msg_callback());

  json_spirit::Object entry;
  if (!get_entry_info(def_->host_id(), entry, def_->max_seconds_retry())) {
    ACE_ERROR((LM_ERROR, ACE_TEXT("Failed to get obs entry with uuid '%s'.\n"), def_->host_id().c_str()));
    return false;
  }
  if (!connect(entry))
    return false;

  const MTF_FS::IPath_Converter_var converter = make_counted<MTF_FS::IPath_Converter_var, OBS_Existing_Handler>(
      no_object<MTF_FS::IPath_Converter_var>, entry, opts_->mapper_, opts_->existing_);
  if (converter.null())
    return false;
  engine.path_converter(converter);

  const MTF::IRestore_Callback_Factory_var factory = make_factory(entry);
  if (factory.null())
    return false;
  action_handler_ = make_action_handler(*def_, job_.log_msg_callback());
  if (action_handler_.null())
    return false;
  engine.action_handler(action_handler_);
  configure(engine, factory, set);
  if (!run_engine(engine, *handler))
    return false;

  act_->size = engine.size();
  act_->set_size = engine.set_size();
  if (is_dr_test())
    file_backup::save_dr_test_context(def_->id(), context);
  return true;
}

bool OBS_Restore_Executor::connect(const json_spirit::Object& entry) {
  std::unordered_set<std::string> buckets;
  for (const auto& mapping : opts_->mapper_.mappers())
    buckets.insert(mapping.second.bucket);
  std::string error;
  if (try_connect(entry, buckets, error))
    return true;
  Error_Manager::instance()->set_last_error(
      Error(Error_ID(AGENT_OBS_ERROR_FAILED_TO_PROBE_OBS), Clock::instance().now(), {error}));
  ACE_ERROR((LM_ERROR, ACE_TEXT("%s\n"), error.c_str()));
  return false;
}

// Null, after a log line, when the account's record lacks something.
MTF::IRestore_Callback_Factory_var OBS_Restore_Executor::make_factory(const json_spirit::Object& entry) {
  try {
    const Client_Entry client = client_entry(entry, def_->max_seconds_retry());
    std::unique_ptr<OBS_Restore_Callback_Factory> factory =
        std::make_unique<OBS_Restore_Callback_Factory>(client.url, client.options, opts_->mapper_);
    factory->policy({opts_->no_acl_, opts_->drop_tags_, opts_->storage_class_});
    return adopt<MTF::IRestore_Callback_Factory_var>(std::move(factory));
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
  } catch (const std::exception& e) {
    ACE_ERROR((LM_ERROR, ACE_TEXT("Obs entry exception: %s.\n"), e.what()));
  }
  return no_object<MTF::IRestore_Callback_Factory_var>;
}

void OBS_Restore_Executor::configure(MTF_Restore& engine, const MTF::IRestore_Callback_Factory_var& factory,
                                     const Set& set) {
  engine.callback_factory(factory);
  if (!tgt_.location().empty())
    engine.target_location(tgt_.location());
  engine.backup_uri_prefix(set.uri_prefix.empty() ? backup_host_id_ + "/" + backup_minor_resource_id_ : set.uri_prefix);
  engine.pool_uuid(pool_uuid_);
  engine.definition_uuid(def_->id());
  engine.backup_host_uuid(backup_host_id_);
  engine.backup_minor_resource_id(backup_minor_resource_id_);
  engine.seq(backup_seq_);
  engine.restore_select(src_->entries_);
  set_options_by_job_def(engine.extra_client_io_opts(), *def_, set.channels);
  set_options_by_host(engine.extra_client_io_opts());
  engine.incarnation(set.incarnation);
  engine.channel_num(set.channels);
  engine.concurrent(opts_->channels_);
  if (!is_dr_test())
    engine.standalone(opts_->standalone_);
  if (!opts_->cache_dir_.empty())
    engine.cache_path(opts_->cache_dir_);
}

bool OBS_Restore_Executor::run_engine(MTF_Restore& engine, MTF::Event_Handler& handler) {
  called_mtf_restore_ = true;
  const bool done = engine.restore("");
  switch (engine.err_code()) {
  case MTF::E_END_WITH_SKIPPED_FILES:
    write_job_alert(job_, Error_ID(AGENT_OBS_WARNING_RESTORE_END_WITH_SKIPPED_OBJECTS), {handler.skipped_files()}, 1);
    break;
  case MTF::E_NO_FILES_RESTORED:
    Error_Manager::instance()->set_last_error(
        Error(Error_ID(AGENT_OBS_ERROR_NO_OBJECTS_RESTORED), Clock::instance().now()));
    break;
  case MTF::E_GET_POOL_INFO:
    alert_no_pool();
    break;
  default:
    break;
  }
  return done;
}
