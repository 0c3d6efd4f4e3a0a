#pragma once

#include "sdk/mtf/filter.h"
#include "sdk/s3/s3_service.h"

#include <ace/Condition_Thread_Mutex.h>
#include <ace/Thread_Mutex.h>
#include <ace/os_include/os_pthread.h>

#include <boost/container/slist.hpp>

#include <atomic>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

class Job;

/// One listed object.
struct Object_Entry {
  Object_Entry() = default;
  Object_Entry(std::string&& key, unsigned long long size, unsigned long long mtime)
      : key(std::move(key)), size(size), mtime(mtime) {}
  Object_Entry(Object_Entry&&) noexcept = default;
  Object_Entry& operator=(Object_Entry&&) noexcept = default;

  std::string key;
  unsigned long long size = 0;  ///< bytes
  unsigned long long mtime = 0; ///< seconds since the epoch
};
typedef boost::container::slist<Object_Entry> Object_List;

/// One prefix of the tree that is being listed. Stays where it is in memory; owns the prefixes below it.
struct Prefix_Entry {
  typedef boost::container::slist<Prefix_Entry> Prefix_List;

  Prefix_Entry(const std::string& name, Prefix_Entry* parent);
  Prefix_Entry(const Prefix_Entry&) = delete;
  Prefix_Entry& operator=(const Prefix_Entry&) = delete;

  /// Appends an object, in constant time.
  void add_object(std::string&& key, unsigned long long size, unsigned long long mtime);
  /// Appends a child and returns it, in constant time.
  Prefix_Entry* add_sub_prefix(const std::string& name);
  /// The same for a name that none of the children has; null for another. In constant time while names come in the
  /// order of bytes.
  Prefix_Entry* add_new_sub_prefix(const std::string& name);
  /// Appends all objects of `page` and leaves it without any, in constant time.
  void take_objects(Prefix_Entry& page);

  std::string name;                 ///< ends with "/", but for a root that is given otherwise
  std::string marker;               ///< where the next page begins; empty before the first one
  Object_List objects;              ///< listed and not yet taken by the consumer, in listing order
  Prefix_List sub_prefixes;         ///< in listing order, in catalog order once this prefix is `done`
  bool done = false;                ///< fully listed, or given up
  bool running = false;             ///< a worker lists it now
  bool head = false;                ///< the consumer takes or has taken its objects
  Prefix_Entry* parent;             ///< null for the root
  Object_List::iterator obj_it_;    ///< last of `objects`
  Prefix_List::iterator prefix_it_; ///< last of `sub_prefixes`
  /// Names of `sub_prefixes` from the first that came out of order until this prefix is `done`; else empty.
  std::set<std::string_view> known_;
};

/// Lists all objects under a prefix of a bucket, recursively, with several threads that run ahead of the consumer, and
/// hands them out in an order that depends on the keys alone: a prefix's own objects in listing order, then each of
/// its sub-prefixes in catalog order likewise.
///
/// Life cycle: `init`, `next` until it answers false, `reset` (or `init` for the next prefix). These three are for one
/// thread, the consumer; the workers and the statistics thread work for the job that this thread works for and have
/// ended when `reset` returns.
///
/// Reading ahead is bounded by `cache_limit`, a number of entries: prefixes other than the one being consumed (the
/// head) are not listed further while more objects, or more prefixes, than that are held; the head not while its own
/// list is longer than that. A page that was asked for is always taken in whole. The tree of prefixes, which must be
/// held until it is sorted, has a bound in bytes: above it no further page of a prefix is asked for, so that the
/// service's client knows it as broken off; above twice the bound all listing ends, and `broken_off` is true.
class Async_OBS_Object_Lister {
public:
  struct Statistics {
    std::atomic<unsigned long long> total_objects{0};     ///< accepted since `init`
    std::atomic<unsigned long long> cached_objects{0};    ///< listed and not handed out
    std::atomic<unsigned long long> cached_prefixes{0};   ///< accepted and not consumed, the root left out
    std::atomic<unsigned long long> iterated_prefixes{0}; ///< whose listing has ended, in whatever way
    std::atomic<unsigned long long> iterated_errors{0};   ///< whose listing ended with an error
    std::atomic<unsigned long long> requests{0};          ///< successful ones
    std::atomic<unsigned long long> req_time{0};          ///< milliseconds in these since the last statistics line
    std::atomic<unsigned long long> req_count{0};         ///< number of these since the last statistics line
    time_t next_log_time = 0;

    void clear();
  };

  /// `retry_timeout`: seconds of waiting after which a failing request is given up; -1: no bound. `filter` may be null
  /// and outlives the lister, as `clt` does.
  Async_OBS_Object_Lister(S3_Client& clt, int threads, int retry_timeout, unsigned long long cache_limit,
                          const MTF::IFilter* filter);
  ~Async_OBS_Object_Lister();
  Async_OBS_Object_Lister(const Async_OBS_Object_Lister&) = delete;
  Async_OBS_Object_Lister& operator=(const Async_OBS_Object_Lister&) = delete;

  /// The bound of the tree of prefixes in bytes, before `init`; at first 4 KiB for each entry of the cache limit, and
  /// 512 MiB at least.
  void tree_limit(unsigned long long bytes) { tree_limit_ = bytes; }

  /// Starts listing. False, after a log line, when the threads cannot be started.
  bool init(const std::string& bucket, const std::string& prefix);
  /// Waits for the next object and moves it to `obj`. False at the end.
  bool next(Object_Entry& obj);
  /// True when `next` ended before the listing was through: no worker was left to go on with it, one could not go on
  /// for want of memory, the wait for them failed, the tree got too large, or the job is being cancelled.
  bool broken_off() const { return broken_off_; }
  /// Stops and joins all threads and forgets everything. Idempotent.
  void reset();

  const Statistics& statistics() const { return stats_; }

private:
  static ACE_THR_FUNC_RETURN thread_do(void* self);
  static ACE_THR_FUNC_RETURN dump_stats(void* self);

  bool schedule();
  void join_workers();
  void thread_do_i();
  void work(const std::shared_ptr<S3_Service_Base>& svr);
  Prefix_Entry* get_next_entry(bool& done);
  bool slow_down(Prefix_Entry* entry);
  bool tree_is_full(const Prefix_Entry* entry, std::string& error);
  bool list_objects(std::shared_ptr<S3_Service_Base> svr, Prefix_Entry* entry);
  bool list_page(const std::shared_ptr<S3_Service_Base>& svr, Prefix_Entry* entry, std::string& error);
  bool list_objects_i(std::shared_ptr<S3_Service_Base> svr, const Get_Bucket_Parameter& param,
                      Get_Bucket_Content& content);
  void take_page(Prefix_Entry* entry, Get_Bucket_Content& content);
  void give_up(Prefix_Entry* entry);
  bool wait_before_retry(unsigned seconds) const;
  void worker_ended();
  void dump_stats_i();
  void dump_stats_ii();
  void finish();
  bool hand_out(Object_Entry& obj);

  // The caller of these holds `mutex_`.
  void list_end(Prefix_Entry* entry, bool failed);
  Prefix_Entry* get_next_head();
  Prefix_Entry* first_idle_prefix() const;
  bool read_ahead_full() const;
  bool head_is_free() const;
  bool has_work() const;
  void wake_workers(size_t count);
  void take_batch();

  S3_Client& clt_;
  std::string bucket_;
  int retry_timeout_;
  int threads_;
  unsigned long long cache_limit_;
  unsigned long long tree_limit_;
  std::atomic<unsigned long long> tree_size_{0}; ///< bytes of the prefixes that are held
  std::unique_ptr<Prefix_Entry> root_;
  Prefix_Entry* head_prefix_ = nullptr;             ///< null when the iteration is over; changed by the consumer only
  std::unique_ptr<Object_Entry> cur_obj_;           ///< reserved
  std::map<std::string, Prefix_Entry*> prefix_map_; ///< prefixes whose listing has not ended, by name
  std::atomic<bool> end_{true};
  int worker_grp_ = -1;
  ACE_thread_t stat_thr_;
  ACE_Thread_Mutex mutex_; ///< guards the tree, `prefix_map_`, `head_prefix_`, `idle_workers_` and `live_workers_`
  ACE_Condition_Thread_Mutex has_objects_;  ///< the head gained objects or ended, or all is over
  ACE_Condition_Thread_Mutex has_prefixes_; ///< there may be something to list for a paused worker
  Statistics stats_;
  const MTF::IFilter* filter_;

  ACE_Condition_Thread_Mutex ended_; ///< `end_` was set
  std::vector<ACE_thread_t> workers_;
  size_t idle_workers_ = 0; ///< workers that wait on `has_prefixes_`
  int live_workers_ = 0;
  std::atomic<bool> broken_off_{false};
  Object_List batch_;       ///< the consumer's: taken from the head, not yet handed out
  const size_t batch_size_;
  Job* job_ = nullptr; ///< that the consumer works for
};
