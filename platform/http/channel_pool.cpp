#include "platform/http/channel_pool.h"

namespace {

/// Idle channels kept: above it a client's burst of readers has ended, and its connections may go.
constexpr size_t MAX_IDLE_CHANNELS = 64;
/// One read of a body; also what a channel takes for its receive buffer while a request runs.
constexpr long RECEIVE_SIZE = 64 * 1024;

bool curl_ready() {
  static const bool ready = curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK;
  return ready;
}

} // namespace

HTTP_Channel::~HTTP_Channel() {
  if (multi && easy)
    curl_multi_remove_handle(multi.get(), easy.get());
}

HTTP_Channel_ptr HTTP_Channel_Pool::make() const {
  if (!curl_ready())
    return nullptr;
  HTTP_Channel_ptr channel(new (std::nothrow) HTTP_Channel);
  if (!channel)
    return nullptr;
  channel->multi.reset(curl_multi_init());
  channel->easy.reset(curl_easy_init());
  CURL* easy = channel->easy.get();
  if (!channel->multi || !easy)
    return nullptr;
  curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, channel->error);
  curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(easy, CURLOPT_NOPROGRESS, 1L);
  curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(easy, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 0L);
  curl_easy_setopt(easy, CURLOPT_PATH_AS_IS, 1L);
  curl_easy_setopt(easy, CURLOPT_TCP_NODELAY, 1L);
  curl_easy_setopt(easy, CURLOPT_TCP_KEEPALIVE, 1L);
  curl_easy_setopt(easy, CURLOPT_BUFFERSIZE, RECEIVE_SIZE);
  curl_easy_setopt(easy, CURLOPT_DNS_CACHE_TIMEOUT, 300L);
  // A request that is given up does not wait for the resolver's answer, which may be half a minute away.
  curl_easy_setopt(easy, CURLOPT_QUICK_EXIT, 1L);
  curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT, static_cast<long>(settings_.connect_timeout));
  curl_easy_setopt(easy, CURLOPT_TIMEOUT, static_cast<long>(settings_.total_timeout));
  curl_easy_setopt(easy, CURLOPT_PROXY, settings_.proxy.c_str());
  curl_easy_setopt(easy, CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
  if (!settings_.ca_file.empty()) {
    curl_easy_setopt(easy, CURLOPT_CAINFO, settings_.ca_file.c_str());
    curl_easy_setopt(easy, CURLOPT_CAPATH, nullptr);
  }
  if (!settings_.client_cert.empty()) {
    curl_easy_setopt(easy, CURLOPT_SSLCERT, settings_.client_cert.c_str());
    curl_easy_setopt(easy, CURLOPT_SSLKEY,
                     (settings_.client_key.empty() ? settings_.client_cert : settings_.client_key).c_str());
  }
  if (!settings_.user_agent.empty())
    curl_easy_setopt(easy, CURLOPT_USERAGENT, settings_.user_agent.c_str());
  return channel;
}

HTTP_Channel_ptr HTTP_Channel_Pool::acquire() {
  {
    std::lock_guard<std::mutex> guard(mutex_);
    if (!idle_.empty()) {
      HTTP_Channel_ptr channel = std::move(idle_.back());
      idle_.pop_back();
      return channel;
    }
  }
  return make();
}

void HTTP_Channel_Pool::release(HTTP_Channel_ptr channel) {
  std::lock_guard<std::mutex> guard(mutex_);
  if (idle_.size() < MAX_IDLE_CHANNELS)
    idle_.push_back(std::move(channel));
}
