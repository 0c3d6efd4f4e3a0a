#include "obs/agent/websvcs/obs_test_handler.h"

#include "obs/agent/job_frame/exports.h"
#include "obs/agent/util/utils.h"
#include "obs/agent/websvcs/service_pages.h"
#include "sdk/base/time_format.h"

namespace {

/// Checks that each named bucket is there, up to the first that is not.
void check_buckets(S3_Service_Base& service, const json_spirit::Array& names, json_spirit::Object& result) {
  result["available"] = true;
  for (const json_spirit::Value& name : names) {
    if (name.type() != json_spirit::str_type || service.bucket_exists(name.get_str().c_str()))
      continue;
    result["available"] = false;
    result["message"] = service.error();
    return;
  }
}

json_spirit::Value describe(const S3_Bucket& bucket, const std::string& owner) {
  const POSIX_Time_To_ISO8601_Local ctime(bucket.ctime, "%Y-%m-%d %H:%M:%S");
  return json_spirit::Object{{"name", bucket.name},
                             {"ctime", ctime.str()},
                             {"location", bucket.location.empty() ? bucket.region : bucket.location},
                             {"owner", owner}};
}

void list_buckets(S3_Service_Base& service, const std::string& region, json_spirit::Object& result) {
  const bool available = for_each_service_page(service, [&](Get_Service_Content& content) {
    // Each page takes the place of the one before: callers get the last one.
    json_spirit::Array buckets;
    for (S3_Bucket& bucket : content.buckets)
      if (is_in_region(service, bucket, region))
        buckets.push_back(describe(bucket, content.owner));
    result["buckets"] = std::move(buckets);
  });
  result["available"] = available;
  if (!available)
    result["message"] = service.error();
}

int answer(JSON_RPC_Channel& channel, const JSON_RPC_Request& request) {
  const auto fail = [&](int code, const char* message) {
    return channel.send_error(code, request.id(), message, json_spirit::Value());
  };
  if (request.params().type() != json_spirit::obj_type)
    return fail(RPC_INVALID_PARAMS, "Params is not Object");
  const json_spirit::Object& params = request.params().get_obj();
  const std::shared_ptr<S3_Service_Base> service = make_client(params);
  if (!service)
    return fail(RPC_INVALID_PARAMS, "Missing required attributes");
  const std::string region = text_param(params, "region");

  JSON_RPC_Object_var response = adopt<JSON_RPC_Object_var>(std::make_unique<JSON_RPC_Response>(request));
  json_spirit::Object result;
  const json_spirit::Value* const buckets = json_spirit::find(params, "buckets");
  if (buckets && buckets->type() == json_spirit::array_type && !buckets->get_array().empty())
    check_buckets(*service, buckets->get_array(), result);
  else
    list_buckets(*service, region, result);
  static_cast<JSON_RPC_Response&>(*response).result() = std::move(result);
  return channel.send(response);
}

} // namespace

JSON_RPC_OBS_Test_Handler::~JSON_RPC_OBS_Test_Handler() = default;

int JSON_RPC_OBS_Test_Handler::handle_object_i(JSON_RPC_Channel_var channel, JSON_RPC_Object_var object) {
  if (object.null() || object->type() != JSON_RPC_Object::TYPE_REQUEST) {
    LOG_NOT_A_REQUEST();
    return -1;
  }
  const JSON_RPC_Request& request = static_cast<const JSON_RPC_Request&>(*object);
  try {
    return answer(*channel, request);
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
    return channel->send_error(RPC_INTERNAL_ERROR, request.id(), "Internal error, out of memory.",
                               json_spirit::Value());
  }
}

OBS_DEFINE_FACTORY(JSON_RPC_OBS_Test_Handler, JSON_RPC_Handler, JSON_RPC_OBS_Test_Handler)
