#pragma once

#include "platform/s3/listing.h"
#include "sdk/s3/s3_service.h"

namespace s3 {

/// A service over HTTP.
class Service final : public S3_Service_Base {
public:
  explicit Service(std::shared_ptr<Endpoint> endpoint);
  ~Service() override;

  bool get_service(const Get_Service_Parameter& param, Get_Service_Content& content) override;
  bool get_bucket(const char* bucket, const Get_Bucket_Parameter& param, Get_Bucket_Content& content) override;
  bool get_bucket_location(const char* bucket, std::string& location) override;
  bool bucket_exists(const char* bucket) override;
  bool create_bucket(const char* bucket) override;
  bool head_object(const char* bucket, const char* key, S3_Object& object) override;
  HTTP_Connection_var get_object(const char* bucket, const char* key, ACE_UINT64 offset, S3_Object* object) override;
  bool del_object(const char* bucket, const char* key) override;
  S3_IWriter_ptr upload(const char* bucket, const char* key, ACE_UINT64 size) override;

  /// Seconds that the service asked to wait when it refused the last request; 0: none.
  unsigned retry_after() const { return retry_after_; }

private:
  /// The generation of an object that a reader has begun with.
  struct Generation {
    std::string bucket;
    std::string key;
    std::string etag;
    ACE_UINT64 size = 0;
  };

  bool report(Outcome outcome);
  HTTP_Connection_var no_object(const std::string& path, const S3_Error& error, Curl_Connection_ref connection);
  S3_Error archived(const Request& request, const std::string& storage_class, const S3_Error& error);
  bool named(const char* bucket);
  bool named(const char* bucket, const char* key);
  bool fits(const HTTP_Head& head, ACE_UINT64 offset, const Generation* generation, const std::string& what,
            ACE_UINT64& size);

  std::shared_ptr<Endpoint> endpoint_;
  Transport transport_;
  Listing listing_; ///< on transport_
  Generation generation_;
  unsigned retry_after_ = 0;
};

} // namespace s3
