#pragma once

#include "testing/s3_server/fault.h"
#include "testing/s3_server/store.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace s3_testing {

enum class Signatures { any, v4_only, v2_only };
enum class Addressing { any, path_only, virtual_only };
// What the server makes of encoding-type=url: some services ignore it, some leave common prefixes unencoded, some
// refuse it, some encode without saying so.
enum class Key_Encoding { as_asked, ignored, keys_only, refused, unsaid };
enum class Expect_Reply { send_continue, ignore, refuse };

// How a header of a PUT, or of the start of a multipart upload, is refused.
struct Header_Refusal {
  int status = 400;
  std::string code;
  std::string message;
  std::string value; // only this one; empty: any
};

struct S3_Server_Options {
  bool tls = false;
  std::string tls_names = "DNS:localhost,DNS:*.localhost,IP:127.0.0.1"; // whom the certificate is for
  long tls_valid_seconds = 30 * 24 * 3600;                              // from now on; negative: it has expired
  bool tls_client_certificate = false; // only clients that show the certificate of client_certificate_file()
  std::uint64_t seed = 0;              // of the faults' randomness; 0: a random one, see S3_Server::seed
  std::string access_key = "TESTACCESSKEY0000001";
  std::string secret_key = "testsecretkey/00000000000000000000000001";
  std::string region = "us-east-1";
};

// What a test may change while the server runs; a request sees the settings of the moment its head was read.
struct S3_Server_Settings {
  Signatures signatures = Signatures::any;
  Addressing addressing = Addressing::any;
  Key_Encoding key_encoding = Key_Encoding::as_asked;
  Expect_Reply expect = Expect_Reply::send_continue;
  bool list_v1 = true;                    // false: listings without list-type are answered with 501
  bool list_v2 = true;                    // false: list-type=2 is answered with 501
  bool list_type_ignored = false;         // list-type=2 is answered as if it were not there
  bool ranges = true;                     // false: Range is ignored
  bool if_match = true;                   // false: If-Match is ignored
  bool unsigned_payload = true;           // false: bodies must be signed
  std::uint32_t requests_per_second = 0;  // what is above it gets 503 SlowDown; 0: no bound
  std::uint32_t page_size = 1000;         // cap on max-keys
  std::uint64_t min_part_size = 5u << 20; // of all parts but the last
  std::string region;
  std::optional<std::string> location;        // what GetBucketLocation answers; else the region, us-east-1 as empty
  bool etags = true;                          // false: GET and HEAD name none
  bool object_attributes = true;              // false: tags and access lists are answered with 501
  bool counts_tags = true;                    // GET and HEAD tell x-amz-tagging-count where there are some
  bool forgets_multipart_tags = false;        // those given at the start of a multipart upload, as radosgw 16 does
  bool tells_parts = true;                    // false: partNumber of GET and HEAD is ignored
  bool object_lock = true;                    // false: the buckets have no object lock
  std::vector<std::string> forgotten_headers; // taken and not kept; by the beginning of their names
  std::map<std::string, Header_Refusal> refused_headers; // by the beginning of their names, in lower case
  bool throw_away_parts = false;              // of multipart uploads: their digests are kept, not their bytes
  std::uint64_t bytes_per_second = 0;         // cap per connection on bodies sent; 0: none
  int latency_milliseconds = 0;               // before each reply
  std::map<std::string, std::string> secrets; // access key -> secret key
  std::function<std::int64_t()> clock;        // seconds since 1970; any thread
  bool dates = true;                          // false: replies have no Date
  std::function<double()> limit_clock;        // what requests_per_second counts by; empty: the machine's. Any thread
  std::int64_t date_ahead = 0;                // seconds that replies' Date is ahead of the clock that dates objects
};

// An S3 service inside the test's process, on 127.0.0.1 and a free port. It keeps buckets in memory, checks what it is
// sent more strictly than real services do, and fails as scripted.
//
// Life: the constructor returns when connections are accepted, and throws std::runtime_error where that cannot be
// had. The destructor ends stalls and delays, closes all connections and joins all threads.
// Threads: every operation may be called from any thread. One thread serves each connection.
// What is stored is owned by the server; objects handed out are shared and immutable.
class S3_Server {
public:
  explicit S3_Server(S3_Server_Options options = {});
  ~S3_Server();
  S3_Server(const S3_Server&) = delete;
  S3_Server& operator=(const S3_Server&) = delete;

  std::uint16_t port() const;
  std::string endpoint() const;      // "127.0.0.1:PORT"
  std::string url() const;           // with "http://" or "https://"
  const std::string& ca_pem() const; // empty without TLS
  // A file with the same, removed by the destructor.
  const std::string& ca_file() const;
  // A certificate and its key that this server takes from clients; "" without TLS.
  const std::string& client_certificate_file() const;
  std::uint64_t seed() const;

  void set_credentials(const std::string& access_key, const std::string& secret_key); // these and no others
  void add_credentials(const std::string& access_key, const std::string& secret_key);
  void configure(const std::function<void(S3_Server_Settings&)>& change);

  void add_fault(Fault fault);
  void clear_faults();
  std::uint64_t faults_struck() const;
  // Objects that faults replaced while they were read.
  std::uint64_t objects_changed() const;
  // Stalled replies (without a time of their own) end: their connections are closed.
  void release_stalls();

  // Connections are refused until listen_again, which takes the same port; open ones live on.
  void stop_listening();
  void listen_again();
  void drop_connections();

  // These pass every check and fault by. False, null or empty where the bucket or the key does not exist.
  bool create_bucket(const std::string& bucket);
  bool has_bucket(const std::string& bucket) const;
  bool put(const std::string& bucket, const std::string& key, std::string bytes);
  bool put(const std::string& bucket, const std::string& key, Object object);
  bool put_synthetic(const std::string& bucket, const std::string& key, std::uint64_t size, std::uint64_t seed);
  // `count` keys: `prefix` and ten digits from 0000000000 on, each of `size` bytes. Takes no memory per key.
  bool add_synthetic(const std::string& bucket, const std::string& prefix, std::uint64_t count, std::uint64_t size,
                     std::uint64_t seed = 1);
  bool add_synthetic(const std::string& bucket, Synthetic_Keys keys);
  std::optional<std::string> get(const std::string& bucket, const std::string& key) const;
  Object_Ptr object(const std::string& bucket, const std::string& key) const;
  bool remove(const std::string& bucket, const std::string& key);
  std::vector<std::string> keys(const std::string& bucket) const;
  std::uint64_t object_count(const std::string& bucket) const;
  // Multipart uploads begun and neither completed nor aborted.
  std::size_t open_uploads() const;

  // Requests seen, by operation: ListBuckets, GetBucketLocation, ListObjects, ListObjectsV2, HeadBucket, CreateBucket,
  // DeleteBucket, GetObject, HeadObject, PutObject, DeleteObject, RestoreObject, CreateMultipartUpload, UploadPart,
  // CompleteMultipartUpload, AbortMultipartUpload, ListMultipartUploads, ListParts; "Malformed" for what was
  // none. The empty name counts all.
  std::uint64_t count(const std::string& operation = {}) const;
  std::map<std::string, std::uint64_t> counts() const;
  // Waits until count(operation) >= `at_least`, resp. so many replies stall. False after `seconds`.
  bool wait_for_count(const std::string& operation, std::uint64_t at_least, double seconds) const;
  bool wait_for_stalls(std::size_t at_least, double seconds) const;
  std::uint64_t max_concurrent() const; // most requests that were in work at one time
  std::uint64_t connections_opened() const;
  std::uint64_t body_bytes_sent() const;
  void reset_counts();
  void keep_log(bool keep); // off at first
  std::vector<Request_Info> log() const;

private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

} // namespace s3_testing
