#include "platform/s3/endpoint.h"

#include "sdk/base/clock.h"

#include <ace/Log_Msg.h>

#include <algorithm>
#include <cctype>

namespace s3 {
namespace {

bool read_sign_method(const std::string& text, Sign_Method& method) {
  std::string name(text);
  std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) { return std::tolower(c); });
  if (name.empty() || name == "v4")
    method = SIGN_V4;
  else if (name == "v2")
    method = SIGN_V2;
  else
    return false;
  return true;
}

/// A host's name or address as a URL may carry it.
bool is_host(const std::string& host) {
  return !host.empty() && std::all_of(host.begin(), host.end(), [](unsigned char c) {
    return std::isalnum(c) || c == '.' || c == '-' || c == '_' || c == ':';
  });
}

} // namespace

std::shared_ptr<Endpoint> Endpoint::make(const S3_Service_Options& options, const char* proxy) {
  std::shared_ptr<Endpoint> endpoint(new Endpoint);
  if (!read_sign_method(options.sign_method, endpoint->credentials_.method)) {
    ACE_ERROR((LM_ERROR, ACE_TEXT("Unknown signing method '%C' for '%C': use v4 or v2.\n"), options.sign_method.c_str(),
               options.host.c_str()));
    return nullptr;
  }
  if (!is_host(options.host)) {
    ACE_ERROR((LM_ERROR, ACE_TEXT("Invalid host '%C' of an object storage service.\n"), options.host.c_str()));
    return nullptr;
  }
  if (options.access_key.empty() || options.secret_key.empty()) {
    ACE_ERROR((LM_ERROR, ACE_TEXT("No keys for the object storage service at '%C'.\n"), options.host.c_str()));
    return nullptr;
  }
  endpoint->base_.ssl = options.ssl;
  endpoint->base_.host = options.host;
  endpoint->base_.port = options.port ? options.port : static_cast<unsigned short>(options.ssl ? 443 : 80);
  endpoint->base_.region = options.region;
  endpoint->credentials_.access_key = options.access_key;
  endpoint->credentials_.secret_key = options.secret_key;
  endpoint->credentials_.token = options.sts_token;
  endpoint->max_retry_seconds_ = options.max_retry_seconds;
  endpoint->ledger_ = options.ledger ? options.ledger : std::make_shared<S3_Ledger>();

  const Endpoint_Settings settings = Endpoint_Settings::get(options.host, options.port, options.access_key);
  endpoint->addressing_ = settings.addressing;
  endpoint->part_size_ = std::max(settings.part_size, 1ull);
  endpoint->ranges_ = settings.ranges;
  endpoint->ranges_.size = std::max<size_t>(endpoint->ranges_.size, 1);
  endpoint->ranges_.first = std::max(endpoint->ranges_.first, 1u);
  endpoint->ranges_.most = std::max(endpoint->ranges_.most, 1u);
  HTTP_Settings http;
  http.connect_timeout = std::max(settings.connect_timeout, 1u);
  http.idle_timeout = std::max(settings.idle_timeout, 1u);
  http.ca_file = settings.ca_file;
  http.proxy = proxy ? proxy : "";
  endpoint->pool_ = std::make_shared<HTTP_Channel_Pool>(http);
  return endpoint;
}

Address Endpoint::address(const std::string& bucket) const {
  if (any_learned_.load(std::memory_order_acquire)) {
    std::lock_guard<std::mutex> guard(mutex_);
    const auto found = learned_.find(bucket);
    if (found != learned_.end())
      return found->second;
  }
  Address address = base_;
  address.virtual_host = addressing_ == Endpoint_Settings::ADDRESSING_VIRTUAL ||
                         (addressing_ == Endpoint_Settings::ADDRESSING_AUTO && !needs_path_style(base_.host));
  return address;
}

void Endpoint::learn_address(const std::string& bucket, const Address& address) {
  std::lock_guard<std::mutex> guard(mutex_);
  learned_[bucket] = address;
  any_learned_.store(true, std::memory_order_release);
}

time_t Endpoint::now() const {
  return Clock::instance().now() + static_cast<time_t>(clock_offset_.load(std::memory_order_relaxed));
}

V4_Key Endpoint::v4_key(const Address& address, time_t when) const {
  if (credentials_.method != SIGN_V4)
    return V4_Key();
  const std::string day = v4_day(when);
  std::lock_guard<std::mutex> guard(mutex_);
  if (key_.date != day || key_.region != signing_region(address))
    key_ = make_v4_key(credentials_.secret_key, when, signing_region(address), "s3");
  return key_;
}

} // namespace s3
