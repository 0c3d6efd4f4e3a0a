#include "platform/mtf/restore_engine.h"

#include "platform/catalog/open_catalog.h"
#include "platform/job/current_job.h"
#include "platform/mtf/engine_log.h"
#include "platform/mtf/engine_threads.h"
#include "platform/mtf/media_feed.h"
#include "platform/mtf/restore_channel.h"
#include "sdk/base/clock.h"
#include "sdk/job/job.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>

using namespace MTF;

namespace {

constexpr unsigned DEFAULT_CONCURRENT = 16;
constexpr unsigned MAX_CONCURRENT = 1024;

double monotonic_seconds() {
  const ACE_Time_Value now = Clock::instance().monotonic();
  return static_cast<double>(now.sec()) + static_cast<double>(now.usec()) / 1e6;
}

double seconds_between(const ACE_Time_Value& from, const ACE_Time_Value& to) {
  const ACE_Time_Value span = to - from;
  return static_cast<double>(span.sec()) + static_cast<double>(span.usec()) / 1e6;
}

std::string without_end(std::string text) {
  while (!text.empty() && text.back() == '/')
    text.pop_back();
  return text;
}

/// "HOST/RESOURCE" of a longer URI.
std::string place_of(const std::string& uri) {
  const size_t slash = uri.find('/');
  return slash == std::string::npos ? uri : uri.substr(0, uri.find('/', slash + 1));
}

bool is_wanted(const Set_Record& record, const std::string& uuid) {
  return uuid.empty() || record.uuid == uuid ||
         std::find(record.replaces.begin(), record.replaces.end(), uuid) != record.replaces.end();
}

} // namespace

bool parse_restore_selection(const std::list<json_spirit::Value>& entries, Catalog_Selection& selection,
                             std::string& error) {
  bool everything = entries.empty();
  for (const json_spirit::Value& entry : entries) {
    const json_spirit::Value* dir = nullptr;
    const json_spirit::Value* file = nullptr;
    if (entry.type() == json_spirit::obj_type) {
      dir = json_spirit::find(entry.get_obj(), "dir");
      file = json_spirit::find(entry.get_obj(), "file");
    }
    const json_spirit::Value* const one = dir != nullptr ? dir : file;
    if (one == nullptr || one->type() != json_spirit::str_type) {
      error = "A selected entry names neither a \"dir\" nor a \"file\": " + json_spirit::write(entry);
      return false;
    }
    std::string path = one->get_str();
    // One slash stands before the bucket; any further one would be the key's own.
    if (!path.empty() && path.front() == '/')
      path.erase(0, 1);
    if (path.empty()) {
      everything = true;
    } else if (dir != nullptr) {
      if (path.back() != '/')
        path.push_back('/');
      selection.folders.push_back(path);
    } else {
      selection.objects.push_back(path);
    }
  }
  if (everything)
    selection = Catalog_Selection();
  return true;
}

bool find_restore_set(const Pool& pool, const Restore_Order& order, Set_Record& record, std::string& error) {
  const std::string prefix = without_end(order.uri_prefix);
  std::vector<std::string> errors;
  const std::vector<Set_Record> sets = pool.sets(place_of(prefix), errors);
  std::vector<const Set_Record*> found;
  for (const Set_Record& one : sets) {
    if (one.seq != order.seq || !is_wanted(one, order.set_uuid) ||
        (!order.minor_resource_id.empty() && !one.minor_resource_id.empty() &&
         one.minor_resource_id != order.minor_resource_id))
      continue;
    if (one.uri == prefix) {
      found = {&one};
      break;
    }
    // The prefix of an incremental may be that of the full set which began its chain.
    if (order.incarnation.empty() || one.incarnation.empty() || one.incarnation == order.incarnation)
      found.push_back(&one);
  }
  if (found.size() == 1) {
    record = *found.front();
    return true;
  }
  if (found.empty()) {
    error = "There is no set " + std::to_string(order.seq) + " of '" + prefix + "' in the pool" +
            (order.set_uuid.empty() ? "." : " that is " + order.set_uuid + ".");
    for (const std::string& one : errors)
      error += " " + one + ".";
    return false;
  }
  error = "Several sets of '" + prefix + "' have the number " + std::to_string(order.seq) + ":";
  for (const Set_Record* one : found)
    error += " " + one->uuid;
  error += ".";
  return false;
}

struct Restore_Engine::Impl {
  Impl(Restore_Order o, Event_Handler_var h, std::shared_ptr<ACE_Log_Msg_Callback> l)
      : order(std::move(o)), handler(h), log(std::move(l)), account(h) {
    Job* const job = Job::current();
    if (job != nullptr)
      ledger = job->ledger();
  }

  bool prepare(const std::string& location, const std::string& pool_uuid);
  bool restore_objects();
  void channel();
  void fail(Error_Code code, const std::string& text);
  void supervise(bool tell);
  bool canceling() const { return !handler.null() && handler->is_canceling(); }
  bool begin_commit();
  bool wait_while_paused(double seconds = 0);
  bool is_cut() const { return cut || canceling() || (ledger && ledger->service.gone()); }
  void conclude(const ACE_Time_Value& begun);

  Restore_Order order;
  Event_Handler_var handler;
  std::shared_ptr<ACE_Log_Msg_Callback> log;
  std::shared_ptr<S3_Ledger> ledger;
  Run_Account account;

  Pool pool;
  Set_Record record;
  std::unique_ptr<Catalog_Reader> catalog;
  Catalog_Selection selection;
  unsigned long long selected = 0;
  bool unmatched = false;
  std::unique_ptr<Media_Feed> feed;
  Restore_Shared shared;

  std::atomic<bool> cut{false}; ///< the run was stopped: it was cancelled, or its service is gone
  std::mutex mutex;             ///< guards what follows
  std::condition_variable resumed;
  bool paused = false;
  bool stopped = false;
  unsigned channels = 0; ///< that have a callback or may still get one
  Error_Code code = E_OK;
  std::string failure;

  Engine_Threads threads; ///< the last: they work on all of the above
};

Restore_Engine::Restore_Engine(Restore_Order order, Event_Handler_var handler,
                               std::shared_ptr<ACE_Log_Msg_Callback> log)
    : impl_(new Impl(std::move(order), handler, std::move(log))) {}

Restore_Engine::~Restore_Engine() = default;

Error_Code Restore_Engine::err_code() const {
  return impl_->code;
}
const std::string& Restore_Engine::failure() const {
  return impl_->failure;
}
unsigned long long Restore_Engine::size() const {
  return impl_->account.saved_bytes();
}
unsigned long long Restore_Engine::set_size() const {
  return impl_->account.bytes_read();
}

/// Whatever fails while the run is being cancelled has been cancelled.
void Restore_Engine::Impl::fail(Error_Code why, const std::string& text) {
  {
    std::lock_guard<std::mutex> guard(mutex);
    stopped = true;
    resumed.notify_all();
    if (code != E_OK)
      return;
    code = canceling() ? E_CANCELED : why;
    failure = code == E_CANCELED ? "The restore was cancelled." : text;
    why = code;
    cut = why == E_CANCELED || (ledger && ledger->service.gone());
  }
  if (why != E_CANCELED)
    engine_log(log, LM_ERROR, text);
  if (feed)
    feed->stop();
  shared.handover.stop();
}

/// Also so many seconds.
bool Restore_Engine::Impl::wait_while_paused(double seconds) {
  std::unique_lock<std::mutex> lock(mutex);
  if (seconds > 0)
    resumed.wait_for(lock, std::chrono::duration<double>(seconds), [this] { return stopped; });
  resumed.wait(lock, [this] { return stopped || !paused; });
  return !stopped;
}

/// False when the run was cancelled before. From here on it cannot be.
bool Restore_Engine::Impl::begin_commit() {
  if (!canceling() && begin_commit_of_current_job())
    return true;
  fail(E_CANCELED, std::string());
  return false;
}

void Restore_Engine::Impl::supervise(bool tell) {
  if (canceling())
    fail(E_CANCELED, std::string());
  else if (ledger && ledger->service.look(monotonic_seconds()))
    fail(E_FAILED, ledger->service.message());
  if (handler.null())
    return;
  {
    std::lock_guard<std::mutex> guard(mutex);
    paused = handler->pausing();
    resumed.notify_all();
  }
  if (tell)
    handler->handle_progress(0, account.saved_objects(), account.bytes_read(), account.stored_bytes());
}

bool Restore_Engine::Impl::prepare(const std::string& location, const std::string& pool_uuid) {
  std::string error;
  if (!Pool::open(location, pool_uuid, pool, error)) {
    fail(E_GET_POOL_INFO, error);
    return false;
  }
  if (!parse_restore_selection(order.select, selection, error)) {
    fail(E_FAILED, error);
    return false;
  }
  if (!find_restore_set(pool, order, record, error)) {
    fail(E_NO_SET, error);
    return false;
  }
  catalog = open_set_catalog(pool, record, error);
  unsigned long long bytes = 0;
  std::vector<std::string> absent;
  if (!catalog || !catalog->count(selection, selected, bytes, absent, error)) {
    fail(E_NO_SET, error);
    return false;
  }
  feed = std::make_unique<Media_Feed>(pool, record, *catalog);
  if (!feed->hold(error)) {
    fail(E_NO_SET, error);
    return false;
  }
  account.selected(selected);
  for (const std::string& path : absent)
    account.absent(path);
  unmatched = !absent.empty();
  return true;
}

/// A channel whose callback cannot be made leaves its work to the others; the last one ends the run.
void Restore_Engine::Impl::channel() {
  IRestore_Callback_var callback = order.factory.null() ? IRestore_Callback_var() : order.factory->make();
  if (!callback.null()) {
    Restore_Channel(shared, callback).run();
    return;
  }
  bool last;
  {
    std::lock_guard<std::mutex> guard(mutex);
    last = --channels == 0;
  }
  if (last)
    fail(E_MAKE_CALLBACK, "The target cannot be connected.");
}

bool Restore_Engine::Impl::restore_objects() {
  if (!order.actions.null() && !order.actions->execute_pre_action()) {
    fail(E_ACTION, "The pre-action failed.");
    return false;
  }
  const unsigned wanted = order.concurrent == 0 ? DEFAULT_CONCURRENT : std::min(order.concurrent, MAX_CONCURRENT);
  const unsigned count = static_cast<unsigned>(std::clamp<unsigned long long>(selected, 1, wanted));
  shared.handover.open(count);
  shared.converter = order.converter;
  shared.only_different = order.only_different;
  shared.feed = feed.get();
  shared.account = &account;
  shared.ledger = ledger;
  shared.memory.open(order.byte_budget);
  shared.cut = [this] { return is_cut(); };
  shared.rest = [this](double seconds) { return wait_while_paused(seconds); };
  shared.wait_while_paused = [this] { return wait_while_paused(); };
  channels = count;
  const auto failed = [this](const std::string& why) { fail(E_FAILED, "The restore ends: " + why + "."); };
  const auto starts = [this, count, &failed] {
    threads.start(
        "Restore feed",
        [this] {
          std::string error;
          if (!feed->run(selection, error))
            fail(E_NO_SET, error);
        },
        failed);
    // While a channel waits for its service another thread reads and verifies what the next one is going to write.
    for (unsigned i = 0; i < count; ++i) {
      threads.start(
          "Restore read " + std::to_string(i), [this] { Restore_Reading(shared).run(); }, failed);
      threads.start(
          "Restore " + std::to_string(i), [this] { channel(); }, failed);
    }
  };
  threads.run(
      starts, [this](bool tell) { supervise(tell); }, failed);
  for (const std::string& finding : feed->findings())
    engine_log(log, LM_ERROR, finding);
  if (canceling())
    fail(E_CANCELED, std::string());
  if (code != E_OK)
    return false;
  if ((selected != 0 || unmatched) && account.saved_objects() == 0 && account.unchanged_objects() == 0) {
    fail(E_NO_FILES_RESTORED, "No object could be restored.");
    return false;
  }
  return true;
}

void Restore_Engine::Impl::conclude(const ACE_Time_Value& begun) {
  json_spirit::Object figures = account.figures(ledger.get(), cut ? Run_End::STOPPED : Run_End::KEPT,
                                                seconds_between(begun, Clock::instance().monotonic()));
  if (!failure.empty())
    figures["failure"] = failure;
  if (code == E_OK && account.problems() != 0)
    code = E_END_WITH_SKIPPED_FILES;
  if (handler.null())
    return;
  handler->handle_progress(0, account.saved_objects(), account.bytes_read(), account.stored_bytes());
  handler->notify_event(EVENT_OUTCOME, figures);
}

bool Restore_Engine::run(const std::string& location, const std::string& pool_uuid) {
  Impl& i = *impl_;
  const ACE_Time_Value begun = Clock::instance().monotonic();
  bool done = false;
  try {
    done = i.prepare(location, pool_uuid) && i.restore_objects();
  } catch (const std::exception& e) {
    i.fail(E_FAILED, std::string("The restore ends: ") + e.what() + ".");
    done = false;
  }
  if (!i.order.actions.null() && !i.order.actions->execute_post_action(done, "") && done) {
    i.fail(E_ACTION, "The post-action failed.");
    done = false;
  }
  done = done && i.begin_commit();
  i.conclude(begun);
  return done;
}

bool Restore_Engine::refuse(Error_Code code, const std::string& error) {
  impl_->fail(code, error);
  if (!impl_->order.actions.null())
    impl_->order.actions->execute_post_action(false, "");
  impl_->conclude(Clock::instance().monotonic());
  return false;
}
