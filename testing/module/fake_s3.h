#pragma once

#include "sdk/s3/s3_service.h"

#include <algorithm>
#include <cerrno>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace module_testing {

/// Buckets and objects in memory, as a service sees them, with hooks for what a test wants to go wrong. Any thread;
/// the hooks are set before threads start and are called without the store's lock.
class Fake_Store {
public:
  struct Stored {
    std::string data;
    ACE_UINT64 size = 0;
    ACE_UINT64 mtime = 0;
  };
  typedef std::map<std::string, Stored> Bucket;

  /// An object without data of its own, for listings.
  void put(const std::string& bucket, const std::string& key, ACE_UINT64 size = 0, ACE_UINT64 mtime = 0) {
    const std::lock_guard<std::mutex> guard(lock_);
    buckets_[bucket][key] = Stored{std::string(), size, mtime};
  }
  void put_data(const std::string& bucket, const std::string& key, const std::string& data, ACE_UINT64 mtime = 0) {
    const std::lock_guard<std::mutex> guard(lock_);
    buckets_[bucket][key] = Stored{data, data.size(), mtime};
  }
  bool erase(const std::string& bucket, const std::string& key) {
    const std::lock_guard<std::mutex> guard(lock_);
    return buckets_[bucket].erase(key) > 0;
  }
  bool find(const std::string& bucket, const std::string& key, Stored& stored) const {
    const std::lock_guard<std::mutex> guard(lock_);
    const auto at = buckets_.find(bucket);
    if (at == buckets_.end())
      return false;
    const auto object = at->second.find(key);
    if (object == at->second.end())
      return false;
    stored = object->second;
    return true;
  }
  Bucket bucket(const std::string& name) const {
    const std::lock_guard<std::mutex> guard(lock_);
    const auto at = buckets_.find(name);
    return at == buckets_.end() ? Bucket() : at->second;
  }
  bool has_bucket(const std::string& name) const {
    const std::lock_guard<std::mutex> guard(lock_);
    return buckets_.count(name) != 0;
  }
  void make_bucket(const std::string& name) {
    const std::lock_guard<std::mutex> guard(lock_);
    buckets_[name];
  }
  std::vector<std::string> bucket_names() const {
    const std::lock_guard<std::mutex> guard(lock_);
    std::vector<std::string> names;
    for (const auto& named : buckets_)
      names.push_back(named.first);
    return names;
  }

  /// One page, at most `limit` keys and prefixes, in the order of bytes.
  void list(const std::string& bucket, const Get_Bucket_Parameter& param, size_t limit,
            Get_Bucket_Content& content) const {
    const std::lock_guard<std::mutex> guard(lock_);
    const auto named = buckets_.find(bucket);
    if (named == buckets_.end())
      return;
    const std::string& prefix = param.prefix();
    const std::string& marker = param.marker();
    const bool marker_is_prefix = marker.size() > prefix.size() && marker.back() == '/';
    auto at = named->second.lower_bound(std::max(prefix, marker));
    for (; at != named->second.end() && at->first.compare(0, prefix.size(), prefix) == 0; ++at) {
      const std::string& key = at->first;
      if (!marker.empty() && key <= marker)
        continue;
      if (marker_is_prefix && key.compare(0, marker.size(), marker) == 0)
        continue;
      const size_t slash = param.delimiter().empty() ? std::string::npos : key.find('/', prefix.size());
      const std::string name = slash == std::string::npos ? key : key.substr(0, slash + 1);
      if (slash != std::string::npos && !content.common_prefixes.empty() && content.common_prefixes.back() == name)
        continue;
      if (content.objects.size() + content.common_prefixes.size() == limit) {
        content.truncated = true;
        return;
      }
      content.next_marker = name;
      if (slash != std::string::npos) {
        content.common_prefixes.push_back(name);
      } else {
        S3_Object object;
        object.name = key;
        object.exists = true;
        object.size = at->second.size;
        object.mtime = at->second.mtime;
        content.objects.push_back(object);
      }
    }
    content.next_marker.clear();
  }

  /// Each answers the error of a request, or one with number 0 to let it through.
  std::function<S3_Error(const std::string& bucket, const std::string& prefix, const std::string& marker)> on_list;
  std::function<S3_Error(const std::string& bucket, const std::string& key)> on_head;
  std::function<S3_Error(const std::string& bucket, const std::string& key, ACE_UINT64 offset)> on_get;
  std::string etag; ///< of every object, as HEAD tells it
  /// Bytes of a body that begins at `offset` after which it breaks off.
  std::function<size_t(ACE_UINT64 offset)> cut;
  /// Size of a listing page.
  std::function<size_t(const std::string& prefix, const std::string& marker)> page_size;
  /// Called for each new service, on the thread that asked; false: there is none to be had.
  std::function<bool()> on_service;

private:
  mutable std::mutex lock_;
  std::map<std::string, Bucket> buckets_;
};

class Fake_Connection : public HTTP_Connection {
public:
  /// Breaks off after `cut` bytes when that is less than there are.
  Fake_Connection(State state, std::string data, size_t cut) : state_(state), data_(std::move(data)), cut_(cut) {}

  State state() const override { return state_; }
  size_t recv(void* buffer, size_t size, const ACE_Time_Value*) override {
    if (buffer == nullptr || state_ < HEADERS_READ || state_ == REDIRECTED || state_ > BODY_READ)
      return RECV_FAILED;
    const size_t end = std::min(data_.size(), cut_);
    const size_t count = std::min(size, end - at_);
    data_.copy(static_cast<char*>(buffer), count, at_);
    at_ += count;
    state_ = at_ < end ? READING_BODY : end < data_.size() ? CLOSED : BODY_READ;
    return count;
  }
  void close() override { state_ = CLOSED; }

private:
  State state_;
  std::string data_;
  size_t cut_;
  size_t at_ = 0;
};

/// A service over a store. Keeps what it was asked.
class Fake_Store_Service : public S3_Service_Base {
public:
  explicit Fake_Store_Service(Fake_Store& store) : store_(store) {}

  bool get_service(const Get_Service_Parameter&, Get_Service_Content& content) override {
    for (const std::string& name : store_.bucket_names()) {
      S3_Bucket bucket;
      bucket.name = name;
      content.buckets.push_back(bucket);
    }
    return answer(S3_Error());
  }
  bool get_bucket(const char* bucket, const Get_Bucket_Parameter& param, Get_Bucket_Content& content) override {
    if (store_.on_list) {
      const S3_Error error = store_.on_list(bucket, param.prefix(), param.marker());
      if (error.number() != 0)
        return answer(error);
    }
    const size_t limit = store_.page_size ? store_.page_size(param.prefix(), param.marker()) : 1000;
    content = Get_Bucket_Content();
    store_.list(bucket, param, limit, content);
    return answer(S3_Error());
  }
  bool get_bucket_location(const char*, std::string& location) override {
    location.clear();
    return answer(S3_Error());
  }
  bool bucket_exists(const char* bucket) override {
    asked_buckets.push_back(bucket);
    return answer(store_.has_bucket(bucket) ? S3_Error() : S3_Error(ENOENT, 404, "NoSuchBucket", "", false));
  }
  bool create_bucket(const char* bucket) override {
    store_.make_bucket(bucket);
    return answer(S3_Error());
  }
  bool head_object(const char* bucket, const char* key, S3_Object& object) override {
    heads.push_back(std::string(bucket) + "|" + key);
    if (store_.on_head) {
      const S3_Error error = store_.on_head(bucket, key);
      if (error.number() != 0)
        return answer(error);
    }
    fill(bucket, key, object);
    answer(object.exists ? S3_Error() : S3_Error(ENOENT, 404, "NoSuchKey", "no such key", false));
    return true;
  }
  HTTP_Connection_var get_object(const char* bucket, const char* key, ACE_UINT64 offset, S3_Object* object) override {
    gets.push_back(offset);
    get_objects.push_back(object != nullptr);
    S3_Error error;
    if (store_.on_get)
      error = store_.on_get(bucket, key, offset);
    Fake_Store::Stored stored;
    if (error.number() == 0 && !store_.find(bucket, key, stored))
      error = S3_Error(ENOENT, 404, "NoSuchKey", "no such key", false);
    answer(error);
    if (error.number() != 0)
      return HTTP_Connection_var(new Fake_Connection(HTTP_Connection::FAILED, "", 0));
    if (object != nullptr)
      fill(bucket, key, *object);
    const size_t cut = store_.cut ? store_.cut(offset) : std::string::npos;
    return HTTP_Connection_var(
        new Fake_Connection(HTTP_Connection::HEADERS_READ, stored.data.substr(static_cast<size_t>(offset)), cut));
  }
  bool del_object(const char* bucket, const char* key) override {
    store_.erase(bucket, key);
    return answer(S3_Error());
  }
  S3_IWriter_ptr upload(const char*, const char*, ACE_UINT64) override { return nullptr; }

  std::vector<std::string> asked_buckets;
  std::vector<std::string> heads; ///< "bucket|key"
  std::vector<ACE_UINT64> gets;   ///< offsets
  std::vector<bool> get_objects;  ///< whether the object's description was asked for

private:
  bool answer(const S3_Error& error) {
    set_error(error);
    return error.number() == 0;
  }
  void fill(const char* bucket, const char* key, S3_Object& object) {
    Fake_Store::Stored stored;
    object.name = key;
    object.exists = store_.find(bucket, key, stored);
    object.size = stored.size;
    object.mtime = stored.mtime;
    object.etag = store_.etag;
  }

  Fake_Store& store_;
};

/// A client whose services work on a store.
class Fake_Store_Client : public S3_Client {
public:
  explicit Fake_Store_Client(Fake_Store& store) : store_(store) {}
  std::shared_ptr<S3_Service_Base> make_service() override {
    if (store_.on_service && !store_.on_service())
      return nullptr;
    return std::make_shared<Fake_Store_Service>(store_);
  }

private:
  Fake_Store& store_;
};

inline S3_Error retriable_failure() {
  return S3_Error(EAGAIN, 503, "SlowDown", "slow down", true);
}
inline S3_Error final_failure() {
  return S3_Error(EACCES, 403, "AccessDenied", "no", false);
}

} // namespace module_testing
