#pragma once

#include "platform/http/channel_pool.h"
#include "platform/s3/answers.h"
#include "platform/s3/endpoint_settings.h"
#include "platform/s3/ledger.h"
#include "platform/s3/request_builder.h"
#include "platform/s3/request_gate.h"
#include "sdk/s3/s3_types.h"

#include <atomic>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

namespace s3 {

/// What all services of one client share: where the service is, the keys, the live connections, and what was learned
/// about it on the way. Any thread.
class Endpoint : public std::enable_shared_from_this<Endpoint> {
public:
  /// Null, after a log line, for options that make no sense. `proxy` may be null.
  static std::shared_ptr<Endpoint> make(const S3_Service_Options& options, const char* proxy);
  /// The same with these settings instead of those that are registered. The vendor's preset fills in what they leave.
  static std::shared_ptr<Endpoint> make(const S3_Service_Options& options, const char* proxy,
                                        Endpoint_Settings settings);

  /// Where requests for `bucket` go: the address given, or the one learned.
  Address address(const std::string& bucket) const;
  void learn_address(const std::string& bucket, const Address& address);

  /// The time as the service sees it.
  time_t now() const;
  /// The service's clock is `seconds` ahead of ours.
  void learn_clock(long long seconds) { clock_offset_.store(seconds, std::memory_order_relaxed); }

  /// The signing key for `address` at `when`; made once a day and region.
  V4_Key v4_key(const Address& address, time_t when) const;

  /// How listings are asked for; "auto" comes as what was learned so far, else as it was tried first.
  bool lists_v2() const { return lists_v2_.load(std::memory_order_relaxed); }
  bool encodes_listings() const { return encodes_listings_.load(std::memory_order_relaxed); }
  /// The service refuses to be asked as it was; false where the settings leave no choice.
  bool learn_list_version(bool v2);
  bool learn_listing_encoding(bool encoded);
  /// Keys are taken as encoded whether or not the page says so.
  bool always_encoded() const { return settings_.url_encoding == Endpoint_Settings::ENCODING_ON; }

  /// The token under which a version 2 listing goes on behind `marker`; empty where none is known (any more): the
  /// listing then begins anew behind that key. `listing` names bucket, prefix and delimiter.
  std::string continuation(const std::string& listing, const std::string& marker) const;
  void learn_continuation(const std::string& listing, const std::string& marker, const std::string& token);

  const Credentials& credentials() const { return credentials_; }
  const Endpoint_Settings& settings() const { return settings_; }
  const std::shared_ptr<HTTP_Channel_Pool>& pool() const { return pool_; }
  /// Never null; shared with all clients of this endpoint.
  Request_Gate& gate() { return *gate_; }
  /// Never null; one of its own where no job's was given.
  const std::shared_ptr<S3_Ledger>& ledger() const { return ledger_; }
  /// With `most` 1 once the service has answered a request for a part with the whole.
  Range_Settings ranges() const {
    Range_Settings ranges = ranges_;
    ranges.most = no_ranges_.load(std::memory_order_relaxed) ? 1 : ranges.most;
    return ranges;
  }
  Prefix_Form prefix_form() const { return prefix_form_.load(std::memory_order_relaxed); }
  void learn_prefix_form(Prefix_Form form) { prefix_form_.store(form, std::memory_order_relaxed); }
  void learn_no_ranges() { no_ranges_.store(true, std::memory_order_relaxed); }
  unsigned long long part_size() const { return part_size_; }
  int max_retry_seconds() const { return max_retry_seconds_; }

private:
  Endpoint() = default;

  Address base_;
  Endpoint_Settings settings_;
  Credentials credentials_;
  std::shared_ptr<HTTP_Channel_Pool> pool_;
  std::shared_ptr<Request_Gate> gate_;
  std::shared_ptr<S3_Ledger> ledger_;
  unsigned long long part_size_ = 0;
  int max_retry_seconds_ = 0;
  Range_Settings ranges_;
  std::atomic<bool> no_ranges_{false};
  std::atomic<Prefix_Form> prefix_form_{Prefix_Form::UNKNOWN};
  std::atomic<long long> clock_offset_{0};
  std::atomic<bool> lists_v2_{false};
  std::atomic<bool> encodes_listings_{true};
  std::atomic<bool> any_learned_{false}; ///< spares the lock on the common road
  mutable std::mutex mutex_;             ///< guards what follows
  std::map<std::string, Address> learned_;
  std::map<std::pair<std::string, std::string>, std::string> continuations_; ///< by listing and marker
  std::deque<std::pair<std::string, std::string>> continuations_age_;        ///< oldest first
  mutable V4_Key key_;
};

} // namespace s3
