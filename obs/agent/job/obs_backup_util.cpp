#include "obs/agent/job/obs_backup_util.h"

#include "obs/agent/job_frame/object_creator_impl_t.h"
#include "obs/agent/util/utils.h"
#include "sdk/job/job_definition.h"
#include "sdk/s3/s3_service.h"

namespace {

typedef std::unordered_set<std::string> Names;

Names names_of(const json_spirit::Array& array) {
  Names names;
  for (const json_spirit::Value& value : array)
    if (value.type() == json_spirit::str_type)
      names.insert(value.get_str());
  return names;
}

/// Holds the job's buckets against those that the account is confined to.
bool check_buckets(const json_spirit::Array& configured, Names& buckets, std::string& error) {
  const Names allowed = names_of(configured);
  if (buckets.empty()) {
    buckets = allowed;
    return true;
  }
  for (const std::string& name : buckets) {
    if (!allowed.count(name)) {
      error = "Job bucket \"" + name + "\" doesn't belong to the given entry";
      return false;
    }
  }
  return true;
}

} // namespace

bool try_connect(const json_spirit::Object& entry, std::unordered_set<std::string>& buckets, std::string& error) {
  const std::shared_ptr<S3_Service_Base> client = make_client(entry);
  if (!client) {
    error = "Failed to create s3 client from obs entry.";
    return false;
  }
  if (const json_spirit::Array* const configured = configured_buckets(entry))
    if (!check_buckets(*configured, buckets, error))
      return false;

  if (buckets.empty()) {
    Get_Service_Content content;
    if (!client->get_service(Get_Service_Parameter(), content)) {
      error = "Failed to list buckets, code: " + client->last_error().code() + ".";
      return false;
    }
    for (const S3_Bucket& bucket : content.buckets)
      if (client->bucket_exists(bucket.name.c_str()))
        return true;
  } else {
    for (const std::string& name : buckets)
      if (client->bucket_exists(name.c_str()))
        return true;
  }
  error = "Failed to get all buckets, errcode: " + client->last_error().code() + ".";
  return false;
}

Action_Handler_var make_action_handler(const Job_Definition& def, std::shared_ptr<ACE_Log_Msg_Callback> log) {
  try {
    std::unique_ptr<Redirect_Script_Handler> script = std::make_unique<Redirect_Script_Handler>(log);
    if (!def.pre_action().empty()) {
      script->pre_action_script(def.pre_action());
      script->redirect_pre_action_stdout(def.redirect_pre_action_stdout());
      script->ignore_pre_action_failure(def.ignore_pre_action_failure());
    }
    if (!def.post_action().empty()) {
      script->post_action_script(def.post_action());
      script->redirect_post_action_stdin(def.redirect_post_action_stdin());
      script->ignore_post_action_failure(def.ignore_post_action_failure());
      script->run_post_action_always(def.run_post_action_always());
    }
    return adopt<Action_Handler_var>(std::move(script));
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
    return no_object<Action_Handler_var>;
  }
}
