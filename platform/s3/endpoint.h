#pragma once

#include "platform/http/channel_pool.h"
#include "platform/s3/attribute_memory.h"
#include "platform/s3/endpoint_settings.h"
#include "platform/s3/ledger.h"
#include "platform/s3/request_builder.h"
#include "sdk/s3/s3_types.h"

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace s3 {

/// What all services of one client share: where the service is, the keys, the live connections, and what was learned
/// about it on the way. Any thread.
class Endpoint {
public:
  /// Null, after a log line, for options that make no sense. `proxy` may be null.
  static std::shared_ptr<Endpoint> make(const S3_Service_Options& options, const char* proxy);

  /// Where requests for `bucket` go: the address given, or the one learned.
  Address address(const std::string& bucket) const;
  void learn_address(const std::string& bucket, const Address& address);

  /// The time as the service sees it.
  time_t now() const;
  /// The service's clock is `seconds` ahead of ours.
  void learn_clock(long long seconds) { clock_offset_.store(seconds, std::memory_order_relaxed); }

  /// The signing key for `address` at `when`; made once a day and region.
  V4_Key v4_key(const Address& address, time_t when) const;

  const Credentials& credentials() const { return credentials_; }
  const std::shared_ptr<HTTP_Channel_Pool>& pool() const { return pool_; }
  /// Never null; one of its own where no job's was given.
  const std::shared_ptr<S3_Ledger>& ledger() const { return ledger_; }
  /// What the service was found to do with objects' attributes.
  Attribute_Memory& attributes() { return attributes_; }
  unsigned long long part_size() const { return part_size_; }
  int max_retry_seconds() const { return max_retry_seconds_; }

private:
  Endpoint() = default;

  Address base_;
  Endpoint_Settings::Addressing addressing_ = Endpoint_Settings::ADDRESSING_AUTO;
  Credentials credentials_;
  std::shared_ptr<HTTP_Channel_Pool> pool_;
  std::shared_ptr<S3_Ledger> ledger_;
  unsigned long long part_size_ = 0;
  int max_retry_seconds_ = 0;
  Attribute_Memory attributes_;
  std::atomic<long long> clock_offset_{0};
  std::atomic<bool> any_learned_{false}; ///< spares the lock on the common road
  mutable std::mutex mutex_;             ///< guards what follows
  std::map<std::string, Address> learned_;
  mutable V4_Key key_;
};

} // namespace s3
