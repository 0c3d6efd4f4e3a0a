#include "platform/s3/endpoint.h"

#include "platform/s3/vendor_presets.h"
#include "sdk/base/clock.h"

#include <ace/Log_Msg.h>

#include <algorithm>
#include <cctype>

namespace s3 {
namespace {

/// Listings in work at one time by far; a token that was let go costs nothing but a listing that begins behind a key.
constexpr size_t MAX_CONTINUATIONS = 1024;

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
  return make(options, proxy, Endpoint_Settings::get(options.host, options.port, options.access_key));
}

std::shared_ptr<Endpoint> Endpoint::make(const S3_Service_Options& options, const char* proxy,
                                         Endpoint_Settings settings) {
  std::shared_ptr<Endpoint> endpoint(new Endpoint);
  const Vendor_Preset* const preset = vendor_preset(options.vendor);
  if (preset)
    apply_preset(*preset, settings);
  const std::string sign_method = options.sign_method.empty() && preset ? preset->sign_method : options.sign_method;
  if (!read_sign_method(sign_method, endpoint->credentials_.method)) {
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
  endpoint->gate_ = Request_Gate::of(options.host, endpoint->base_.port, options.access_key);
  endpoint->max_retry_seconds_ = options.max_retry_seconds;
  endpoint->ledger_ = options.ledger ? options.ledger : std::make_shared<S3_Ledger>();

  endpoint->credentials_.payload = settings.payload_signing;
  endpoint->lists_v2_ = settings.list_version == Endpoint_Settings::LIST_V2;
  endpoint->encodes_listings_ = settings.url_encoding != Endpoint_Settings::ENCODING_OFF;
  endpoint->part_size_ = std::max(settings.part_size, 1ull);
  endpoint->ranges_ = settings.ranges;
  endpoint->ranges_.size = std::max<size_t>(endpoint->ranges_.size, 1);
  endpoint->ranges_.first = std::max(endpoint->ranges_.first, 1u);
  endpoint->ranges_.most = std::max(endpoint->ranges_.most, 1u);
  HTTP_Settings http;
  http.connect_timeout = std::max(settings.connect_timeout, 1u);
  http.idle_timeout = std::max(settings.idle_timeout, 1u);
  http.min_rate = settings.min_rate;
  http.total_timeout = settings.total_timeout;
  http.ca_file = settings.ca_file;
  http.client_cert = settings.client_cert;
  http.client_key = settings.client_key;
  http.proxy = proxy ? proxy : settings.proxy;
  http.user_agent = settings.user_agent;
  endpoint->pool_ = std::make_shared<HTTP_Channel_Pool>(http);
  endpoint->settings_ = std::move(settings);
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
  address.virtual_host = settings_.addressing == Endpoint_Settings::ADDRESSING_VIRTUAL ||
                         (settings_.addressing == Endpoint_Settings::ADDRESSING_AUTO && !needs_path_style(base_.host));
  return address;
}

void Endpoint::learn_address(const std::string& bucket, const Address& address) {
  std::lock_guard<std::mutex> guard(mutex_);
  learned_[bucket] = address;
  any_learned_.store(true, std::memory_order_release);
}

bool Endpoint::learn_list_version(bool v2) {
  if (settings_.list_version != Endpoint_Settings::LIST_AUTO)
    return false;
  lists_v2_.store(v2, std::memory_order_relaxed);
  return true;
}

bool Endpoint::learn_listing_encoding(bool encoded) {
  if (settings_.url_encoding != Endpoint_Settings::ENCODING_AUTO)
    return false;
  encodes_listings_.store(encoded, std::memory_order_relaxed);
  return true;
}

std::string Endpoint::continuation(const std::string& listing, const std::string& marker) const {
  std::lock_guard<std::mutex> guard(mutex_);
  const auto found = continuations_.find({listing, marker});
  return found == continuations_.end() ? std::string() : found->second;
}

void Endpoint::learn_continuation(const std::string& listing, const std::string& marker, const std::string& token) {
  std::lock_guard<std::mutex> guard(mutex_);
  const auto [place, added] = continuations_.insert_or_assign({listing, marker}, token);
  if (!added)
    return;
  continuations_age_.push_back(place->first);
  if (continuations_age_.size() > MAX_CONTINUATIONS) {
    continuations_.erase(continuations_age_.front());
    continuations_age_.pop_front();
  }
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
