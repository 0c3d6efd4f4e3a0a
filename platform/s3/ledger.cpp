#include "platform/s3/ledger.h"

#include <algorithm>

namespace {

constexpr size_t MAX_FOLDER_OBJECTS = 1000;
/// A key's length and a message each: some 30 MB at most.
constexpr size_t MAX_FAILED_LISTINGS = 20000;

} // namespace

void S3_Ledger::folder_object(const std::string& path, unsigned long long size) {
  std::shared_ptr<const Folder_Listener> told;
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    ++(size == 0 ? empty_folders_ : full_folders_);
    std::vector<Folder_Object>& list = size == 0 ? empty_ : full_;
    if (list.size() < MAX_FOLDER_OBJECTS)
      list.push_back(Folder_Object{path, size});
    if (size != 0)
      told = told_;
  }
  // Not under the lock: whoever is told may take its time.
  if (told)
    (*told)(Folder_Object{path, size});
}

void S3_Ledger::tell_full_folder_objects(Folder_Listener told) {
  const auto listener = told ? std::make_shared<const Folder_Listener>(std::move(told)) : nullptr;
  std::vector<Folder_Object> known;
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    told_ = listener;
    if (listener)
      known = full_;
  }
  for (const Folder_Object& folder : known)
    (*listener)(folder);
}

void S3_Ledger::listing_failed(const std::string& path, const std::string& message) {
  const std::lock_guard<std::mutex> guard(mutex_);
  if (failed_.size() < MAX_FAILED_LISTINGS || failed_.count(path) != 0)
    failed_[path] = message;
  else
    ++more_failed_;
  any_failed_ = true;
}

void S3_Ledger::listing_succeeded(const std::string& path) {
  if (!any_failed_)
    return;
  const std::lock_guard<std::mutex> guard(mutex_);
  failed_.erase(path);
  any_failed_ = !failed_.empty() || more_failed_ > 0;
}

void S3_Ledger::page_shown(const std::string& path, bool more) {
  if (!more && !any_going_on_)
    return;
  const std::lock_guard<std::mutex> guard(mutex_);
  if (more)
    going_on_.insert(path);
  else
    going_on_.erase(path);
  any_going_on_ = !going_on_.empty();
}

void S3_Ledger::read_fresh(const std::string& path) {
  const std::lock_guard<std::mutex> guard(mutex_);
  fresh_.insert(path);
  any_fresh_ = true;
}

bool S3_Ledger::take_fresh(const std::string& path) {
  if (!any_fresh_)
    return false;
  const std::lock_guard<std::mutex> guard(mutex_);
  const bool found = fresh_.erase(path) != 0;
  any_fresh_ = !fresh_.empty();
  return found;
}

void S3_Ledger::tags_told(const std::string& path) {
  const std::lock_guard<std::mutex> guard(mutex_);
  tagged_.insert(path);
  any_tagged_ = true;
}

void S3_Ledger::tags_asked(const std::string& path) {
  take_unasked_tags(path);
}

bool S3_Ledger::take_unasked_tags(const std::string& path) {
  if (!any_tagged_)
    return false;
  const std::lock_guard<std::mutex> guard(mutex_);
  const bool found = tagged_.erase(path) != 0;
  any_tagged_ = !tagged_.empty();
  return found;
}

void S3_Ledger::failed_here(const S3_Error& error) {
  const std::lock_guard<std::mutex> guard(mutex_);
  failures_[std::this_thread::get_id()] = error;
  any_failures_ = true;
}

std::optional<S3_Error> S3_Ledger::take_failure_here() {
  if (!any_failures_)
    return std::nullopt;
  const std::lock_guard<std::mutex> guard(mutex_);
  const auto found = failures_.find(std::this_thread::get_id());
  if (found == failures_.end())
    return std::nullopt;
  S3_Error error = std::move(found->second);
  failures_.erase(found);
  any_failures_ = !failures_.empty();
  return error;
}

unsigned long long S3_Ledger::empty_folder_objects() const {
  const std::lock_guard<std::mutex> guard(mutex_);
  return empty_folders_;
}

unsigned long long S3_Ledger::full_folder_objects() const {
  const std::lock_guard<std::mutex> guard(mutex_);
  return full_folders_;
}

std::vector<S3_Ledger::Folder_Object> S3_Ledger::folder_objects() const {
  const std::lock_guard<std::mutex> guard(mutex_);
  std::vector<Folder_Object> all = full_;
  const size_t room = MAX_FOLDER_OBJECTS - all.size();
  all.insert(all.end(), empty_.begin(), empty_.begin() + static_cast<std::ptrdiff_t>(std::min(room, empty_.size())));
  return all;
}

std::vector<S3_Ledger::Failed_Listing> S3_Ledger::failed_listings() const {
  const std::lock_guard<std::mutex> guard(mutex_);
  std::vector<Failed_Listing> all;
  all.reserve(failed_.size());
  for (const auto& failed : failed_)
    all.push_back(Failed_Listing{failed.first, failed.second});
  if (more_failed_ > 0)
    all.push_back(Failed_Listing{"/", std::to_string(more_failed_) + " more prefixes could not be listed."});
  return all;
}

std::vector<S3_Ledger::Failed_Listing> S3_Ledger::broken_off_listings() const {
  const std::lock_guard<std::mutex> guard(mutex_);
  std::vector<Failed_Listing> all;
  for (const std::string& path : going_on_)
    if (failed_.count(path) == 0)
      all.push_back(Failed_Listing{path, "The listing broke off."});
  return all;
}
