#include "obs/agent/websvcs/obs_list_handler.h"

#include "obs/agent/job_frame/exports.h"
#include "obs/agent/util/obs_path.h"
#include "obs/agent/util/utils.h"
#include "obs/agent/websvcs/service_pages.h"
#include "sdk/base/time_format.h"

#include <algorithm>
#include <cstdio>

namespace {

/// One request being answered.
class Listing {
public:
  Listing(JSON_RPC_Channel& channel, const JSON_RPC_Request& request) : channel_(channel), request_(request) {}

  int handle();

private:
  int list_configured_buckets(const json_spirit::Array& buckets);
  int list_buckets();
  int list_objects(const OBS_Path& path, const json_spirit::Object& params);

  void add_bucket(const std::string& name) { add_dir("/" + name + "/"); }
  void add_dir(const std::string& text) { items_.emplace_back(json_spirit::Object{{"dir", text}}); }
  int reply(bool truncated);
  int fail(int code, const std::string& message) { return fail(code, message, json_spirit::Value()); }
  int fail(int code, const std::string& message, const json_spirit::Value& data) {
    return channel_.send_error(code, request_.id(), message, data);
  }
  /// The same line and shape for buckets and for objects.
  int fail_service(const char* message);

  JSON_RPC_Channel& channel_;
  const JSON_RPC_Request& request_;
  json_spirit::Object entry_;
  std::shared_ptr<S3_Service_Base> service_;
  JSON_RPC_Object_var response_;
  json_spirit::Object result_;
  json_spirit::Array items_;
};

int Listing::handle() {
  if (request_.params().type() != json_spirit::obj_type)
    return fail(RPC_INVALID_PARAMS, "Params is not Object");
  const json_spirit::Object& params = request_.params().get_obj();

  const json_spirit::Value* uuid = json_spirit::find(params, "uuid");
  if (!uuid || uuid->type() != json_spirit::str_type)
    uuid = json_spirit::find(params, "host_uuid");
  if (!uuid || uuid->type() != json_spirit::str_type)
    return fail(RPC_INVALID_PARAMS, "No OBS entry uuid");
  if (!get_entry_info(uuid->get_str(), entry_, 0))
    return fail(RPC_FAILED, "Failed to get OBS entry info");
  service_ = make_client(entry_);
  if (!service_)
    return fail(RPC_FAILED, "Failed to make S3 client");

  response_ = adopt<JSON_RPC_Object_var>(std::make_unique<JSON_RPC_Response>(request_));

  const std::string text = text_param(params, "path");
  if (!text.empty()) {
    const OBS_Path path(text, false);
    if (!path) {
      char message[4096];
      std::snprintf(message, sizeof(message), "Invalid OBS path '%s'", text.c_str());
      return fail(RPC_INVALID_PARAMS, message);
    }
    return list_objects(path, params);
  }
  const json_spirit::Array* const buckets = configured_buckets(entry_);
  return buckets ? list_configured_buckets(*buckets) : list_buckets();
}

int Listing::list_configured_buckets(const json_spirit::Array& buckets) {
  for (const json_spirit::Value& bucket : buckets)
    if (bucket.type() == json_spirit::str_type && service_->bucket_exists(bucket.get_str().c_str()))
      add_bucket(bucket.get_str());
  return reply(false);
}

int Listing::list_buckets() {
  const std::string region = text_param(entry_, "region");
  const bool succeeded = for_each_service_page(*service_, [&](Get_Service_Content& content) {
    for (S3_Bucket& bucket : content.buckets)
      if (is_in_region(*service_, bucket, region))
        add_bucket(bucket.name);
  });
  return succeeded ? reply(false) : fail_service("GetService error");
}

int Listing::list_objects(const OBS_Path& path, const json_spirit::Object& params) {
  Get_Bucket_Parameter param;
  param.prefix(path.object_.c_str());
  param.delimiter("/");
  if (const json_spirit::Value* const limit = json_spirit::find(params, "limit")) {
    try {
      param.max_keys(limit->get_int());
    } catch (const json_spirit::Type_Error&) {
      // As with the other members: of another kind it counts as absent.
    }
  }
  const std::string marker = text_param(params, "marker");
  if (!marker.empty())
    param.marker(marker.c_str());

  Get_Bucket_Content content;
  if (!service_->get_bucket(path.bucket_.c_str(), param, content))
    return fail_service("GetBucket error");

  const size_t cut = path.object_.size();
  const auto without_prefix = [cut](const std::string& name) { return name.substr(std::min(cut, name.size())); };
  for (const std::string& prefix : content.common_prefixes)
    add_dir(without_prefix(prefix));
  for (const S3_Object& object : content.objects) {
    const POSIX_Time_To_ISO8601 mtime(to_time_t(static_cast<long long>(object.mtime)), "%Y-%m-%d %H:%M:%S");
    items_.emplace_back(
        json_spirit::Object{{"file", without_prefix(object.name)}, {"size", object.size}, {"mtime", mtime.str()}});
  }
  if (content.truncated)
    result_["marker"] = content.next_marker;
  return reply(content.truncated);
}

int Listing::reply(bool truncated) {
  result_["result"] = std::move(items_);
  result_["truncated"] = truncated;
  static_cast<JSON_RPC_Response&>(*response_).result() = std::move(result_);
  return channel_.send(response_);
}

int Listing::fail_service(const char* message) {
  ACE_ERROR((LM_ERROR, ACE_TEXT("Failed to get buckets, error: %s.\n"), service_->error()));
  const S3_Error& error = service_->last_error();
  return fail(error.retriable() ? RPC_INTERNAL_ERROR : RPC_INVALID_REQUEST, message,
              json_spirit::Object{{"code", error.code()}, {"message", error.message()}});
}

} // namespace

JSON_RPC_OBS_List_Handler::~JSON_RPC_OBS_List_Handler() = default;

int JSON_RPC_OBS_List_Handler::handle_object_i(JSON_RPC_Channel_var channel, JSON_RPC_Object_var object) {
  if (object.null() || object->type() != JSON_RPC_Object::TYPE_REQUEST) {
    LOG_NOT_A_REQUEST();
    return -1;
  }
  const JSON_RPC_Request& request = static_cast<const JSON_RPC_Request&>(*object);
  try {
    return Listing(*channel, request).handle();
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
    return channel->send_error(RPC_INTERNAL_ERROR, request.id(), "Internal error, out of memory.",
                               json_spirit::Value());
  }
}

OBS_DEFINE_FACTORY(JSON_RPC_OBS_List_Handler, JSON_RPC_Handler, JSON_RPC_OBS_List_Handler)
