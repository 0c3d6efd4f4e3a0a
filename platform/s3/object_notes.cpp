#include "platform/s3/object_notes.h"

#include <xxhash.h>

std::optional<Archived_Policy> archived_policy_from_string(const std::string& text) {
  if (text == "skip")
    return Archived_Policy::SKIP;
  if (text == "fail")
    return Archived_Policy::FAIL;
  if (text == "request")
    return Archived_Policy::REQUEST;
  return std::nullopt;
}

Object_Notes::Digest Object_Notes::digest(const std::string& path) {
  const XXH128_hash_t hash = XXH3_128bits(path.data(), path.size());
  return {hash.low64, hash.high64};
}

void Object_Notes::archived(const std::string& path, const std::string& storage_class) {
  const Digest key = digest(path);
  const std::lock_guard<std::mutex> guard(mutex_);
  size_t index = 0;
  while (index < classes_.size() && !classes_[index].empty() && classes_[index] != storage_class)
    ++index;
  // A service with so many names for it is asked for the object itself.
  if (index == classes_.size())
    return;
  classes_[index] = storage_class;
  if (young_.size() >= MAX_ARCHIVED) {
    old_ = std::move(young_);
    young_ = Generation();
  }
  young_[key] = static_cast<unsigned char>(index);
  any_archived_.store(true, std::memory_order_release);
}

std::string Object_Notes::take_archived(const std::string& path) {
  if (!any_archived_.load(std::memory_order_acquire))
    return std::string();
  const Digest key = digest(path);
  const std::lock_guard<std::mutex> guard(mutex_);
  for (Generation* const generation : {&young_, &old_}) {
    const auto found = generation->find(key);
    if (found == generation->end())
      continue;
    const std::string name = classes_[found->second];
    generation->erase(found);
    return name;
  }
  return std::string();
}

void Object_Notes::refused(const std::string& path, const S3_Error& error) {
  const std::lock_guard<std::mutex> guard(mutex_);
  if (refusals_.size() >= MAX_REFUSALS && refusals_.count(path) == 0)
    refusals_.erase(refusals_.begin());
  refusals_[path] = error;
  any_refused_.store(true, std::memory_order_release);
}

void Object_Notes::granted(const std::string& path) {
  if (!any_refused_.load(std::memory_order_acquire))
    return;
  const std::lock_guard<std::mutex> guard(mutex_);
  refusals_.erase(path);
}

std::optional<S3_Error> Object_Notes::take_refusal(const std::string& path) {
  if (!any_refused_.load(std::memory_order_acquire))
    return std::nullopt;
  const std::lock_guard<std::mutex> guard(mutex_);
  const auto found = refusals_.find(path);
  if (found == refusals_.end())
    return std::nullopt;
  const S3_Error error = std::move(found->second);
  refusals_.erase(found);
  return error;
}
