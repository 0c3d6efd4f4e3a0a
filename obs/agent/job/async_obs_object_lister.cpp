#include "obs/agent/job/async_obs_object_lister.h"

#include "obs/agent/job_frame/thread_helper.h"
#include "sdk/base/check.h"
#include "sdk/base/clock.h"
#include "sdk/base/exponential_backoff.h"
#include "sdk/job/job.h"

#include <ace/Guard_T.h>
#include <ace/OS_NS_Thread.h>
#include <ace/OS_NS_sys_time.h>
#include <ace/Thread_Manager.h>

#include <algorithm>
#include <exception>
#include <new>
#include <vector>

namespace {

constexpr int STATS_INTERVAL = 30; // seconds between statistics lines
constexpr time_t PAUSE_LIMIT = 5;  // seconds; a pause ends earlier when there is reason to
constexpr unsigned RETRY_SLOT = 1;
constexpr unsigned RETRY_CAP = 30;
constexpr unsigned long long NO_HEAD_LIMIT = 1ull << 32;
constexpr unsigned long long MAX_BATCH = 256;
constexpr unsigned long long MIN_TREE_ENTRIES = 131072;
constexpr unsigned long long BYTES_PER_TREE_ENTRY = 4096;

typedef ACE_Guard<ACE_Thread_Mutex> Guard;

ACE_Time_Value pause_end() {
  return ACE_OS::gettimeofday() + ACE_Time_Value(PAUSE_LIMIT);
}

/// What a prefix costs: its node, its place in the map, and its name in both.
unsigned long long tree_cost(const Prefix_Entry& entry) {
  constexpr unsigned long long NODES = sizeof(Prefix_Entry) + 128;
  return NODES + 2 * entry.name.capacity();
}

bool job_is_canceling() {
  Job* job = Job::current();
  return job != nullptr && job->activity().state == JOB_STATE_CANCELING;
}

} // namespace

Prefix_Entry::Prefix_Entry(const std::string& name, Prefix_Entry* parent)
    : name(name), parent(parent), obj_it_(objects.before_begin()), prefix_it_(sub_prefixes.before_begin()) {}

void Prefix_Entry::add_object(std::string&& key, unsigned long long size, unsigned long long mtime) {
  // The consumer takes from the front, and may have taken what the iterator pointed to.
  if (objects.empty())
    obj_it_ = objects.before_begin();
  obj_it_ = objects.emplace_after(obj_it_, std::move(key), size, mtime);
}

Prefix_Entry* Prefix_Entry::add_sub_prefix(const std::string& name) {
  if (sub_prefixes.empty())
    prefix_it_ = sub_prefixes.before_begin();
  prefix_it_ = sub_prefixes.emplace_after(prefix_it_, name, this);
  return &*prefix_it_;
}

Prefix_Entry* Prefix_Entry::add_new_sub_prefix(const std::string& name) {
  // In the order of bytes, in which services list, a name greater than the last one is new.
  if (known_.empty() && (sub_prefixes.empty() || prefix_it_->name < name))
    return add_sub_prefix(name);
  if (known_.empty())
    for (const Prefix_Entry& child : sub_prefixes)
      known_.insert(child.name);
  if (known_.count(name) != 0)
    return nullptr;
  Prefix_Entry* const child = add_sub_prefix(name);
  known_.insert(child->name);
  return child;
}

void Prefix_Entry::take_objects(Prefix_Entry& page) {
  if (page.objects.empty())
    return;
  if (objects.empty())
    obj_it_ = objects.before_begin();
  objects.splice_after(obj_it_, page.objects, page.objects.before_begin(), page.obj_it_, page.objects.size());
  obj_it_ = page.obj_it_;
}

void Async_OBS_Object_Lister::Statistics::clear() {
  total_objects = 0;
  cached_objects = 0;
  cached_prefixes = 0;
  iterated_prefixes = 0;
  iterated_errors = 0;
  requests = 0;
  req_time = 0;
  req_count = 0;
  next_log_time = 0;
}

Async_OBS_Object_Lister::Async_OBS_Object_Lister(S3_Client& clt, int threads, int retry_timeout,
                                                 unsigned long long cache_limit, const MTF::IFilter* filter)
    : clt_(clt), retry_timeout_(retry_timeout), threads_(std::max(threads, 1)), cache_limit_(cache_limit),
      tree_limit_(std::max(cache_limit, MIN_TREE_ENTRIES) * BYTES_PER_TREE_ENTRY), stat_thr_(ACE_OS::NULL_thread),
      has_objects_(mutex_), has_prefixes_(mutex_), filter_(filter), ended_(mutex_),
      batch_size_(static_cast<size_t>(std::clamp(cache_limit / 16, 1ull, MAX_BATCH))) {
  ACE_DEBUG((LM_INFO, ACE_TEXT("Async_OBS_Object_Lister with %d threads, cache limits: %Q\n"), threads_, cache_limit_));
}

Async_OBS_Object_Lister::~Async_OBS_Object_Lister() {
  reset();
}

bool Async_OBS_Object_Lister::init(const std::string& bucket, const std::string& prefix) {
  reset();
  bucket_ = bucket;
  job_ = Job::current();
  stats_.next_log_time = Clock::instance().now() + STATS_INTERVAL;

  root_.reset(new (std::nothrow) Prefix_Entry(prefix, nullptr));
  if (!root_) {
    errno = ENOMEM;
    return false;
  }
  head_prefix_ = root_.get();
  root_->head = true;
  prefix_map_.emplace(root_->name, root_.get());

  broken_off_ = false;
  end_ = false;
  if (!schedule()) {
    finish();
    return false;
  }
  return true;
}

bool Async_OBS_Object_Lister::schedule() {
  ACE_Thread_Manager* manager = ACE_Thread_Manager::instance();
  if (manager->spawn(&Async_OBS_Object_Lister::dump_stats, this, THR_NEW_LWP | THR_JOINABLE | THR_INHERIT_SCHED,
                     &stat_thr_) == -1) {
    stat_thr_ = ACE_OS::NULL_thread;
    ACE_ERROR((LM_ERROR, ACE_TEXT("Failed to spawn stat thread for object iterator on %s/%s,errno=%d, %m.\n"),
               bucket_.c_str(), root_->name.c_str(), errno));
    return false;
  }

  workers_.assign(static_cast<size_t>(threads_), ACE_OS::NULL_thread);
  live_workers_ = threads_;
  worker_grp_ = manager->spawn_n(workers_.data(), workers_.size(), &Async_OBS_Object_Lister::thread_do, this,
                                 THR_NEW_LWP | THR_JOINABLE | THR_INHERIT_SCHED);
  if (worker_grp_ != -1)
    return true;
  const int error = errno;
  ACE_ERROR((LM_ERROR, ACE_TEXT("Failed to activate worker for object iterator on %s/%s, errno=%d, %m.\n"),
             bucket_.c_str(), root_->name.c_str(), error));
  return false;
}

// One by one: the thread manager's wait for a group leaves the threads that have ended before it unjoined, with their
// stacks, and after a failed start there is no group at all.
void Async_OBS_Object_Lister::join_workers() {
  for (const ACE_thread_t worker : workers_)
    if (!ACE_OS::thr_equal(worker, ACE_OS::NULL_thread))
      ACE_Thread_Manager::instance()->join(worker);
  workers_.clear();
  worker_grp_ = -1;
}

void Async_OBS_Object_Lister::finish() {
  Guard guard(mutex_);
  end_ = true;
  has_objects_.broadcast();
  has_prefixes_.broadcast();
  ended_.broadcast();
}

void Async_OBS_Object_Lister::reset() {
  finish();
  if (!ACE_OS::thr_equal(stat_thr_, ACE_OS::NULL_thread)) {
    ACE_Thread_Manager::instance()->join(stat_thr_);
    stat_thr_ = ACE_OS::NULL_thread;
  }
  join_workers();
  bucket_.clear();
  head_prefix_ = nullptr;
  cur_obj_.reset();
  batch_.clear();
  prefix_map_.clear();
  root_.reset();
  tree_size_ = 0;
  live_workers_ = 0;
  stats_.clear();
}

ACE_THR_FUNC_RETURN Async_OBS_Object_Lister::thread_do(void* self) {
  Async_OBS_Object_Lister* lister = static_cast<Async_OBS_Object_Lister*>(self);
  set_thread_name("AsyncObsLister", ACE_OS::thr_self());
  Job::current(lister->job_);
  try {
    lister->thread_do_i();
  } catch (const std::exception& e) {
    ACE_ERROR((LM_ERROR, ACE_TEXT("Listing thread ended: %s.\n"), e.what()));
  }
  lister->worker_ended();
  return nullptr;
}

void Async_OBS_Object_Lister::thread_do_i() {
  std::shared_ptr<S3_Service_Base> svr = clt_.make_service();
  if (!svr) {
    ACE_ERROR((LM_ERROR, ACE_TEXT("Failed to make s3 service to list objects.\n")));
    return;
  }
  work(svr);
}

void Async_OBS_Object_Lister::work(const std::shared_ptr<S3_Service_Base>& svr) {
  for (;;) {
    // What is pending when the job is cancelled is not even asked for.
    if (end_ || job_is_canceling()) {
      finish();
      return;
    }
    bool done = false;
    Prefix_Entry* entry = get_next_entry(done);
    if (done)
      return;
    if (slow_down(entry))
      continue;
    list_objects(svr, entry);
  }
}

// A consumer must not wait for objects that nobody lists any more.
void Async_OBS_Object_Lister::worker_ended() {
  Guard guard(mutex_);
  if (--live_workers_ == 0)
    has_objects_.broadcast();
}

Prefix_Entry* Async_OBS_Object_Lister::get_next_entry(bool& done) {
  Guard guard(mutex_);
  done = end_ || prefix_map_.empty();
  if (done)
    return nullptr;
  Prefix_Entry* entry = first_idle_prefix();
  // With the read-ahead full every worker would put the same smallest prefix back, and the one prefix whose objects
  // empty the cache would never be listed when it is not the smallest: names are ordered by bytes here, but consumed
  // in catalog order.
  if (entry != nullptr && entry != head_prefix_ && read_ahead_full() && head_is_free())
    entry = head_prefix_;
  if (entry != nullptr)
    entry->running = true;
  return entry;
}

Prefix_Entry* Async_OBS_Object_Lister::first_idle_prefix() const {
  for (const auto& named : prefix_map_) {
    if (!named.second->running)
      return named.second;
  }
  return nullptr;
}

bool Async_OBS_Object_Lister::read_ahead_full() const {
  return stats_.cached_objects > cache_limit_ || stats_.cached_prefixes > cache_limit_;
}

bool Async_OBS_Object_Lister::head_is_free() const {
  return head_prefix_ != nullptr && !head_prefix_->done && !head_prefix_->running &&
         (cache_limit_ >= NO_HEAD_LIMIT || head_prefix_->objects.size() <= cache_limit_);
}

bool Async_OBS_Object_Lister::has_work() const {
  return read_ahead_full() ? head_is_free() : first_idle_prefix() != nullptr;
}

bool Async_OBS_Object_Lister::slow_down(Prefix_Entry* entry) {
  Guard guard(mutex_);
  if (entry != nullptr) {
    const bool full = entry == head_prefix_ ? cache_limit_ < NO_HEAD_LIMIT && entry->objects.size() > cache_limit_
                                            : read_ahead_full();
    if (!full)
      return false;
    entry->running = false;
  }
  // Looked at and waited for under one lock: what came since `get_next_entry` is not slept through.
  if (!end_ && !prefix_map_.empty() && !has_work()) {
    const ACE_Time_Value until = pause_end();
    ++idle_workers_;
    has_prefixes_.wait(&until);
    --idle_workers_;
  }
  return true;
}

void Async_OBS_Object_Lister::wake_workers(size_t count) {
  if (count >= idle_workers_) {
    has_prefixes_.broadcast();
    return;
  }
  for (; count > 0; --count)
    has_prefixes_.signal();
}

bool Async_OBS_Object_Lister::list_objects(std::shared_ptr<S3_Service_Base> svr, Prefix_Entry* entry) {
  CHECK_NULL_RETURN(entry, false);
  if (end_)
    return false;

  std::string name;
  std::string error;
  try {
    name = entry->name;
    if (!tree_is_full(entry, error) && list_page(svr, entry, error))
      return true;
  } catch (const std::exception& e) {
    // A prefix that this thread lost in the middle is not one that a service refused to list: nobody knows what is
    // missing below it.
    ACE_ERROR((LM_ERROR, ACE_TEXT("Listing of '%s/%s' broken off: %s.\n"), bucket_.c_str(), name.c_str(), e.what()));
    broken_off_ = true;
    finish();
    return false;
  }

  // Whoever is told that the prefix has failed may end the rest before that is logged.
  const bool ended = end_ || job_is_canceling();
  give_up(entry); // from here on the entry may be gone
  if (!ended)
    ACE_ERROR((LM_ERROR, ACE_TEXT("Failed to list all objects in %s/%s, last error: %s.\n"), bucket_.c_str(),
               name.c_str(), error.c_str()));
  return false;
}

bool Async_OBS_Object_Lister::list_page(const std::shared_ptr<S3_Service_Base>& svr, Prefix_Entry* entry,
                                        std::string& error) {
  Get_Bucket_Parameter param;
  param.prefix(entry->name.c_str());
  param.delimiter("/");
  if (!entry->marker.empty())
    param.marker(entry->marker.c_str());

  Get_Bucket_Content content;
  if (!list_objects_i(svr, param, content)) {
    error = svr ? svr->error() : "";
    return false;
  }
  if (content.truncated && content.next_marker == entry->marker) {
    error = "the service sends the same page again";
    return false;
  }
  take_page(entry, content);
  return true;
}

// A prefix that nothing was asked about is known to nobody else: it is listed, or the whole listing has failed.
bool Async_OBS_Object_Lister::tree_is_full(const Prefix_Entry* entry, std::string& error) {
  if (tree_size_ <= tree_limit_)
    return false;
  error = "there are more prefixes than fit into " + std::to_string(tree_limit_) + " bytes";
  if (!entry->marker.empty())
    return true;
  if (tree_size_ / 2 <= tree_limit_)
    return false;
  ACE_ERROR((LM_ERROR, ACE_TEXT("The listing of %s ends: %s.\n"), bucket_.c_str(), error.c_str()));
  finish();
  return true;
}

void Async_OBS_Object_Lister::give_up(Prefix_Entry* entry) {
  Guard guard(mutex_);
  list_end(entry, true);
  entry->running = false;
  has_objects_.signal();
}

void Async_OBS_Object_Lister::take_page(Prefix_Entry* entry, Get_Bucket_Content& content) {
  // The filter is asked, and the objects' list is made, before the lock is taken.
  const std::string base = "/" + bucket_ + "/";
  std::string path = base;
  const auto included = [&](const std::string& name, bool is_dir) {
    if (filter_ == nullptr)
      return true;
    path.resize(base.size());
    path += name;
    return MTF::is_included(path.c_str(), is_dir, filter_);
  };
  std::erase_if(content.common_prefixes, [&](const std::string& prefix) { return !included(prefix, true); });

  Prefix_Entry page(std::string(), nullptr);
  for (S3_Object& object : content.objects) {
    if (object.name == entry->name) {
      if (object.size != 0)
        ACE_ERROR((LM_ERROR, ACE_TEXT("The key '%s' ending with / is not supported, size: %Q.\n"), object.name.c_str(),
                   object.size));
    } else if (included(object.name, false)) {
      page.add_object(std::move(object.name), object.size, object.mtime);
    }
  }

  Guard guard(mutex_);
  size_t added = 0;
  for (const std::string& prefix : content.common_prefixes) {
    // Some services name a prefix again on a later page. By then it may have been listed.
    const auto place = prefix_map_.lower_bound(prefix);
    if (place != prefix_map_.end() && place->first == prefix)
      continue;
    Prefix_Entry* const child = entry->add_new_sub_prefix(prefix);
    if (child == nullptr)
      continue;
    prefix_map_.emplace_hint(place, prefix, child);
    tree_size_ += tree_cost(*child);
    ++stats_.cached_prefixes;
    ++added;
  }

  const size_t count = page.objects.size();
  entry->take_objects(page);
  stats_.total_objects += count;
  stats_.cached_objects += count;
  entry->marker = std::move(content.next_marker);

  const bool wake_consumer = entry == head_prefix_ && (!entry->objects.empty() || !content.truncated);
  if (!content.truncated)
    list_end(entry, false);
  entry->running = false;
  if (added > 0)
    wake_workers(added);
  if (wake_consumer)
    has_objects_.signal();
}

bool Async_OBS_Object_Lister::list_objects_i(std::shared_ptr<S3_Service_Base> svr, const Get_Bucket_Parameter& param,
                                             Get_Bucket_Content& content) {
  CHECK_NULL_RETURN(svr, false);
  Exponential_Backoff_Iterator wait(RETRY_SLOT, UNLIMITED_RETRIES, RETRY_CAP, true);
  for (int attempt = 1;; ++attempt, ++wait) {
    const ACE_Time_Value begin = Clock::instance().monotonic();
    if (svr->get_bucket(bucket_.c_str(), param, content)) {
      const ACE_Time_Value elapsed = Clock::instance().monotonic() - begin;
      ++stats_.requests;
      ++stats_.req_count;
      stats_.req_time += elapsed.get_msec();
      return true;
    }
    if (end_ || job_is_canceling())
      return false;
    const bool retriable = svr->last_error().retriable();
    ACE_ERROR((LM_ERROR, ACE_TEXT("Failed to list objects in '%s' , error: %s.\n"), bucket_.c_str(), svr->error()));
    if (!retriable)
      return false;
    if (!(wait != Exponential_Backoff_Iterator()) ||
        (retry_timeout_ != -1 && wait.cumulation() >= static_cast<unsigned long long>(std::max(retry_timeout_, 0)))) {
      ACE_ERROR((LM_ERROR, ACE_TEXT("Retry exit on listing objects in '%s' after %d seconds, last error: %s.\n"),
                 bucket_.c_str(), retry_timeout_, svr->error()));
      return false;
    }
    ACE_DEBUG((LM_INFO, ACE_TEXT("Retry(%d) %N:%l at %u second(s) later.\n"), attempt, *wait));
    if (!wait_before_retry(*wait))
      return false;
    content = Get_Bucket_Content();
  }
}

// Second by second, so that neither `reset` nor a cancelled job has to wait for the end of a long pause.
bool Async_OBS_Object_Lister::wait_before_retry(unsigned seconds) const {
  for (; seconds > 0 && !end_ && !job_is_canceling(); --seconds)
    Clock::instance().sleep(1);
  return !end_ && !job_is_canceling();
}

void Async_OBS_Object_Lister::list_end(Prefix_Entry* entry, bool failed) {
  CHECK_NULL_RETURN(entry);
  prefix_map_.erase(entry->name);
  entry->sub_prefixes.sort(
      [](const Prefix_Entry& a, const Prefix_Entry& b) { return MTF::compare(a.name, b.name, '/'); });
  entry->known_.clear();
  entry->done = true;
  ++stats_.iterated_prefixes;
  if (failed)
    ++stats_.iterated_errors;
  if (prefix_map_.empty())
    has_prefixes_.broadcast(); // the last prefix: idle workers end
}

bool Async_OBS_Object_Lister::next(Object_Entry& obj) {
  if (head_prefix_ == nullptr) {
    finish();
    return false;
  }
  if (end_) {
    broken_off_ = true; // no consumer asks on after `reset`
    return false;
  }
  if (hand_out(obj))
    return true;

  bool over = false;
  {
    Guard guard(mutex_);
    for (;;) {
      while (!end_ && !head_prefix_->done && head_prefix_->objects.empty() && live_workers_ > 0 && !over)
        over = has_objects_.wait() == -1;
      if (over)
        broken_off_ = true;
      if (over || end_)
        break;
      if (!head_prefix_->objects.empty()) {
        take_batch();
        break;
      }
      if (!head_prefix_->done) {
        broken_off_ = true;
        over = true;
        break;
      }
      head_prefix_ = get_next_head();
      if (head_prefix_ == nullptr) {
        over = true;
        break;
      }
      // The new head is listed even where read-ahead is full; a worker that paused for that takes it up now.
      if (!head_prefix_->done && !head_prefix_->running)
        wake_workers(1);
    }
  }
  if (over) {
    finish();
    return false;
  }
  if (!end_)
    return hand_out(obj);
  broken_off_ = true;
  return false;
}

void Async_OBS_Object_Lister::take_batch() {
  Object_List& objects = head_prefix_->objects;
  const bool was_full = objects.size() > cache_limit_;
  if (objects.size() <= batch_size_) {
    batch_.swap(objects);
    head_prefix_->obj_it_ = objects.before_begin();
  } else {
    Object_List::iterator last = objects.before_begin();
    for (size_t i = 0; i < batch_size_; ++i)
      ++last;
    batch_.splice_after(batch_.before_begin(), objects, objects.before_begin(), last, batch_size_);
  }
  if (was_full && head_is_free())
    wake_workers(1);
}

bool Async_OBS_Object_Lister::hand_out(Object_Entry& obj) {
  if (batch_.empty())
    return false;
  obj = std::move(batch_.front());
  batch_.pop_front();
  if (stats_.cached_objects.fetch_sub(1) == cache_limit_ + 1) {
    Guard guard(mutex_);
    has_prefixes_.broadcast();
  }
  return true;
}

Prefix_Entry* Async_OBS_Object_Lister::get_next_head() {
  Prefix_Entry* node = head_prefix_;
  std::vector<Prefix_Entry*> pending;
  for (;;) {
    while (!node->sub_prefixes.empty()) {
      Prefix_Entry* child = &node->sub_prefixes.front();
      if (!child->objects.empty() || !child->done) {
        child->head = true;
        return child;
      }
      pending.push_back(node);
      node = child;
    }
    if (!pending.empty()) {
      node = pending.back();
      pending.pop_back();
    } else {
      node = node->parent;
    }
    if (node == nullptr)
      return nullptr;
    tree_size_ -= tree_cost(node->sub_prefixes.front());
    node->sub_prefixes.pop_front();
    if (stats_.cached_prefixes.fetch_sub(1) == cache_limit_ + 1)
      has_prefixes_.broadcast();
  }
}

ACE_THR_FUNC_RETURN Async_OBS_Object_Lister::dump_stats(void* self) {
  Async_OBS_Object_Lister* lister = static_cast<Async_OBS_Object_Lister*>(self);
  Job::current(lister->job_);
  try {
    lister->dump_stats_i();
  } catch (const std::exception& e) {
    ACE_ERROR((LM_ERROR, ACE_TEXT("Statistics thread ended: %s.\n"), e.what()));
  }
  return nullptr;
}

void Async_OBS_Object_Lister::dump_stats_i() {
  while (!end_) {
    if (stats_.next_log_time <= Clock::instance().now()) {
      dump_stats_ii();
      continue;
    }
    Guard guard(mutex_);
    const ACE_Time_Value until = pause_end();
    if (!end_)
      ended_.wait(&until);
  }
}

void Async_OBS_Object_Lister::dump_stats_ii() {
  const unsigned long long req_time = stats_.req_time.exchange(0);
  const unsigned long long req_count = stats_.req_count.exchange(0);
  const time_t now = Clock::instance().now();
  const int interval = static_cast<int>(now - stats_.next_log_time + STATS_INTERVAL);
  const double average = req_count == 0 ? 0 : req_time / req_count / 1000.0;
  ACE_DEBUG((LM_INFO,
             ACE_TEXT("Iterate '%s/%s' stats: \n\tTotal requests: %Q\n\tTotal objects: %Q\n\tCached objects: %Q\n\t"
                      "Cached prefixes: %Q\n\tIterated prefixes: %Q\n\tIterated prefix errors: %Q\n\t"
                      "Requests in last %d seconds: %Q\n\tAverage response time in last %d seconds: %.3f\n"),
             bucket_.c_str(), root_->name.c_str(), stats_.requests.load(), stats_.total_objects.load(),
             stats_.cached_objects.load(), stats_.cached_prefixes.load(), stats_.iterated_prefixes.load(),
             stats_.iterated_errors.load(), interval, req_count, interval, average));
  stats_.next_log_time = now + STATS_INTERVAL;
}
