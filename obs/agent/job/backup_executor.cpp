#include "obs/agent/job/backup_executor.h"

#include "obs/agent/job/merge_wait.h"
#include "obs/agent/job/obs_backup_callback.h"
#include "obs/agent/job/obs_backup_util.h"
#include "obs/agent/job_frame/object_creator_impl_t.h"
#include "obs/agent/util/obs_path.h"
#include "obs/agent/util/utils.h"
#include "sdk/base/clock.h"
#include "sdk/base/time_format.h"
#include "sdk/base/uri.h"
#include "sdk/error/error.h"
#include "sdk/job/host_manager.h"
#include "sdk/job/job_mutex.h"
#include "sdk/mtf/mtf_backup.h"

#include <ace/Guard_T.h>
#include <ace/OS_NS_stdio.h>

#include <cerrno>
#include <memory>
#include <new>

namespace {

constexpr ACE_UINT64 AGENT_OBS_ERROR_FAILED_TO_PROBE_OBS = 0x70000031E0100001;
constexpr ACE_UINT64 AGENT_OBS_ERROR_NO_OBJECTS_BACKUPED = 0x70000031E0100002;
constexpr ACE_UINT64 AGENT_OBS_WARNING_BACKUP_END_WITH_SKIPPED_OBJECTS = 0x50000031E0100003;
constexpr ACE_INT64 LAST_SEQ_OF_CHAIN = 65535; // a new chain begins behind it
constexpr const char* TIME_FORMAT = "%Y-%m-%d %H:%M:%S";

std::string time_text(time_t time) {
  return POSIX_Time_To_ISO8601(time, TIME_FORMAT).str();
}

ACE_INT64 optional_int64(const json_spirit::Object& object, const char* key) {
  const json_spirit::Value* value = json_spirit::find(object, key);
  return value != nullptr && value->type() == json_spirit::int_type ? value->get_int64() : 0;
}

bool has_string(const json_spirit::Object& object, const char* key, const std::string& text) {
  const json_spirit::Value* value = json_spirit::find(object, key);
  if (value == nullptr || value->type() != json_spirit::array_type)
    return false;
  for (const json_spirit::Value& item : value->get_array()) {
    if (item.type() == json_spirit::str_type && item.get_str() == text)
      return true;
  }
  return false;
}

} // namespace

OBS_Backup_Executor::OBS_Backup_Executor(Job& job)
    : Job_Executor_T(job), host_id_(def_->host_id()), target_id_(tgt_.id()), target_device_id_(tgt_.device_id()),
      type_(def_->subtype()), multidevice_(false), called_mtf_backup_(false) {
  if (src_ != nullptr) {
    minor_resource_id_ = src_->minor_resource_id_;
    minor_resource_name_ = src_->minor_resource_name_;
  }
}

OBS_Backup_Executor::~OBS_Backup_Executor() = default;

bool OBS_Backup_Executor::execute_pre_action() {
  return true;
}

bool OBS_Backup_Executor::execute_post_action() {
  if (called_mtf_backup_)
    return true;
  if (def_->run_post_action_always() && !def_->redirect_post_action_stdin() && act_->state != JOB_STATE_CANCELING)
    return Job_Executor_T::execute_post_action();
  return true;
}

bool OBS_Backup_Executor::execute_i(const Job_Run_Options*) {
  CHECK_NULL_RETURN(src_, false);
  CHECK_NULL_RETURN(opts_, false);
  try {
    const std::shared_ptr<Job_Mutex> mutex = Job_Mutex::get(minor_resource_id_);
    ACE_Guard<Job_Mutex> guard(*mutex);
    if (!guard.locked() || !get_pool_info())
      return false;
    wait_for_merge();

    Last_Instance last;
    Plan plan;
    if (!get_last_instance(last))
      return false;
    decide_kind(last, plan);

    json_spirit::Object entry;
    if (!get_entry_info(host_id_, entry, def_->max_seconds_retry())) {
      ACE_ERROR((LM_ERROR, ACE_TEXT("Failed to get obs entry with uuid '%s'.\n"), host_id_.c_str()));
      return false;
    }
    std::vector<std::string> entries;
    std::unordered_set<std::string> buckets;
    if (!get_entries(entries, buckets) || !connect(entry, buckets))
      return false;
    return run(last, plan, entries, entry);
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
    return false;
  } catch (const std::exception& e) {
    ACE_ERROR((LM_ERROR, ACE_TEXT("Backup ended: %s.\n"), e.what()));
    return false;
  }
}

bool OBS_Backup_Executor::get_pool_info() {
  Pool_Info info;
  if (!::get_pool_info(target_id_, target_device_id_, info, false, 0, nullptr, true, nullptr, nullptr, false)) {
    write_job_alert(job_, LV_ERROR, COMMON_CODE_FAILED_TO_GET_POOL, MASK_FLAGS, {target_id_}, 1);
    ACE_ERROR((LM_ERROR, ACE_TEXT("Failed to get pool info with, pool_uuid='%C', device uuid='%C'\n"),
               target_id_.c_str(), target_device_id_.c_str()));
    return false;
  }
  location_ = info.location;
  URI uri;
  if (!URI_Parser::parse(location_.c_str(), uri)) {
    ACE_ERROR((LM_ERROR, ACE_TEXT("Failed to parse '%C'\n"), location_.c_str()));
    return false;
  }
  pool_type_ = uri.scheme();
  multidevice_ = info.multidevice;
  const char* name = encryption_value_to_name(info.encryption, false);
  encryption_ = name != nullptr ? name : "none";
  return true;
}

void OBS_Backup_Executor::wait_for_merge() {
  while (file_backup::is_merging(location_, target_id_, minor_resource_id_)) {
    ACE_DEBUG((LM_DEBUG, ACE_TEXT("OBS resource is merging, retry backup after %d seconds.\n"), RETRY_INTERVAL));
    sleep_for_merge(RETRY_INTERVAL);
  }
}

bool OBS_Backup_Executor::get_last_instance(Last_Instance& last) {
  json_spirit::Object record;
  if (!file_backup::get_last_instance_info(minor_resource_id_, target_id_, record, def_->max_seconds_retry())) {
    ACE_ERROR((LM_ERROR, ACE_TEXT("Failed to get last instance info.\n")));
    return false;
  }
  last.exists = !record.empty();
  last.seq = optional_int64(record, "seq");
  last.online = has_string(record, "state", "online");
  last.incarnation = json_spirit::optional_str(record, "incarnation");
  last.uuid = json_spirit::optional_str(record, "uuid");
  last.channels = optional_int64(record, "channels");
  uri_prefix_ = json_spirit::optional_str(record, "uri");
  return true;
}

void OBS_Backup_Executor::decide_kind(const Last_Instance& last, Plan& plan) {
  // Before the kind is forced: a job that becomes full below keeps the channels of the last set.
  if (type_ == JOB_DEFINITION_SUBTYPE_FULL || !last.exists)
    plan.channels = opts_->channels_ == 0 ? 1 : static_cast<unsigned>(opts_->channels_);
  else
    plan.channels = static_cast<unsigned>(last.channels);

  if (last.seq == 0 || last.seq == LAST_SEQ_OF_CHAIN || !last.online)
    type_ = JOB_DEFINITION_SUBTYPE_FULL;

  const std::string resource = host_id_ + "/" + minor_resource_id_ + "/";
  if (type_ == JOB_DEFINITION_SUBTYPE_FULL) {
    plan.seq = 0;
    uri_prefix_ = resource + act_->id;
  } else {
    plan.seq = static_cast<unsigned>(last.seq);
    if (uri_prefix_.empty())
      uri_prefix_ = resource;
  }
}

bool OBS_Backup_Executor::get_entries(std::vector<std::string>& entries, std::unordered_set<std::string>& buckets) {
  if (!file_backup::get_entries_from_backupd(minor_resource_id_, entries, exclusions_, inclusions_,
                                             minor_resource_name_))
    return false;
  for (const std::string& entry : entries) {
    const OBS_Path path(entry, true);
    if (path)
      buckets.insert(path.bucket_);
  }
  return true;
}

bool OBS_Backup_Executor::connect(const json_spirit::Object& entry, std::unordered_set<std::string>& buckets) {
  std::string error;
  if (try_connect(entry, buckets, error))
    return true;
  Error_Manager::instance()->set_last_error(
      Error(Error_ID(AGENT_OBS_ERROR_FAILED_TO_PROBE_OBS), Clock::instance().now(), {error}));
  ACE_ERROR((LM_ERROR, ACE_TEXT("%s\n"), error.c_str()));
  return false;
}

MTF::IBackup_Callback_Factory_var OBS_Backup_Executor::make_factory(const json_spirit::Object& entry) {
  try {
    const Client_Entry client = client_entry(entry, def_->max_seconds_retry());
    std::unique_ptr<OBS_Backup_Callback_Factory> factory =
        std::make_unique<OBS_Backup_Callback_Factory>(client.url, client.options, opts_->list_cache_limits_);
    factory->wishes({opts_->tags_, opts_->acl_, opts_->refresh_tags_});
    if (const json_spirit::Array* const buckets = configured_buckets(entry))
      factory->buckets(*buckets);
    return adopt<MTF::IBackup_Callback_Factory_var>(std::move(factory));
  } catch (const json_spirit::Type_Error& e) {
    ACE_ERROR((LM_ERROR, ACE_TEXT("Obs entry exception: %s.\n"), e.what()));
    return no_object<MTF::IBackup_Callback_Factory_var>;
  }
}

bool OBS_Backup_Executor::run(const Last_Instance& last, const Plan& plan, const std::vector<std::string>& entries,
                              const json_spirit::Object& entry) {
  const MTF::IBackup_Callback_Factory_var factory = make_factory(entry);
  if (factory.null())
    return false;
  job_.set_result("source_entries", json_spirit::Array(entries.begin(), entries.end()));

  file_backup::File_Metadata metadata;
  if (!get_metadata(metadata)) {
    ACE_ERROR((LM_ERROR, ACE_TEXT("Failed to init OBS backup metadata.\n")));
    return false;
  }

  const MTF::Event_Handler_var handler =
      make_counted<MTF::Event_Handler_var, file_backup::Backup_Event_Handler>(*def_, *act_, evt_handler_, job_);
  if (handler.null())
    return false;
  MTF_Backup engine(handler, metadata, job_.log_msg_callback());
  for (const std::string& path : entries)
    engine.add_source(path);

  if (!make_filter())
    return false;
  action_handler_ = make_action_handler(*def_, job_.log_msg_callback());
  if (action_handler_.null())
    return false;
  configure(engine, factory, plan);
  if (!set_kind(engine) || !run_engine(engine, *handler))
    return false;

  metadata.source_size = engine.size();
  metadata.backup_set_size = engine.set_size();
  metadata.backup_set_storage_size = engine.set_storage_size();
  metadata.end_time = time_text(Clock::instance().now());
  return commit(metadata, last);
}

bool OBS_Backup_Executor::get_metadata(file_backup::File_Metadata& metadata) {
  metadata.pool_uuid = target_id_;
  metadata.host_uuid = host_id_;
  metadata.definition_uuid = def_->id();
  metadata.uuid = act_->id;
  metadata.uri = uri_prefix_;
  metadata.agent = def_->agent();
  metadata.host = Host_Manager::instance()->name();
  metadata.name = def_->name();
  metadata.type = job_def_subtype_to_string(type_);
  metadata.start_time = time_text(act_->start_time);
  metadata.end_time = time_text(act_->end_time);
  metadata.resource_uuid = src_->id();
  metadata.minor_resource_id = minor_resource_id_;
  metadata.minor_resource_name = minor_resource_name_;
  metadata.uid = def_->uid();
  metadata.pool_type = pool_type_;
  metadata.multidevice = multidevice_;
  metadata.encryption = encryption_;
  return true;
}

bool OBS_Backup_Executor::make_filter() {
  // The job's own rules count only where the resource has no exclusions, its inclusions included.
  if (exclusions_.empty()) {
    exclusions_.insert(exclusions_.end(), opts_->exclusion_.begin(), opts_->exclusion_.end());
    inclusions_.insert(inclusions_.end(), opts_->inclusion_.begin(), opts_->inclusion_.end());
  }
  if (file_backup::make_filter(exclusions_, inclusions_, filter_))
    return true;
  ACE_ERROR((LM_ERROR, ACE_TEXT("Failed to make filter\n")));
  return false;
}

void OBS_Backup_Executor::configure(MTF_Backup& engine, const MTF::IBackup_Callback_Factory_var& factory,
                                    const Plan& plan) {
  engine.action_handler(action_handler_);
  engine.callback_factory(factory);
  engine.filter(filter_.get());
  engine.pool_uuid(target_id_);
  engine.device_uuid(target_device_id_);
  engine.host_uuid(host_id_);
  engine.minor_resource_id(minor_resource_id_);
  engine.uuid(act_->id);
  engine.seq(plan.seq);
  engine.channel_num(plan.channels);
  engine.compression(compression_to_mtf(opts_->compression_));
  engine.compression_level(opts_->compression_level_);
  set_options_by_job_def(engine.extra_client_io_opts(), *def_, plan.channels);
  set_options_by_host(engine.extra_client_io_opts());
  engine.uri_prefix(uri_prefix_);
  if (plan.seq != 0)
    engine.base_seq(plan.seq);
  if (!opts_->cache_dir_.empty())
    engine.cache_path(opts_->cache_dir_);
  if (opts_->scan_file_threads_ > 1)
    engine.scan_fs_threads(static_cast<unsigned>(opts_->scan_file_threads_));
}

bool OBS_Backup_Executor::set_kind(MTF_Backup& engine) {
  switch (type_) {
  case JOB_DEFINITION_SUBTYPE_INCREMENTAL:
  case JOB_DEFINITION_SUBTYPE_MERGE:
    engine.incremental(true);
    return true;
  case JOB_DEFINITION_SUBTYPE_FULL:
    engine.incremental(false);
    return true;
  default:
    ACE_ERROR((LM_ERROR, ACE_TEXT("Invalid job type: %d\n"), static_cast<int>(type_)));
    return false;
  }
}

bool OBS_Backup_Executor::run_engine(MTF_Backup& engine, MTF::Event_Handler& handler) {
  called_mtf_backup_ = true;
  const bool done = engine.backup("");
  switch (engine.err_code()) {
  case MTF::E_NO_FILES_BACKUPED:
    Error_Manager::instance()->set_last_error(
        Error(Error_ID(AGENT_OBS_ERROR_NO_OBJECTS_BACKUPED), Clock::instance().now()));
    break;
  case MTF::E_END_WITH_SKIPPED_FILES:
    write_job_alert(job_, Error_ID(AGENT_OBS_WARNING_BACKUP_END_WITH_SKIPPED_OBJECTS), {handler.skipped_files()}, 1);
    break;
  case MTF::E_GET_POOL_INFO:
    write_job_alert(job_, LV_ERROR, COMMON_CODE_FAILED_TO_GET_POOL, MASK_FLAGS, {}, 1);
    break;
  default:
    break;
  }
  return done;
}

bool OBS_Backup_Executor::commit(const file_backup::File_Metadata& metadata, const Last_Instance& last) {
  file_backup::File_Backup_Set set;
  if (file_backup::build_file_catalog(metadata, set) != 0)
    return false;
  if (type_ == JOB_DEFINITION_SUBTYPE_FULL) {
    set.incarnation = act_->id;
  } else {
    set.incarnation = last.incarnation;
    set.bases.push_back(last.uuid);
  }
  if (Catalog_Operator(-1, -1).commit(set, true))
    return true;
  write_job_alert(job_, LV_ERROR, COMMON_CODE_FAILED_TO_COMMIT_CATALOG, MASK_FLAGS, {}, 1);
  ACE_ERROR((LM_ERROR, ACE_TEXT("Failed to write catalog to backupd\n")));
  return false;
}
