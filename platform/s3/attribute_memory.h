#pragma once

#include <atomic>
#include <map>
#include <mutex>
#include <set>
#include <string>

namespace s3 {

/// What an endpoint was found to do with the attributes of objects, so that a million objects are not refused, or asked
/// about, one by one. Shared by the services of one client; bounded. Any thread.
class Attribute_Memory {
public:
  /// The service's reason for refusing `value` of the kind (an Attribute_Kind) in `bucket`; empty when it has not.
  std::string refusal(const std::string& bucket, unsigned kind, const std::string& value) const;
  void refused(const std::string& bucket, unsigned kind, const std::string& value, const std::string& reason);
  /// Whether requests with and without attributes were refused alike with that code: no attribute was at fault.
  bool refused_anyhow(const std::string& bucket, const std::string& code) const;
  void refuses_anyhow(const std::string& bucket, const std::string& code);

  /// Whether the kind, once taken in `bucket`, was found to be kept there; of headers, that one of them.
  bool keeps(const std::string& bucket, unsigned kind, const std::string& header) const;
  void kept(const std::string& bucket, unsigned kind, const std::string& header);

  /// Whether an answer has ever named the number of an object's tags in `bucket`: an object whose answer does not has
  /// none then.
  bool counts_tags(const std::string& bucket) const;
  void tags_counted(const std::string& bucket);

  /// Whether GET may ask for checksums: services that refuse the header are asked without it from then on.
  bool asks_checksums() const { return asks_checksums_; }
  void ask_no_checksums() { asks_checksums_ = false; }
  /// Whether the service tells of single parts; true until it was found not to.
  bool tells_parts() const { return tells_parts_; }
  void tells_no_parts() { tells_parts_ = false; }

private:
  mutable std::mutex mutex_; ///< guards what follows
  std::map<std::string, std::string> refusals_;
  std::set<std::string> counting_buckets_;
  std::set<std::string> kept_;
  std::atomic<bool> asks_checksums_{true};
  std::atomic<bool> tells_parts_{true};
};

} // namespace s3
