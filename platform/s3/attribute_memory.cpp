#include "platform/s3/attribute_memory.h"

namespace s3 {
namespace {

/// Buckets, kinds and values that are remembered.
constexpr size_t MAX_KNOWN = 1000;
/// The place of refusals that are no attribute's fault.
constexpr unsigned ANYHOW = 0;

std::string place(const std::string& bucket, unsigned kind, const std::string& value) {
  return bucket + '\n' + std::to_string(kind) + '\n' + value;
}

} // namespace

std::string Attribute_Memory::refusal(const std::string& bucket, unsigned kind, const std::string& value) const {
  const std::lock_guard<std::mutex> guard(mutex_);
  if (refusals_.empty())
    return std::string();
  const auto found = refusals_.find(place(bucket, kind, value));
  return found == refusals_.end() ? std::string() : found->second;
}

void Attribute_Memory::refused(const std::string& bucket, unsigned kind, const std::string& value,
                               const std::string& reason) {
  const std::lock_guard<std::mutex> guard(mutex_);
  if (refusals_.size() < MAX_KNOWN)
    refusals_[place(bucket, kind, value)] = reason;
}

bool Attribute_Memory::refused_anyhow(const std::string& bucket, const std::string& code) const {
  return !refusal(bucket, ANYHOW, code).empty();
}

void Attribute_Memory::refuses_anyhow(const std::string& bucket, const std::string& code) {
  refused(bucket, ANYHOW, code, code);
}

bool Attribute_Memory::keeps(const std::string& bucket, unsigned kind, const std::string& header) const {
  const std::lock_guard<std::mutex> guard(mutex_);
  return kept_.count(place(bucket, kind, header)) != 0;
}

void Attribute_Memory::kept(const std::string& bucket, unsigned kind, const std::string& header) {
  const std::lock_guard<std::mutex> guard(mutex_);
  if (kept_.size() < MAX_KNOWN)
    kept_.insert(place(bucket, kind, header));
}

bool Attribute_Memory::counts_tags(const std::string& bucket) const {
  const std::lock_guard<std::mutex> guard(mutex_);
  return counting_buckets_.count(bucket) != 0;
}

void Attribute_Memory::tags_counted(const std::string& bucket) {
  const std::lock_guard<std::mutex> guard(mutex_);
  if (counting_buckets_.size() < MAX_KNOWN)
    counting_buckets_.insert(bucket);
}

} // namespace s3
