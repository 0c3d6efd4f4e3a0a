#include "platform/s3/service.h"
#include "platform/s3/upload.h"
#include "sdk/s3/s3_service.h"

#include <ace/Log_Msg.h>

#include <mutex>

struct S3_Client::Impl {
  std::mutex mutex;                       ///< guards endpoint
  std::shared_ptr<s3::Endpoint> endpoint; ///< null while not connected

  std::shared_ptr<s3::Endpoint> get() {
    std::lock_guard<std::mutex> guard(mutex);
    return endpoint;
  }
};

namespace {

s3::Outcome outcome_of(const s3::Service& service, bool succeeded) {
  s3::Outcome outcome;
  if (!succeeded) {
    outcome.error = service.last_error();
    outcome.retry_after = service.retry_after();
  }
  return outcome;
}

} // namespace

S3_IWriter::~S3_IWriter() = default;

S3_Service_Base::~S3_Service_Base() = default;

void S3_Service_Base::set_error(const S3_Error& error) {
  last_error_ = error;
  error_text_ = error.number() == 0 ? std::string() : error.text();
}

std::shared_ptr<S3_Service_Base> make_s3_service(const S3_Service_Options& options) {
  std::shared_ptr<s3::Endpoint> endpoint = s3::Endpoint::make(options, nullptr);
  return endpoint ? std::make_shared<s3::Service>(std::move(endpoint)) : nullptr;
}

S3_Client::S3_Client() : impl_(new Impl) {}

S3_Client::~S3_Client() = default;

bool S3_Client::connect(const std::string& scheme, const std::string& host, unsigned short port, bool ssl,
                        const char* proxy, const S3_Client_Options& options) {
  S3_Service_Options how;
  how.type = scheme;
  how.host = host;
  how.port = port;
  how.ssl = ssl;
  how.access_key = options.access_key;
  how.secret_key = options.secret_key;
  how.region = options.region;
  how.vendor = options.vendor;
  how.sign_method = options.sign_method;
  how.max_retry_seconds = options.max_retry_seconds;
  how.ledger = options.ledger;
  std::shared_ptr<s3::Endpoint> endpoint = s3::Endpoint::make(how, proxy);
  if (!endpoint)
    return false;
  std::lock_guard<std::mutex> guard(impl_->mutex);
  impl_->endpoint = std::move(endpoint);
  return true;
}

std::shared_ptr<S3_Service_Base> S3_Client::make_service() {
  std::shared_ptr<s3::Endpoint> endpoint = impl_->get();
  return endpoint ? std::make_shared<s3::Service>(std::move(endpoint)) : nullptr;
}

bool S3_Client::get_buckets(std::vector<json_spirit::Value>& buckets) {
  const std::shared_ptr<s3::Endpoint> endpoint = impl_->get();
  if (!endpoint)
    return false;
  s3::Service service(endpoint);
  Get_Service_Parameter param;
  Get_Service_Content content;
  do {
    const s3::Outcome outcome = s3::retried(endpoint->max_retry_seconds(),
                                            [&] { return outcome_of(service, service.get_service(param, content)); });
    if (!outcome.ok()) {
      ACE_ERROR((LM_ERROR, ACE_TEXT("Failed to list buckets, error: %C.\n"), outcome.error.text().c_str()));
      // Buckets that it did not come to are no buckets that are gone.
      endpoint->ledger()->listing_failed("/", outcome.error.text());
      return false;
    }
    for (const S3_Bucket& bucket : content.buckets)
      buckets.emplace_back(json_spirit::Object{{"dir", json_spirit::Value(bucket.name)}});
    param.marker(content.next_marker.c_str());
  } while (content.truncated && !content.next_marker.empty());
  endpoint->ledger()->listing_succeeded("/");
  return true;
}

S3_IWriter_ptr S3_Client::upload(const std::string& bucket, const std::string& key, size_t size) {
  std::shared_ptr<s3::Endpoint> endpoint = impl_->get();
  if (!endpoint || bucket.empty() || key.empty())
    return nullptr;
  S3_Error error;
  const int bound = endpoint->max_retry_seconds();
  S3_IWriter_ptr writer = s3::make_upload(std::move(endpoint), bucket, key, size, bound, nullptr, error);
  if (!writer)
    ACE_ERROR((LM_ERROR, ACE_TEXT("Failed to begin to store object '%C' in bucket '%C', error: %C.\n"), key.c_str(),
               bucket.c_str(), error.text().c_str()));
  return writer;
}

bool S3_Client::del(const std::string& bucket, const std::string& key) {
  const std::shared_ptr<s3::Endpoint> endpoint = impl_->get();
  if (!endpoint)
    return false;
  s3::Service service(endpoint);
  const s3::Outcome outcome = s3::retried(endpoint->max_retry_seconds(), [&] {
    return outcome_of(service, service.del_object(bucket.c_str(), key.c_str()));
  });
  if (!outcome.ok()) {
    ACE_ERROR((LM_ERROR, ACE_TEXT("Failed to delete object '%C' in bucket '%C', error: %C.\n"), key.c_str(),
               bucket.c_str(), outcome.error.text().c_str()));
    endpoint->ledger()->failed_here(outcome.error);
  }
  return outcome.ok();
}
