#pragma once

#include "sdk/http/http_connection.h"
#include "sdk/json/json_spirit.h"
#include "sdk/s3/s3_types.h"

/// The stream into one object being uploaded. The object appears only when `close` has answered true; destroying the
/// writer before gives the upload up and leaves nothing behind. One thread at a time.
class S3_IWriter {
public:
  virtual ~S3_IWriter();
  /// Bytes accepted (> 0), 0 when the size that was declared is reached already, < 0 on error.
  virtual int write(const char* data, size_t length) = 0;
  /// True when exactly the declared number of bytes was written and the service has stored the object.
  virtual bool close() = 0;
};
typedef std::unique_ptr<S3_IWriter> S3_IWriter_ptr;

/// One conversation with a service: requests one after the other, each leaving its error in `last_error`. One thread
/// at a time; services of one client share its live connections and may work side by side.
///
/// A request is sent once (a HEAD of an object again, within the options' bound); the caller decides. Keys are bytes.
class S3_Service_Base {
public:
  virtual ~S3_Service_Base();

  /// One page of the account's buckets.
  virtual bool get_service(const Get_Service_Parameter& param, Get_Service_Content& content) = 0;
  /// One page of a bucket's keys.
  virtual bool get_bucket(const char* bucket, const Get_Bucket_Parameter& param, Get_Bucket_Content& content) = 0;
  /// The region that a bucket lies in; `location` is empty where the service names none.
  virtual bool get_bucket_location(const char* bucket, std::string& location) = 0;
  virtual bool bucket_exists(const char* bucket) = 0;
  virtual bool create_bucket(const char* bucket) = 0;
  /// True when the service answered; `object.exists` says whether the object is there, the last error why it is not.
  virtual bool head_object(const char* bucket, const char* key, S3_Object& object) = 0;
  /// Asks for an object's bytes from `offset` on and returns when the answer's head is in. `object`, when given, is
  /// filled from it (`exists` false when the service says there is none). Never null but for short memory; a request
  /// that failed gives a connection in state FAILED, and `last_error` says why.
  /// A request with an offset is answered only from the same generation of the object that this service's last
  /// request for the same key began with; else it fails, not retriable, with code "PreconditionFailed".
  virtual HTTP_Connection_var get_object(const char* bucket, const char* key, ACE_UINT64 offset, S3_Object* object) = 0;
  /// True when the object is gone, also when there was none.
  virtual bool del_object(const char* bucket, const char* key) = 0;
  /// Empty on failure. Large objects are sent in parts.
  virtual S3_IWriter_ptr upload(const char* bucket, const char* key, ACE_UINT64 size) = 0;

  const S3_Error& last_error() const { return last_error_; }
  /// The last error as text; valid until the next request.
  const char* error() const { return error_text_.c_str(); }

protected:
  void set_error(const S3_Error& error);

private:
  S3_Error last_error_;
  std::string error_text_;
};
typedef std::shared_ptr<S3_Service_Base> S3_Service_var;

/// A service for `options`; empty, after a log line, when they make no sense (an unknown `sign_method`, no host).
/// No request is sent.
std::shared_ptr<S3_Service_Base> make_s3_service(const S3_Service_Options& options);

/// A logged-on client, from which services are made. Its operations may be called from several threads.
class S3_Client {
public:
  S3_Client();
  virtual ~S3_Client();
  S3_Client(const S3_Client&) = delete;
  S3_Client& operator=(const S3_Client&) = delete;

  /// Sets where and how to connect; no request is sent. `proxy` is a URL or null. False when the options make no
  /// sense, as for `make_s3_service`.
  virtual bool connect(const std::string& scheme, const std::string& host, unsigned short port, bool ssl,
                       const char* proxy, const S3_Client_Options& options);
  /// A service of its own for the caller; empty while not connected.
  virtual std::shared_ptr<S3_Service_Base> make_service();
  /// Appends each bucket as {"dir": name}. False when the service cannot be asked; what was had until then stays.
  virtual bool get_buckets(std::vector<json_spirit::Value>& buckets);
  /// Retried within the options' bound. Empty on failure.
  virtual S3_IWriter_ptr upload(const std::string& bucket, const std::string& key, size_t size);
  virtual bool del(const std::string& bucket, const std::string& key);

private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};
