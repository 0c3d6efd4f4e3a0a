#pragma once

#include "platform/http/http_message.h"

#include <curl/curl.h>

#include <memory>
#include <mutex>
#include <vector>

struct Curl_Easy_Cleanup {
  void operator()(CURL* easy) const { curl_easy_cleanup(easy); }
};
struct Curl_Multi_Cleanup {
  void operator()(CURLM* multi) const { curl_multi_cleanup(multi); }
};
struct Curl_List_Free {
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
typedef std::unique_ptr<CURL, Curl_Easy_Cleanup> Curl_Easy_ptr;
typedef std::unique_ptr<CURLM, Curl_Multi_Cleanup> Curl_Multi_ptr;
typedef std::unique_ptr<curl_slist, Curl_List_Free> Curl_List_ptr;

/// A handle for one request at a time with the live connections that it made. What all requests share is set once;
/// a request sets only what is its own.
struct HTTP_Channel {
  Curl_Multi_ptr multi; ///< keeps the live connections; destroyed last
  Curl_Easy_ptr easy;
  char error[CURL_ERROR_SIZE] = {};

  ~HTTP_Channel();
};
typedef std::unique_ptr<HTTP_Channel> HTTP_Channel_ptr;

/// Channels that are not in use, the one used last handed out first, so that the connections that are kept are those
/// that are warm. Any thread.
class HTTP_Channel_Pool {
public:
  explicit HTTP_Channel_Pool(const HTTP_Settings& settings) : settings_(settings) {}
  HTTP_Channel_Pool(const HTTP_Channel_Pool&) = delete;
  HTTP_Channel_Pool& operator=(const HTTP_Channel_Pool&) = delete;

  /// A channel for the caller alone; null when memory is short.
  HTTP_Channel_ptr acquire();
  /// Takes it back, with no request on it.
  void release(HTTP_Channel_ptr channel);
  const HTTP_Settings& settings() const { return settings_; }

private:
  HTTP_Channel_ptr make() const;

  const HTTP_Settings settings_;
  std::mutex mutex_; ///< guards idle_
  std::vector<HTTP_Channel_ptr> idle_;
};
