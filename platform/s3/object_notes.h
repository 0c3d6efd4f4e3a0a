#pragma once

#include "sdk/s3/s3_types.h"

#include <array>
#include <atomic>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>

/// What is to become of objects that must be thawed before they can be read.
enum class Archived_Policy {
  SKIP,   ///< they count as skipped
  FAIL,   ///< they count as failed
  REQUEST ///< as skipped, and the service is asked to thaw them; what is thawed already is read
};

/// "skip", "fail" or "request".
std::optional<Archived_Policy> archived_policy_from_string(const std::string& text);

/// What the S3 layer knows about single objects of a job and the interfaces in between have no word for: why an object
/// could not be had, and which objects a listing showed in an archive. Part of the job's ledger. Any thread.
///
/// Notes are taken away by whoever needs them. What nobody takes is forgotten in the end, so memory is bounded.
/// Objects go by "/bucket/key".
class Object_Notes {
public:
  /// Reasons kept that nobody has taken.
  static constexpr size_t MAX_REFUSALS = 4096;
  /// Archived objects kept of each of two generations, the older of which goes when the younger one is full. A lister
  /// runs no further ahead of the readers.
  static constexpr size_t MAX_ARCHIVED = 256 * 1024;

  void policy(Archived_Policy policy) { policy_ = policy; }
  Archived_Policy policy() const { return policy_; }

  /// A listing showed the object in a class from which it must be thawed.
  void archived(const std::string& path, const std::string& storage_class);
  /// Takes the class noted for the object; empty when there is none.
  std::string take_archived(const std::string& path);

  /// The object could not be had; replaces an earlier reason.
  void refused(const std::string& path, const S3_Error& error);
  /// It could be had after all.
  void granted(const std::string& path);
  /// Takes the reason for which the object could not be had last.
  std::optional<S3_Error> take_refusal(const std::string& path);

private:
  /// 128 bits in place of a key of up to 1 KiB: the odds that two of the keys kept agree are below 10^-26.
  typedef std::array<unsigned long long, 2> Digest;
  struct First_Word {
    size_t operator()(const Digest& digest) const { return static_cast<size_t>(digest[0]); }
  };
  typedef std::unordered_map<Digest, unsigned char, First_Word> Generation; ///< to the index of the class
  static Digest digest(const std::string& path);

  std::atomic<Archived_Policy> policy_{Archived_Policy::SKIP};
  std::atomic<bool> any_archived_{false}; ///< these two spare the lock on the common road
  std::atomic<bool> any_refused_{false};
  std::mutex mutex_; ///< guards what follows
  Generation young_, old_;
  std::array<std::string, 16> classes_; ///< names seen; empty from some index on
  std::unordered_map<std::string, S3_Error> refusals_;
};
