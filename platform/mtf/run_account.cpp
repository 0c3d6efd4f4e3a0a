#include "platform/mtf/run_account.h"

#include <algorithm>

using json_spirit::Object;
using json_spirit::Value;

namespace {

std::string without_slash(const std::string& path) {
  return !path.empty() && path.front() == '/' ? path.substr(1) : path;
}

std::string full_folder_message(unsigned long long size) {
  return "A key that ends with \"/\" and has data is not supported (" + std::to_string(size) + " bytes).";
}

Object error_entry(const std::string& type, const std::string& path, const Value& number, const std::string& message) {
  Object entry;
  entry["type"] = type;
  entry["name"] = path;
  entry["errno"] = number;
  entry["message"] = message;
  return entry;
}

} // namespace

void Run_Account::saved(unsigned long long size, unsigned long long stored) {
  ++saved_;
  saved_bytes_ += size;
  stored_ += stored;
}

void Run_Account::skipped(const std::string& path, const std::string& message) {
  ++skipped_;
  problem(Catalog_Problem::SKIPPED, "file", path, 0, message);
}

void Run_Account::failed(const std::string& path, int number, const std::string& message) {
  ++failed_;
  problem(Catalog_Problem::FAILED, "file", path, number, message);
}

void Run_Account::note(const std::string& type, const std::string& path, const Value& number,
                       const std::string& message) {
  std::lock_guard<std::mutex> guard(mutex_);
  if (errors_.size() < MAX_ERRORS)
    errors_.push_back(error_entry(type, path, number, message));
}

void Run_Account::problem(Catalog_Problem::Kind kind, const char* type, const std::string& path, int number,
                          const std::string& message) {
  record(kind, path, number, message);
  count(kind, type, path, number, message);
}

void Run_Account::record(Catalog_Problem::Kind kind, const std::string& path, int number, const std::string& message) {
  if (Catalog_Writer* catalog = catalog_)
    catalog->add_problem({kind, path, number, message});
}

void Run_Account::full_folder(const S3_Ledger::Folder_Object& folder) {
  record(Catalog_Problem::SKIPPED, without_slash(folder.path), 0, full_folder_message(folder.size));
}

void Run_Account::count(Catalog_Problem::Kind kind, const char* type, const std::string& path, int number,
                        const std::string& message) {
  ++problems_;
  const Value code = number != 0 ? Value(number) : Value();
  note(type, "/" + path, code, message);
  if (handler_.null())
    return;
  if (kind == Catalog_Problem::NOT_LISTED)
    handler_->add_skipped_dirs(1);
  else
    handler_->add_skipped_files(1);
  tell(type, "/" + path, code, message);
}

void Run_Account::incomplete(const std::string& path, const std::string& message,
                             const std::vector<std::string>& missing) {
  ++incomplete_;
  std::string text = message + ":";
  for (const std::string& one : missing)
    text += (&one == &missing.front() ? " " : "; ") + one;
  text += ".";
  note("file", "/" + path, Value(), text);
  record(Catalog_Problem::INCOMPLETE, path, 0, text);
  if (!handler_.null())
    tell("file", "/" + path, Value(), text);
}

void Run_Account::nothing_at(const std::string& path) {
  ++empty_paths_;
  problem(Catalog_Problem::NOT_LISTED, "directory", path, 0, "Nothing is listed below this path.");
}

void Run_Account::all_excluded() {
  ++empty_paths_;
  problem(Catalog_Problem::NOT_LISTED, "directory", "", 0, "The rules exclude everything that is below the paths.");
}

void Run_Account::absent(const std::string& path) {
  ++problems_;
  const bool folder = path.empty() || path.back() == '/';
  const char* const type = folder ? "directory" : "file";
  const std::string message = "The set holds nothing of that name.";
  note(type, "/" + path, Value(), message);
  if (handler_.null())
    return;
  if (folder)
    handler_->add_skipped_dirs(1);
  else
    handler_->add_skipped_files(1);
  tell(type, "/" + path, Value(), message);
}

void Run_Account::tell(const char* type, const std::string& path, const Value& number, const std::string& message) {
  Object event;
  event["type"] = type;
  event["name"] = path;
  event["errno"] = number;
  event["message"] = message;
  handler_->notify_event(MTF::EVENT_ITEM_ERROR, event);
}

/// The objects of which it is known what became of them, or what is to become.
unsigned long long Run_Account::known() const {
  const unsigned long long settled = saved_ + unchanged_ + skipped_ + failed_;
  return std::max<unsigned long long>(handed_, settled) + lister_skipped_ + full_folders_ + empty_folders_ + excluded_;
}

void Run_Account::listing_ended(const S3_Ledger* ledger, const Listing_End& end) {
  excluded_ = end.excluded;
  if (ledger == nullptr)
    return;
  empty_folders_ = ledger->empty_folder_objects();
  full_folders_ = ledger->full_folder_objects();
  unsigned long long named = 0;
  for (const S3_Ledger::Folder_Object& folder : ledger->folder_objects()) {
    if (folder.size == 0)
      continue;
    ++named;
    count(Catalog_Problem::SKIPPED, "file", without_slash(folder.path), 0, full_folder_message(folder.size));
  }
  // The ledger counts them all and names a bounded number.
  if (full_folders_ > named) {
    problems_ += full_folders_ - named;
    if (!handler_.null())
      handler_->add_skipped_files(full_folders_ - named);
  }
  for (const S3_Ledger::Failed_Listing& listing : ledger->failed_listings())
    problem(Catalog_Problem::NOT_LISTED, "directory", without_slash(listing.path), 0, listing.message);
  if (end.whole)
    for (const S3_Ledger::Failed_Listing& listing : ledger->broken_off_listings())
      problem(Catalog_Problem::NOT_LISTED, "directory", without_slash(listing.path), 0, listing.message);
  listed_ = ledger->listed_keys + ledger->head_objects;
  // A module that lists by other means than the S3 layer has nobody to contradict it.
  if (listed_ == 0)
    return;
  listed_ += end.unanswered;
  counted_ = true;
  const unsigned long long known = this->known();
  if (end.whole && listed_ > known) {
    lost_ = listed_ - known;
    problem(Catalog_Problem::NOT_LISTED, "directory", "", 0,
            std::to_string(lost_) + " listed objects were not handed out.");
  } else if (known > listed_) {
    problem(Catalog_Problem::NOT_LISTED, "directory", "", 0,
            std::to_string(known - listed_) + " more objects were handed out than were listed.");
  }
}

Object Run_Account::figures(const S3_Ledger* ledger, Run_End end, double seconds) {
  const bool stopped = end == Run_End::STOPPED, kept = end != Run_End::DROPPED;
  json_spirit::Array errors;
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    errors = errors_;
  }
  const auto remark = [&errors](const std::string& text) {
    if (errors.size() < MAX_ERRORS)
      errors.push_back(error_entry("directory", "/", Value(), text));
  };
  const unsigned long long settled = saved_ + unchanged_ + skipped_ + failed_;
  const unsigned long long handed = std::max<unsigned long long>(handed_, settled);
  const unsigned long long known = this->known();
  const unsigned long long listed = counted_ ? listed_ : std::max(listed_, known);
  const unsigned long long not_handed = listed > known ? listed - known : 0;
  const unsigned long long not_reached = handed - settled + not_handed - lost_;
  if (not_reached != 0 && !stopped)
    remark(std::to_string(not_reached) + " listed objects were not reached.");
  const unsigned long long dropped = kept ? 0 : saved_ + unchanged_;
  if (dropped != 0)
    remark(std::to_string(dropped) + " objects were read and not kept: the set is not complete.");
  if (without_tags_ != 0 && end == Run_End::KEPT) {
    const std::string count = std::to_string(without_tags_);
    remark(count + (without_tags_ == 1 ? " object has" : " objects have") + " tags that were not saved (--tags).");
  }
  if (without_access_list_ != 0 && kept) {
    const std::string count = std::to_string(without_access_list_);
    remark(count + (without_access_list_ == 1 ? " changed object is" : " changed objects are") +
           " saved without the access list, other than private, that the set before has (--acl).");
  }

  Object result;
  result["listed"] = stopped ? listed - not_reached : listed;
  if (stopped)
    result["not_reached"] = not_reached;
  result["saved"] = kept ? saved_.load() : 0ull;
  result["continued"] = kept ? continued_.load() : 0ull;
  if (kept && set_objects_) {
    result["objects"] = *set_objects_;
    result["missing"] = missing();
  }
  result["unchanged"] = kept ? unchanged_.load() : 0ull;
  result["excluded"] = empty_folders_ + excluded_;
  result["skipped"] = skipped_ + lister_skipped_ + full_folders_ + lost_ + (stopped ? 0 : not_reached) + dropped;
  result["failed"] = failed_.load();
  result["deleted"] = deleted_;
  if (deselected_.excluded != 0)
    result["excluded_since"] = deselected_.excluded;
  if (deselected_.outside != 0)
    result["outside_paths"] = deselected_.outside;
  result["incomplete"] = kept ? incomplete_.load() : 0ull;
  result["bytes_read"] = bytes_read_.load();
  result["bytes_stored"] = stored_.load();
  result["requests"] = ledger != nullptr ? ledger->requests.load() : 0ull;
  result["seconds"] = seconds;
  result["errors"] = std::move(errors);
  return result;
}
