#pragma once

#include "platform/http/rate_limit.h"
#include "platform/s3/byte_budget.h"
#include "platform/s3/object_notes.h"
#include "platform/s3/service_watch.h"

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

/// What the S3 layer saw during one job: the left side of the account that every run gives. Services take it from the
/// options that they are made with. Any thread.
class S3_Ledger {
public:
  /// A key that a listing showed but that cannot be an object in the catalog: it equals the listed prefix.
  struct Folder_Object {
    std::string path; ///< "/bucket/key/"
    unsigned long long size = 0;
  };
  /// A prefix whose listing failed and was not successfully repeated.
  struct Failed_Listing {
    std::string path; ///< "/bucket/prefix"
    std::string message;
  };

  std::atomic<unsigned long long> requests{0};     ///< sent, successful or not
  std::atomic<unsigned long long> listed_keys{0};  ///< keys on all pages received, folder objects included
  std::atomic<unsigned long long> head_objects{0}; ///< single objects asked for by name
  std::atomic<unsigned long long> bytes_read{0};   ///< of object bodies
  std::atomic<unsigned long long> bytes_written{0};
  std::atomic<unsigned long long> thaw_requests{0}; ///< archived objects that the service was asked to thaw

  /// Of the job: for services that are made without a bound of their own.
  std::atomic<int> max_retry_seconds{0};

  /// Of all that the job sends and receives. Set before its first service is made.
  Rate_Limit rate;

  Object_Notes objects;
  Service_Watch service;
  /// Of the parts of large objects that are read ahead of their turn.
  Byte_Budget range_memory{64u << 20};
  /// Of the parts of large objects that wait to be sent.
  Byte_Budget part_memory{64u << 20};

  /// Called by the service for each such key of a page.
  void folder_object(const std::string& path, unsigned long long size);
  /// Has `told` hear of each of them that holds data, in the thread that saw it and at once of those that are known by
  /// their names already; an empty one ends that.
  typedef std::function<void(const Folder_Object&)> Folder_Listener;
  void tell_full_folder_objects(Folder_Listener told);
  /// Called by the service when a listing request fails, and when one for the same prefix succeeds afterwards.
  void listing_failed(const std::string& path, const std::string& message);
  void listing_succeeded(const std::string& path);
  /// Called by the service for each page of a prefix; `more`: its listing has another one.
  void page_shown(const std::string& path, bool more);

  /// Called by the service when an object ("/bucket/key") is read whose date is less than two seconds before the
  /// answer's own Date, or whose answer has none: by the service's clock it may just have been written, and may be
  /// written again with the same date.
  void read_fresh(const std::string& path);
  /// Whether that was said of the object since it was asked last.
  bool take_fresh(const std::string& path);

  /// Called by the service when it reads an object whose answer tells of tags, and when it asks for these.
  void tags_told(const std::string& path);
  void tags_asked(const std::string& path);
  /// Whether the object, which was read, has tags that nobody asked for.
  bool take_unasked_tags(const std::string& path);

  /// Called when a request about an object was given up, by the thread that it was sent for: the interfaces in between
  /// tell whoever asked no more than that it failed. One reason is kept for each thread.
  void failed_here(const S3_Error& error);
  /// Takes what was last said so by the calling thread.
  std::optional<S3_Error> take_failure_here();

  unsigned long long empty_folder_objects() const; ///< of size 0
  unsigned long long full_folder_objects() const;  ///< with data
  /// Up to 1000 of them, those with data first.
  std::vector<Folder_Object> folder_objects() const;
  /// The first 20,000; where there were more, the root stands for them.
  std::vector<Failed_Listing> failed_listings() const;
  /// Prefixes of which a page that is there was never asked for: whoever listed them has given up. For the time after
  /// the listing.
  std::vector<Failed_Listing> broken_off_listings() const;

private:
  mutable std::mutex mutex_; ///< guards what follows
  unsigned long long empty_folders_ = 0;
  unsigned long long full_folders_ = 0;
  std::shared_ptr<const Folder_Listener> told_;
  std::vector<Folder_Object> full_;
  std::vector<Folder_Object> empty_;
  std::map<std::string, std::string> failed_;
  unsigned long long more_failed_ = 0; ///< that are not in it; those may have been listed after all
  std::set<std::string> going_on_;
  std::set<std::string> fresh_;
  std::set<std::string> tagged_;
  std::map<std::thread::id, S3_Error> failures_;
  std::atomic<bool> any_failures_{false}; ///< these spare the lock on the common road
  std::atomic<bool> any_failed_{false};
  std::atomic<bool> any_fresh_{false};
  std::atomic<bool> any_tagged_{false};
  std::atomic<bool> any_going_on_{false};
};
