#pragma once

#include "sdk/s3/s3_service.h"

#include <deque>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <dlfcn.h>

namespace module_testing {

/// A service that answers what a test has put into it and keeps what it was asked. Objects cannot be read or written.
/// One thread at a time.
class Fake_S3_Service : public S3_Service_Base {
public:
  typedef S3_Error Failure;

  /// The pages of the bucket list, handed out in order; a page with `failure` set fails with it.
  struct Service_Page {
    Get_Service_Content content;
    Failure failure;
  };

  bool get_service(const Get_Service_Parameter& param, Get_Service_Content& content) override {
    service_markers.push_back(param.marker());
    if (service_pages.empty())
      return fail(S3_Error(5, 500, "NoPage", "the test has no page for this", false));
    const Service_Page page = service_pages.front();
    service_pages.pop_front();
    if (page.failure.number() != 0)
      return fail(page.failure);
    content = page.content;
    return succeed();
  }
  bool get_bucket(const char* bucket, const Get_Bucket_Parameter& param, Get_Bucket_Content& content) override {
    asked_bucket = bucket;
    asked_listing = param;
    if (listing_failure.number() != 0)
      return fail(listing_failure);
    content = listing;
    return succeed();
  }
  bool get_bucket_location(const char* bucket, std::string& location) override {
    asked_locations.push_back(bucket);
    location = locations[bucket];
    return succeed();
  }
  bool bucket_exists(const char* bucket) override {
    asked_buckets.push_back(bucket);
    return buckets.count(bucket) ? succeed() : fail(bucket_failure);
  }
  bool create_bucket(const char*) override { return false; }
  bool head_object(const char*, const char*, S3_Object&) override { return false; }
  HTTP_Connection_var get_object(const char*, const char*, ACE_UINT64, S3_Object*) override {
    return HTTP_Connection_var();
  }
  bool del_object(const char*, const char*) override { return false; }
  S3_IWriter_ptr upload(const char*, const char*, ACE_UINT64) override { return S3_IWriter_ptr(); }

  /// A page of buckets by their names.
  void add_service_page(const std::vector<S3_Bucket>& page, const std::string& next_marker = std::string(),
                        const std::string& owner = std::string()) {
    Service_Page entry;
    entry.content.buckets = page;
    entry.content.owner = owner;
    entry.content.truncated = !next_marker.empty();
    entry.content.next_marker = next_marker;
    service_pages.push_back(entry);
  }
  void add_service_failure(const Failure& failure) {
    Service_Page entry;
    entry.failure = failure;
    service_pages.push_back(entry);
  }

  std::deque<Service_Page> service_pages;
  std::set<std::string> buckets; ///< that exist
  Failure bucket_failure{2, 404, "NoSuchBucket", "The bucket does not exist", false};
  std::map<std::string, std::string> locations; ///< by bucket
  Get_Bucket_Content listing;
  Failure listing_failure;

  std::vector<std::string> service_markers;
  std::vector<std::string> asked_buckets;
  std::vector<std::string> asked_locations;
  std::string asked_bucket;
  Get_Bucket_Parameter asked_listing;

private:
  bool succeed() {
    set_error(S3_Error());
    return true;
  }
  bool fail(const Failure& failure) {
    set_error(failure);
    return false;
  }
};

inline S3_Bucket bucket(const std::string& name, const std::string& location = std::string(),
                        const std::string& region = std::string(), time_t ctime = 0) {
  S3_Bucket result;
  result.name = name;
  result.location = location;
  result.region = region;
  result.ctime = ctime;
  return result;
}

/// What makes the services of the program instead of the platform while it is set.
inline std::function<std::shared_ptr<S3_Service_Base>(const S3_Service_Options&)>& service_maker() {
  static std::function<std::shared_ptr<S3_Service_Base>(const S3_Service_Options&)> maker;
  return maker;
}

/// Lets every new service be `service`, for the life of this object, and keeps the options of the last one.
class Service_Hook {
public:
  explicit Service_Hook(std::shared_ptr<S3_Service_Base> service) {
    service_maker() = [this, service](const S3_Service_Options& asked) {
      options = asked;
      ++made;
      return service;
    };
  }
  ~Service_Hook() { service_maker() = nullptr; }
  Service_Hook(const Service_Hook&) = delete;
  Service_Hook& operator=(const Service_Hook&) = delete;

  S3_Service_Options options;
  int made = 0;
};

} // namespace module_testing

/// Takes the place of the platform's function in a test program, once in each that uses Service_Hook. Without a hook
/// the platform's own is called.
#define MODULE_TESTING_DEFINE_SERVICE_HOOK()                                                                           \
  std::shared_ptr<S3_Service_Base> make_s3_service(const S3_Service_Options& options) {                                \
    if (module_testing::service_maker())                                                                               \
      return module_testing::service_maker()(options);                                                                 \
    typedef std::shared_ptr<S3_Service_Base> (*Make)(const S3_Service_Options&);                                       \
    return reinterpret_cast<Make>(dlsym(RTLD_NEXT, "_Z15make_s3_serviceRK18S3_Service_Options"))(options);             \
  }
