#pragma once

#include <ace/Basic_Types.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

class S3_Ledger;

/// Why a request failed.
class S3_Error {
public:
  S3_Error() = default;
  S3_Error(int number, int status, std::string code, std::string message, bool retriable)
      : number_(number), status_(status), code_(std::move(code)), message_(std::move(message)), retriable_(retriable) {}

  int number() const { return number_; }            ///< an errno value; 0: no error
  int status() const { return status_; }            ///< HTTP status; 0 when there was no answer
  const std::string& code() const { return code_; } ///< the service's own, as "NoSuchKey", or the transport's
  const std::string& message() const { return message_; }
  bool retriable() const { return retriable_; } ///< whether repeating the request may help
  /// "CODE: message" for log lines.
  std::string text() const { return message_.empty() ? code_ : code_ + ": " + message_; }

private:
  int number_ = 0;
  int status_ = 0;
  std::string code_;
  std::string message_;
  bool retriable_ = false;
};

/// A key as a listing or a look at it tells. A value.
struct S3_Object {
  std::string name; ///< the key
  bool exists = false;
  ACE_UINT64 mtime = 0;      ///< seconds since the epoch
  ACE_UINT64 size = 0;       ///< bytes
  std::string etag;          ///< opaque, quotes included; empty in listings and where the service tells none
  std::string storage_class; ///< empty for the service's default
};

/// A bucket as the account's list tells.
struct S3_Bucket {
  std::string name;
  std::string location; ///< empty where the service names none; so is `region`
  std::string region;
  time_t ctime = 0; ///< seconds since the epoch; 0 where the service names no time
};

/// Which page of the account's buckets is asked for. Texts are copied; a null counts as empty.
class Get_Service_Parameter {
public:
  void marker(const char* text) { marker_ = text ? text : ""; }
  const std::string& marker() const { return marker_; }

private:
  std::string marker_;
};

/// One page of the account's buckets.
struct Get_Service_Content {
  std::vector<S3_Bucket> buckets;
  std::string owner;
  bool truncated = false;
  std::string next_marker;
};

/// Which page of which keys is asked for. Texts are bytes and copied; a null counts as empty, and none is sent then.
class Get_Bucket_Parameter {
public:
  void prefix(const char* text) { prefix_ = text ? text : ""; }
  void marker(const char* text) { marker_ = text ? text : ""; }
  void delimiter(const char* text) { delimiter_ = text ? text : ""; }
  /// Keys and common prefixes of a page; negative: the service's own number.
  void max_keys(int count) { max_keys_ = count; }
  const std::string& prefix() const { return prefix_; }
  const std::string& marker() const { return marker_; }
  const std::string& delimiter() const { return delimiter_; }
  int max_keys() const { return max_keys_; }

private:
  std::string prefix_;
  std::string marker_;
  std::string delimiter_;
  int max_keys_ = -1;
};

/// One page of a listing. Keys and prefixes are the bytes of the keys themselves, decoded.
struct Get_Bucket_Content {
  std::vector<S3_Object> objects;
  std::vector<std::string> common_prefixes;
  bool truncated = false;
  /// Where the next page begins; never empty while `truncated`, also where the service gives none.
  std::string next_marker;
};

/// How a client logs on to a service.
struct S3_Client_Options {
  S3_Client_Options();
  /// Requests whose waits add up to `max_retry_seconds` are given up; -1: no bound.
  S3_Client_Options(const std::string& access_key, const std::string& secret_key, int max_retry_seconds);
  ~S3_Client_Options();

  std::string access_key;
  std::string secret_key;            ///< plain
  int max_retry_seconds = 0;         ///< 0: each request is sent once
  std::string region;                ///< to sign for; empty: the vendor's, else the default
  std::string vendor;                ///< name of a preset; empty: none
  std::string sign_method;           ///< "v4", "v2"; empty: the vendor's, else v4
  std::shared_ptr<S3_Ledger> ledger; ///< of the job that the constructing thread works for
};

/// How one service is reached.
struct S3_Service_Options {
  S3_Service_Options();
  ~S3_Service_Options();

  std::string type; ///< URI scheme
  std::string host;
  unsigned short port = 0; ///< 0: the scheme's
  bool ssl = false;
  std::string access_key;
  std::string secret_key;
  std::string region; ///< these as in S3_Client_Options
  std::string vendor;
  std::string sign_method;
  int max_retry_seconds = 0; ///< at first the one of the constructing thread's job; 0: it has none
  std::string sts_token;     ///< session token of temporary keys; empty: none
  // Where a host renews temporary keys; accepted, no effect here.
  bool sts_credential = false;
  time_t sts_expires = 0; ///< seconds since the epoch
  std::string sts_server_host;
  unsigned short sts_server_port = 0;
  bool sts_server_ssl = false;
  std::string sts_server_token;
  std::string device_id;
  std::shared_ptr<S3_Ledger> ledger; ///< of the job that the constructing thread works for
};
