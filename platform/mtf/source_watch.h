#pragma once

#include <atomic>
#include <list>
#include <mutex>
#include <set>
#include <string>
#include <unordered_set>
#include <vector>

/// Which of a backup's folders ("/bucket/", "/bucket/prefix/") a listing shows nothing of. Objects that are asked for
/// by name are not watched: the service says of each whether it is there. Any thread.
class Source_Watch {
public:
  explicit Source_Watch(const std::list<std::string>& sources);

  /// There is something at "bucket/a/b/" or "bucket/a/b/key", whatever becomes of it: all that leads there is not
  /// empty.
  void saw(const std::string& path);
  /// "bucket/prefix" could not be listed: nobody knows what is there. Empty for the list of buckets.
  void unlisted(const std::string& path);
  /// The set before had it, and it is gone. Once the listing has ended.
  void gone(const std::string& path);

  /// "bucket/prefix/" of which nothing was seen, in their order. A whole bucket is among them only where the set before
  /// had something in it: one that was never otherwise may well be empty.
  std::vector<std::string> empty() const;

private:
  mutable std::mutex mutex_;               ///< guards what follows
  std::unordered_set<std::string> unseen_; ///< "bucket/prefix/"
  std::set<std::string> gone_;             ///< of these
  std::atomic<bool> any_{false};           ///< spares the lock on the common road
};
