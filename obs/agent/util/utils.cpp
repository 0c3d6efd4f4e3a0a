#include "obs/agent/util/utils.h"

#include "sdk/base/clock.h"
#include "sdk/base/exponential_backoff.h"
#include "sdk/base/uri.h"
#include "sdk/crypto/obs_sk_decryptor.h"
#include "sdk/job/job.h"
#include "sdk/rpc/json_rpc.h"
#include "sdk/s3/s3_service.h"

#include <ace/Log_Msg.h>

#include <cerrno>
#include <cstdio>
#include <new>

namespace {

constexpr size_t URL_SIZE = 4096;

/// One attempt. True when the server answered with a result, now in `reply`.
bool query(const JSON_RPC_Request& request, JSON_RPC_Object_var& reply) {
  const JSON_RPC_Channel_var channel = Global_JSON_RPC_Channel::instance();
  if (!channel)
    return false;
  JSON_RPC_Session session{std::weak_ptr<JSON_RPC_Channel>(channel)};
  return session.request(request, reply) == 0 && !reply.null() && reply->type() == JSON_RPC_Object::TYPE_RESPONSE;
}

/// True when the job that the calling thread works for is being cancelled: nobody waits for an answer any more.
bool is_job_canceling() {
  Job* const job = Job::current();
  return job && job->activity().state == JOB_STATE_CANCELING;
}

bool query_with_retries(const JSON_RPC_Request& request, JSON_RPC_Object_var& reply, int max_wait_seconds) {
  Exponential_Backoff_Iterator backoff = exponential_backoff(1, UNLIMITED_RETRIES, 60, true);
  const Exponential_Backoff_Iterator end;
  for (int attempt = 1; !query(request, reply); ++attempt, ++backoff) {
    const bool waited_long_enough =
        max_wait_seconds != -1 &&
        (max_wait_seconds < 0 || backoff.cumulation() >= static_cast<unsigned long long>(max_wait_seconds));
    if (waited_long_enough || backoff == end || is_job_canceling()) {
      ACE_ERROR((LM_ERROR, ACE_TEXT("Failed to request 'obs.query'.\n")));
      return false;
    }
    const unsigned wait = *backoff;
    ACE_DEBUG((LM_INFO, ACE_TEXT("Retry(%d) %N:%l at %u second(s) later.\n"), attempt, wait));
    Clock::instance().sleep(wait);
  }
  return true;
}

/// A text that an account may have; empty where it has none. Throws when it is there but no text.
std::string text_or_empty(const json_spirit::Object& entry, const char* key) {
  const json_spirit::Value* const value = json_spirit::find(entry, key);
  return value ? value->get_str() : std::string();
}

} // namespace

bool get_entry_info(const std::string& uuid, json_spirit::Object& entry, int max_wait_seconds) {
  JSON_RPC_Request request;
  JSON_RPC_Session::make_rpc_request("obs.query", json_spirit::Object{{"uuid", uuid}}, request);
  JSON_RPC_Object_var reply;
  if (!query_with_retries(request, reply, max_wait_seconds))
    return false;

  json_spirit::Value& result = static_cast<JSON_RPC_Response&>(*reply).result();
  if (result.type() != json_spirit::obj_type) {
    ACE_ERROR_RETURN(
        (LM_EMERGENCY, ACE_TEXT("Unexpected error in obs/agent/util/utils:%d, result is not object!\n"), __LINE__),
        false);
  }
  entry = std::move(result.get_obj());

  const std::string cipher_text = json_spirit::optional_str(entry, "secret_key");
  if (cipher_text.empty()) {
    ACE_ERROR_RETURN(
        (LM_ERROR, ACE_TEXT("Invalid entry info '%s'.\n"), json_spirit::write(json_spirit::Value(entry)).c_str()),
        false);
  }
  const OBS_SK_Decryptor decryptor(cipher_text);
  if (decryptor.str().empty())
    ACE_ERROR_RETURN((LM_ERROR, ACE_TEXT("Failed to decrypt obs secret key.\n")), false);
  entry["secret_key"] = decryptor.str();
  return true;
}

Client_Entry client_entry(const json_spirit::Object& entry, int max_retry_seconds) {
  const std::string& scheme = json_spirit::require_str(entry, "scheme");
  const std::string& endpoint = json_spirit::require_str(entry, "endpoint");
  const std::string& access_key = json_spirit::require_str(entry, "access_key");
  const std::string& secret_key = json_spirit::require_str(entry, "secret_key");
  char url[URL_SIZE];
  std::snprintf(url, sizeof url, "%s://%s", scheme.c_str(), endpoint.c_str());

  Client_Entry client{url, S3_Client_Options(access_key, secret_key, max_retry_seconds)};
  client.options.region = json_spirit::optional_str(entry, "region");
  client.options.vendor = json_spirit::optional_str(entry, "vendor");
  client.options.sign_method = json_spirit::optional_str(entry, "sign_method");
  return client;
}

std::shared_ptr<S3_Service_Base> make_client(const json_spirit::Object& entry) {
  try {
    const std::string& access_key = json_spirit::require_str(entry, "access_key");
    const std::string& secret_key = json_spirit::require_str(entry, "secret_key");
    const std::string& scheme = json_spirit::require_str(entry, "scheme");
    const std::string& endpoint = json_spirit::require_str(entry, "endpoint");

    char text[URL_SIZE];
    std::snprintf(text, sizeof text, "%s://%s", scheme.c_str(), endpoint.c_str());
    URI uri;
    if (!URI_Parser::parse(text, uri)) {
      ACE_ERROR((LM_ERROR, ACE_TEXT("Invalid obs endpoint '%s' in entry object\n"), text));
      return nullptr;
    }

    S3_Service_Options options;
    options.type = uri.scheme();
    options.host = uri.host(false);
    options.port = uri.port();
    options.ssl = uri.is_ssl();
    options.access_key = access_key;
    options.secret_key = secret_key;
    options.region = text_or_empty(entry, "region");
    options.vendor = text_or_empty(entry, "vendor");
    options.sign_method = text_or_empty(entry, "sign_method");
    return make_s3_service(options);
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
    return nullptr;
  } catch (const std::exception& error) {
    ACE_ERROR((LM_ERROR, ACE_TEXT("Invalid entry info: %s.\n"), error.what()));
    return nullptr;
  }
}

const json_spirit::Array* configured_buckets(const json_spirit::Object& entry) {
  const json_spirit::Value* const attributes = json_spirit::find(entry, "extended_attrs");
  if (!attributes || attributes->type() != json_spirit::obj_type)
    return nullptr;
  const json_spirit::Value* const buckets = json_spirit::find(attributes->get_obj(), "buckets");
  if (!buckets || buckets->type() != json_spirit::array_type || buckets->get_array().empty())
    return nullptr;
  return &buckets->get_array();
}
