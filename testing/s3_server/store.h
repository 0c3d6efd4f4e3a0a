#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace s3_testing {

// One generation of an object. Immutable once stored: a GET in flight keeps its generation while another replaces it.
// Content is either kept (`segments`), or synthetic: a function of `seed` and the offset, made while it is sent; or it
// was thrown away (`thrown_away`).
struct Object {
  std::uint64_t size = 0;
  std::int64_t mtime = 0; // seconds since 1970; 0 when stored through S3_Server: the server's clock
  std::string etag; // without quotes; empty when stored through S3_Server: MD5, or made up for large synthetic content
  std::string content_type = "binary/octet-stream";
  std::string storage_class = "STANDARD";     // GLACIER and DEEP_ARCHIVE answer GET with 403 InvalidObjectState,
                                              // unless "x-amz-restore" in `headers` names a copy that is there
  std::map<std::string, std::string> headers; // "x-amz-meta-*", "cache-control" and the like; names in lower case
  std::map<std::string, std::string> tags;
  std::map<std::string, std::string> checksums; // header names; told where x-amz-checksum-mode asks
  struct Grant {
    std::string type, grantee, permission;
    bool operator==(const Grant& other) const = default;
  };
  std::vector<Grant> grants;             // empty: private
  std::vector<std::uint64_t> part_sizes; // of a multipart upload
  bool synthetic = false;
  std::uint64_t seed = 0;
  std::vector<std::shared_ptr<const std::string>> segments;
  // A part whose content was thrown away: what is known of it all the same.
  struct Thrown_Away {
    std::uint64_t size = 0;
    std::string md5; // raw
  };
  // Not empty: the whole content is like that, part by part. Such an object can be listed and compared, not read.
  std::vector<Thrown_Away> thrown_away;

  // Replaces `out` by the bytes [offset, offset + length); the range must lie inside the object.
  void read(std::uint64_t offset, std::size_t length, std::string& out) const;
  std::string bytes() const;
};

using Object_Ptr = std::shared_ptr<const Object>;

// The bytes [offset, offset + length) of the endless stream that belongs to `seed`.
std::string synthetic_bytes(std::uint64_t seed, std::uint64_t offset, std::size_t length);

// Empty where both have the same content, else what differs. Content that was thrown away is compared by its digests.
std::string difference(const Object& a, const Object& b);

Object make_object(std::string bytes);
Object make_synthetic_object(std::uint64_t size, std::uint64_t seed);

// A run of keys that exist without being stored. `key` must grow bytewise with the index and, like `size`, answer
// the same for the same index always; both are called from server threads.
struct Synthetic_Keys {
  std::uint64_t count = 0;
  std::function<std::string(std::uint64_t)> key;
  std::function<std::uint64_t(std::uint64_t)> size;
  std::uint64_t seed = 1;
  std::int64_t mtime = 0;
};

struct Listed {
  std::string key;
  Object_Ptr object;
};

// Buckets in memory. Keys are byte strings in bytewise order. Every operation may be called from any thread; the
// lock guards all buckets.
class Store {
public:
  bool create_bucket(const std::string& bucket, std::int64_t now);
  // 0 removed, 1 no such bucket, 2 not empty.
  int remove_bucket(const std::string& bucket);
  bool has_bucket(const std::string& bucket) const;
  // Name and time of creation.
  std::vector<std::pair<std::string, std::int64_t>> buckets() const;

  // False where the bucket does not exist.
  bool put(const std::string& bucket, const std::string& key, Object object);
  bool add_synthetic(const std::string& bucket, Synthetic_Keys keys);
  // True where the object existed.
  bool remove(const std::string& bucket, const std::string& key);
  Object_Ptr find(const std::string& bucket, const std::string& key) const;
  std::uint64_t object_count(const std::string& bucket) const;

  // Walks the keys >= `from` in order until `visit` returns false for "enough". `visit` may put the key to go on from
  // into its second argument, which must be greater than the one visited, to leap over keys; it must not call the
  // store. The key and the object are only made where needed: `visit` asks for the object by calling its third.
  using Make_Object = std::function<Object_Ptr()>;
  using Visit = std::function<bool(const std::string& key, std::string& leap, const Make_Object& object)>;
  void walk(const std::string& bucket, const std::string& from, const Visit& visit) const;

private:
  struct Run {
    Synthetic_Keys keys;
    std::string first, last;
    std::uint64_t lower_bound(const std::string& key) const;
    Object_Ptr object(std::uint64_t index) const;
  };
  struct Bucket {
    std::int64_t created = 0;
    std::map<std::string, Object_Ptr> objects;
    std::vector<Run> runs;
    std::set<std::string> removed; // keys of runs that were removed or replaced by one in `objects`
  };
  static bool in_runs(const Bucket& bucket, const std::string& key, Object_Ptr* object);

  mutable std::shared_mutex lock_;
  std::map<std::string, Bucket> buckets_;
};

} // namespace s3_testing
