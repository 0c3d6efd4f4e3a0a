#include "platform/mtf/backup_engine.h"

#include "platform/catalog/catalog_writer.h"
#include "platform/catalog/open_catalog.h"
#include "platform/job/current_job.h"
#include "platform/mtf/backup_channel.h"
#include "platform/mtf/backup_listing.h"
#include "platform/mtf/counting_filter.h"
#include "platform/mtf/engine_log.h"
#include "platform/mtf/engine_threads.h"
#include "platform/mtf/media_feed.h"
#include "platform/mtf/merge.h"
#include "platform/mtf/partial_sets.h"
#include "platform/mtf/set_copy.h"
#include "platform/pool/pool_files.h"
#include "platform/pool/set_keys.h"
#include "sdk/base/clock.h"
#include "sdk/base/time_format.h"
#include "sdk/job/job.h"
#include "sdk/mtf/attributes_update.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <random>

using namespace MTF;

namespace {

constexpr unsigned DEFAULT_READERS = 32;
constexpr unsigned MAX_READERS = 1024;
constexpr unsigned MAX_CHANNELS = 256;
/// Seconds between two looks whether the service has come back.
constexpr double SERVICE_CHECK = 0.2;

unsigned make_family() {
  std::random_device random;
  unsigned family;
  do {
    family = random();
  } while (family == 0);
  return family;
}

double monotonic_seconds() {
  const ACE_Time_Value now = Clock::instance().monotonic();
  return static_cast<double>(now.sec()) + static_cast<double>(now.usec()) / 1e6;
}

double seconds_between(const ACE_Time_Value& from, const ACE_Time_Value& to) {
  const ACE_Time_Value span = to - from;
  return static_cast<double>(span.sec()) + static_cast<double>(span.usec()) / 1e6;
}

/// "HOST/RESOURCE" of a prefix that may go on.
std::string place_of(const std::string& prefix) {
  const size_t host = prefix.find('/');
  return host == std::string::npos ? prefix : prefix.substr(0, prefix.find('/', host + 1));
}

bool is_taken(const Pool& pool, const std::string& uri) {
  Set_Record record;
  std::string error;
  bool missing = false;
  return read_stored_record(pool.set_folder(uri), record, error, &missing) || !missing;
}

/// So many names of a folder are tried, which is far more than runs of one uuid there can have been.
constexpr unsigned MAX_NAMES = 100;

/// The set's folder: as told when that is a new one, else a new one beside it.
std::string set_uri(const Pool& pool, const std::string& prefix, const std::string& uuid) {
  std::string uri = prefix;
  const bool open = uri.empty() || uri.back() == '/';
  while (!uri.empty() && uri.back() == '/')
    uri.pop_back();
  if (open || std::count(uri.begin(), uri.end(), '/') == 1)
    uri = uri.empty() ? uuid : uri + "/" + uuid;
  else if (is_taken(pool, uri))
    uri = uri.substr(0, uri.rfind('/') + 1) + uuid;
  // Where the place cannot be read every name looks taken: then the last one is tried, and making it says why it fails.
  std::string free = uri;
  for (unsigned i = 1; i <= MAX_NAMES && is_taken(pool, free); ++i)
    free = uri + "-" + std::to_string(i);
  return free;
}

} // namespace

struct Backup_Engine::Impl {
  Impl(Backup_Order o, Event_Handler_var h, Metadata& m, std::shared_ptr<ACE_Log_Msg_Callback> l)
      : order(std::move(o)), handler(h), metadata(m), log(std::move(l)), job(Job::current()),
        ledger(job != nullptr ? job->ledger() : nullptr), account(h),
        queue(order.limits, order.channels = std::clamp(order.channels, 1u, MAX_CHANNELS)) {}

  ~Impl() {
    if (ledger)
      ledger->tell_full_folder_objects(nullptr);
  }

  bool prepare(const std::string& location, const std::string& pool_uuid);
  void take_up_unfinished();
  bool choose_seq();
  bool make_media();
  bool write_objects();
  std::string copied_record();
  bool complete();
  void list();
  void judge_listing(const Unlisted& unlisted);
  bool nothing_selected();
  void judge_deletions(bool all_listed);
  void listing_ended(bool whole);
  void fail(Error_Code code, const std::string& text);
  bool canceling() const { return !handler.null() && handler->is_canceling(); }
  bool is_cut() const { return cut || canceling(); }
  bool begin_commit();
  void start(const std::string& name, std::function<void()> body);
  void broken(const std::string& why);
  void supervise(bool tell);
  void conclude(bool kept);
  void discard();

  Backup_Order order;
  Event_Handler_var handler;
  Metadata& metadata;
  std::shared_ptr<ACE_Log_Msg_Callback> log;
  Job* const job;
  std::shared_ptr<S3_Ledger> ledger;

  Pool pool;
  std::shared_ptr<Process_Lock> pool_lock;
  Set_Lock lock;
  std::string place; ///< "HOST/RESOURCE"
  std::string uri;
  unsigned seq = 0; ///< the set's number
  bool made_folder = false;
  bool stays = false; ///< what a run that was stopped has stored
  unsigned family = 0;
  Run_Account account;
  Backup_Queue queue;
  std::unique_ptr<Catalog_Writer> catalog;
  std::unique_ptr<Backup_Base> base;     ///< null: every object is stored
  std::string chain;                     ///< of an incremental without base, where that is known
  std::unique_ptr<Partial_Sets> partial; ///< null: there is nothing to go on with
  Earlier_Sets earlier;
  std::string too_many_gone; ///< why no set is made of what is stored; empty: nothing speaks against one
  std::unique_ptr<Source_Watch> watch;
  std::unique_ptr<Counting_Filter> filter; ///< null: everything passes
  std::unique_ptr<Listing_Events> events;
  bool listing_over = false;
  std::vector<std::unique_ptr<Backup_Channel>> channels;
  Backup_Shared shared;
  ISrc_Lister_var lister;
  const ACE_Time_Value begun = Clock::instance().monotonic();
  unsigned long long set_bytes = 0; ///< on media and in the catalog

  std::atomic<bool> cut{false}; ///< the run was stopped: it was cancelled, or its service is gone
  std::mutex mutex;             ///< guards what follows
  Error_Code code = E_OK;
  std::string failure;

  Engine_Threads threads; ///< the last: they work on all of the above
};

Backup_Engine::Backup_Engine(Backup_Order order, Event_Handler_var handler, Metadata& metadata,
                             std::shared_ptr<ACE_Log_Msg_Callback> log)
    : impl_(new Impl(std::move(order), handler, metadata, std::move(log))) {}

Backup_Engine::~Backup_Engine() = default;

Error_Code Backup_Engine::err_code() const {
  return impl_->code;
}
const std::string& Backup_Engine::failure() const {
  return impl_->failure;
}
unsigned long long Backup_Engine::size() const {
  return impl_->account.saved_bytes();
}
unsigned long long Backup_Engine::set_size() const {
  return impl_->account.saved_bytes();
}
unsigned long long Backup_Engine::set_storage_size() const {
  return impl_->set_bytes;
}
size_t Backup_Engine::peak_bytes() const {
  return impl_->queue.peak_bytes();
}

/// Whatever fails while the run is being cancelled has been cancelled.
void Backup_Engine::Impl::fail(Error_Code why, const std::string& text) {
  {
    std::lock_guard<std::mutex> guard(mutex);
    if (code != E_OK)
      return;
    code = canceling() ? E_CANCELED : why;
    failure = code == E_CANCELED ? "The backup was cancelled." : text;
    why = code;
    cut = why == E_CANCELED || (ledger && ledger->service.gone());
  }
  if (why != E_CANCELED)
    engine_log(log, LM_ERROR, text);
  if (events)
    events->stop();
  queue.stop(cut);
}

/// False when the run was cancelled before. From here on it cannot be.
bool Backup_Engine::Impl::begin_commit() {
  if (!canceling() && begin_commit_of_current_job())
    return true;
  fail(E_CANCELED, "The backup was cancelled.");
  return false;
}

bool Backup_Engine::Impl::prepare(const std::string& location, const std::string& pool_uuid) {
  std::string error;
  if (!Pool::open(location, pool_uuid, pool, error)) {
    fail(E_GET_POOL_INFO, error);
    return false;
  }
  pool_lock = pool.lock(error);
  if (!pool_lock) {
    fail(E_OPEN_MEDIUM, error);
    return false;
  }
  if (!make_set_cipher(pool, order.uuid, order.codec.cipher, error)) {
    fail(E_GET_POOL_INFO, error);
    return false;
  }
  place = place_of(order.uri_prefix);
  take_up_unfinished();
  if (canceling()) {
    fail(E_CANCELED, std::string());
    return false;
  }
  if (!choose_seq())
    return false;
  uri = set_uri(pool, order.uri_prefix, order.uuid);
  if (!pool.make_set_folder(uri, lock, error)) {
    fail(E_OPEN_MEDIUM, error);
    return false;
  }
  made_folder = true;
  catalog = Catalog_Writer::create(pool.set_folder(uri), error, order.codec.cipher);
  if (!catalog || !catalog->add_set({0, order.uuid, uri, seq})) {
    fail(E_OPEN_MEDIUM, catalog ? catalog->error() : error);
    return false;
  }
  account.catalog(catalog.get());
  if (order.incremental && order.base_seq != 0) {
    base = Backup_Base::open(pool, place, order.base_seq, order.base_uuid, error);
    if (!base) {
      engine_log(log, LM_WARNING, "Every object is stored anew: " + error + ".");
      chain = Backup_Base::chain_of(pool, place, order.base_seq, order.base_uuid);
      std::string mended;
      if (!Backup_Base::mend(pool, place, order.base_seq, order.base_uuid, mended, error))
        engine_log(log, LM_WARNING, "The set before this one stays damaged: " + error + ".");
      else if (!mended.empty())
        engine_log(log, LM_WARNING, "The set before this one is whole again: " + mended + ".");
    }
    for (const Backup_Base::Bad_Medium& medium : base ? base->bad_media() : std::vector<Backup_Base::Bad_Medium>()) {
      engine_log(log, LM_WARNING, medium.path + ": " + medium.message);
      account.note("medium", medium.path, json_spirit::Value(), medium.message);
    }
  }
  std::vector<std::string> problems;
  partial = Partial_Sets::open(pool, place, base ? base->end_index() : 1, problems);
  for (const std::string& problem : problems)
    engine_log(log, LM_WARNING, "What an unfinished run has stored cannot be used: " + problem + ".");
  if (partial->empty())
    partial.reset();
  return make_media();
}

/// What earlier runs left becomes something to go on with.
void Backup_Engine::Impl::take_up_unfinished() {
  std::vector<std::string> busy;
  std::string error;
  if (!finish_merges(pool, place, busy, error))
    engine_log(log, LM_WARNING, "A merge that was cut short cannot be ended: " + error + ".");
  Salvage_Report report;
  salvage_unfinished(pool, place, report);
  if (report.salvaged != 0)
    engine_log(log, LM_INFO,
               "The run goes on with " + std::to_string(report.objects) + " objects (" + std::to_string(report.bytes) +
                   " bytes) that unfinished runs have stored.");
  if (report.removed != 0)
    engine_log(log, LM_INFO,
               "Removed " + std::to_string(report.removed) + " unfinished sets without any whole object.");
  for (const Salvage_Report::Problem& problem : report.problems) {
    const std::string message = "An unfinished set stays for the next run: " + problem.message + ".";
    engine_log(log, LM_WARNING, message);
    account.note("set", problem.folder, json_spirit::Value(), message);
  }
}

/// While the pool is locked: no other run can take the same one.
bool Backup_Engine::Impl::choose_seq() {
  // What cannot be read has been told, and its number is among those of the order where it was known.
  std::vector<std::string> errors;
  const std::vector<Set_Record> sets = pool.sets(place, errors);
  for (const Set_Record& record : sets)
    if (record.uuid != order.uuid)
      order.numbers.take(record.seq);
  earlier = Earlier_Sets::of(sets);
  seq = order.base_seq == 0 ? order.numbers.first_of_chain() : order.numbers.behind(order.base_seq);
  if (seq == 0)
    fail(E_OPEN_MEDIUM, "There is no number for the set: " + std::string(Set_Numbers::NONE_FREE) + ".");
  return seq != 0;
}

bool Backup_Engine::Impl::make_media() {
  std::string error;
  // A codec that is not there shall not fail object by object.
  Object_Image probe;
  if (!probe.encode(Object_Head(), "", order.codec, error)) {
    fail(E_OPEN_MEDIUM, error);
    return false;
  }
  family = make_family();
  for (unsigned i = 0; i < order.channels; ++i) {
    Medium_Identity identity;
    identity.family = family;
    identity.media_name = medium_name(i);
    identity.software = "obs-agent";
    identity.set_uuid = order.uuid;
    identity.set_name = metadata.name;
    identity.description = metadata.minor_resource_name;
    identity.user = metadata.uid;
    identity.machine = metadata.host;
    identity.incremental = base != nullptr;
    identity.write_date = Clock::instance().now();
    identity.cipher = order.codec.cipher;
    auto medium = Medium_Writer::create(pool.set_folder(uri) + "/" + medium_name(i), identity, error);
    if (!medium) {
      fail(E_OPEN_MEDIUM, error);
      return false;
    }
    channels.push_back(std::make_unique<Backup_Channel>(shared, i, std::move(medium)));
  }
  return true;
}

void Backup_Engine::Impl::start(const std::string& name, std::function<void()> body) {
  threads.start(name, std::move(body), [this](const std::string& why) { broken(why); });
}

void Backup_Engine::Impl::broken(const std::string& why) {
  fail(E_FAILED, "The backup ends: " + why + ".");
}

void Backup_Engine::Impl::list() {
  const IFile_Reader_var asking = base || partial ? shared.callback->make_file_reader() : IFile_Reader_var();
  Backup_Listing listing(queue, *catalog, account, base.get(), partial.get(), *watch);
  listing.update_by(dynamic_cast<IFile_Attributes_Update*>(asking.get()));
  int result = lister->generate([&](std::unique_ptr<Cat_Blk> block) {
    const bool taken = block && listing.take(*block);
    if (!taken)
      events->refused();
    return taken;
  });
  // Prefixes that nobody could list are known as such only when it is known whether the service is there.
  while (result == 0 && ledger && !ledger->failed_listings().empty() && ledger->service.failing())
    if (!queue.wait_while_paused(SERVICE_CHECK))
      break;
  if (is_cut())
    result = -1;
  listing_ended(result == 0);
  Unlisted unlisted;
  if (ledger) {
    for (const S3_Ledger::Failed_Listing& one : ledger->failed_listings())
      unlisted.prefixes.push_back(one.path);
    for (const S3_Ledger::Failed_Listing& one : ledger->broken_off_listings())
      unlisted.prefixes.push_back(one.path);
  }
  unlisted.objects = events->unseen_objects();
  unlisted.anything = account.lost_objects() != 0 || events->more_unseen();
  const bool whole = (result != 0 || listing.compare(unlisted, order.sources, order.filter)) && listing.finish();
  if (!catalog->error().empty())
    fail(E_WRITE_MEDIUM, catalog->error());
  else if (!listing.error().empty())
    fail(E_LIST_SOURCE, "The source cannot be listed: " + listing.error() + ".");
  else if (result != 0 || !whole)
    fail(E_LIST_SOURCE, "The source cannot be listed.");
  else
    judge_listing(unlisted);
  queue.close();
}

/// Of a whole listing that was compared: names PATHs without anything, and ends a run that finds too little of what the
/// sets before had.
void Backup_Engine::Impl::judge_listing(const Unlisted& unlisted) {
  const Deletion_Limits& limits = order.deletions;
  for (const std::string& path : unlisted.prefixes)
    watch->unlisted(path.substr(!path.empty() && path.front() == '/'));
  for (const std::string& path : unlisted.objects)
    watch->saw(path);
  if (unlisted.anything)
    watch->unlisted(std::string());
  if (ledger)
    for (const S3_Ledger::Folder_Object& one : ledger->folder_objects())
      watch->saw(one.path.substr(!one.path.empty() && one.path.front() == '/'));
  const bool all_listed = unlisted.prefixes.empty() && !unlisted.anything;
  const bool nothing = account.selected_objects() == 0;
  if (nothing && all_listed && !limits.allow_empty && !nothing_selected())
    return;
  judge_deletions(all_listed);
  // That everything is gone was agreed to, and so it is no question how much.
  if (nothing && limits.allow_empty)
    too_many_gone.clear();
  if (!limits.allow_empty && too_many_gone.empty())
    for (const std::string& path : watch->empty())
      account.nothing_at(path);
}

/// Of a run that shall not be empty. False when it has to end.
bool Backup_Engine::Impl::nothing_selected() {
  const bool excluded = filter && filter->excluded_anything();
  if (earlier.whole != 0)
    fail(E_LIST_SOURCE, (excluded ? "The rules exclude everything that is below the paths" : "Nothing is listed") +
                            std::string(", and the last whole set has ") + std::to_string(earlier.whole) +
                            " objects. " + (excluded ? "If that is meant" : "If nothing is there any more") +
                            ", give --allow-empty.");
  else if (excluded)
    account.all_excluded();
  return earlier.whole == 0;
}

/// Whether too much is gone of what the set before has: deleted, excluded by now, or below none of the paths.
void Backup_Engine::Impl::judge_deletions(bool all_listed) {
  unsigned long long had = base ? base->objects() : earlier.newest, deleted = account.deleted_objects();
  if (!base) {
    // A full run compares nothing: of what it still asks for, so many at least are gone.
    unsigned long long asked = had;
    std::string error;
    const auto catalog = earlier.last ? open_set_catalog(pool, *earlier.last, error) : nullptr;
    Run_Account::Deselected counts;
    if (catalog && count_deselected(
                       *catalog, order.sources, order.filter, [this] { return is_cut(); }, counts, asked, error)) {
      had = catalog->counts().objects;
      account.deselected(counts);
    } else if (earlier.last && !error.empty()) {
      asked = had;
      engine_log(log, LM_WARNING, "What the set before has is known by its number alone: " + error + ".");
    }
    const unsigned long long selected = account.selected_objects();
    deleted = all_listed && asked > selected ? asked - selected : 0;
  }
  const Run_Account::Deselected& deselected = account.deselected();
  const unsigned long long gone = deleted + deselected.excluded + deselected.outside;
  if (!order.deletions.exceeded(gone, had))
    return;
  too_many_gone = std::to_string(gone) + " of the " + std::to_string(had) + " objects of the set before are gone";
  if (gone != deleted)
    too_many_gone += " (" + std::to_string(deleted) + " deleted, " + std::to_string(deselected.excluded) +
                     " excluded by the rules now, " + std::to_string(deselected.outside) + " below none of the paths)";
  too_many_gone += ", which is more than may be (" + order.deletions.text() +
                   "). If that is right, give a higher --max-deleted; 100% for no limit.";
}

/// By the lister's thread or, where that broke down, when all threads have ended.
void Backup_Engine::Impl::listing_ended(bool whole) {
  if (listing_over)
    return;
  listing_over = true;
  Run_Account::Listing_End end;
  end.whole = whole;
  end.excluded = filter ? filter->excluded_objects() : 0;
  if (events) {
    events->settle();
    end.unanswered = events->unanswered();
  }
  account.listing_ended(ledger.get(), end);
  if (ledger)
    ledger->tell_full_folder_objects(nullptr);
}

/// Asks for cancel and pause and tells the progress.
void Backup_Engine::Impl::supervise(bool tell) {
  if (canceling())
    fail(E_CANCELED, std::string());
  else if (ledger && ledger->service.look(monotonic_seconds()))
    fail(E_FAILED, ledger->service.message());
  if (handler.null())
    return;
  queue.pause(handler->pausing());
  if (tell)
    handler->handle_progress(0, account.saved_objects(), account.bytes_read(), account.stored_bytes());
}

bool Backup_Engine::Impl::write_objects() {
  if (!order.actions.null() && !order.actions->execute_pre_action()) {
    fail(E_ACTION, "The pre-action failed.");
    return false;
  }
  IBackup_Callback_var callback = order.factory.null() ? IBackup_Callback_var() : order.factory->make();
  if (callback.null()) {
    fail(E_MAKE_CALLBACK, "The source cannot be connected.");
    return false;
  }
  events = std::make_unique<Listing_Events>(handler, account, *catalog, order.sources);
  watch = std::make_unique<Source_Watch>(order.asked.empty() ? order.sources : order.asked);
  if (order.filter != nullptr)
    filter = std::make_unique<Counting_Filter>(*order.filter, *watch);
  if (ledger)
    ledger->tell_full_folder_objects([this](const S3_Ledger::Folder_Object& one) { account.full_folder(one); });
  lister = callback->make_source_lister(&order.sources, static_cast<unsigned short>(seq), events.get(), filter.get(),
                                        static_cast<int>(order.scan_threads));
  if (lister.null()) {
    fail(E_LIST_SOURCE, "The source's lister cannot be made.");
    return false;
  }
  shared.limits = order.limits;
  shared.codec = order.codec;
  shared.seq = seq;
  shared.callback = callback;
  shared.queue = &queue;
  shared.account = &account;
  shared.ledger = ledger;
  shared.catalog = catalog.get();
  shared.base = base.get();
  shared.cut = [this] { return is_cut(); };
  shared.fail = [this](Error_Code why, const std::string& text) { fail(why, text); };

  const unsigned count = static_cast<unsigned>(channels.size());
  const unsigned readers =
      std::max(count, std::min(order.io.readers == 0 ? DEFAULT_READERS : order.io.readers, MAX_READERS));
  threads.run(
      [&] {
        for (unsigned i = 0; i < count; ++i) {
          Backup_Channel* const channel = channels[i].get();
          start("Channel " + std::to_string(i), [channel] { channel->write(); });
          for (unsigned r = i; r < readers; r += count)
            start("Reader " + std::to_string(r), [channel] { channel->read(); });
        }
        start("Lister", [this] { list(); });
      },
      [this](bool tell) { supervise(tell); }, [this](const std::string& why) { broken(why); });
  // The lister is the callback's, and both may hold connections.
  lister = ISrc_Lister_var();
  shared.callback = IBackup_Callback_var();
  if (canceling())
    fail(E_CANCELED, std::string());
  return code == E_OK;
}

/// What is known of the set's record before it is written: all but the sizes of the media.
std::string Backup_Engine::Impl::copied_record() {
  Set_Record record = describe_set(metadata);
  record.uuid = order.uuid;
  record.uri = uri;
  // The number goes on in the same chain, whether the set before could be opened or not.
  record.incarnation = base ? base->incarnation() : order.incremental ? chain : order.uuid;
  if (base)
    record.bases.push_back(base->uuid());
  record.seq = seq;
  record.channels = static_cast<unsigned>(channels.size());
  record.end_time = POSIX_Time_To_ISO8601(Clock::instance().now(), "%Y-%m-%d %H:%M:%S").str();
  record.source_size = record.backup_set_size = account.saved_bytes();
  record.figures = account.figures(ledger.get(), Run_End::KEPT, seconds_between(begun, Clock::instance().monotonic()));
  std::string error;
  if (!seal_record(order.codec.cipher, record, error))
    throw std::runtime_error(error);
  return json_spirit::write(record.to_json());
}

bool Backup_Engine::Impl::complete() {
  // Not before all is stored and on the disk, so that nothing is read twice when the operator agrees.
  if (!too_many_gone.empty()) {
    if (channels[0]->finish())
      fail(E_LIST_SOURCE, too_many_gone);
    return false;
  }
  if (account.saved_objects() + account.unchanged_objects() == 0 && account.problems() != account.empty_paths()) {
    fail(E_NO_FILES_BACKUPED, "No object could be backed up.");
    return false;
  }
  account.catalog(nullptr);
  if ((base && !base->add_sets(*catalog)) || (partial && !partial->add_sets(*catalog)) || !catalog->finish()) {
    fail(E_WRITE_MEDIUM, catalog->error());
    return false;
  }
  account.set_holds(catalog->counts().objects);
  const Set_Copy copy{copied_record(), pool.set_folder(uri) + "/" + catalog::FILE_NAME};
  if (!channels[0]->finish(&copy))
    return false;
  metadata.media.clear();
  for (unsigned i = 0; i < channels.size(); ++i) {
    json_spirit::Object medium;
    medium["name"] = medium_name(i);
    medium["size"] = channels[i]->size();
    medium["family"] = family;
    metadata.media.push_back(std::move(medium));
    set_bytes += channels[i]->size();
  }
  metadata.seq = seq;
  metadata.channels = static_cast<unsigned>(channels.size());
  metadata.set_uri = uri;
  metadata.data_key = order.codec.cipher ? order.codec.cipher->wrapped() : std::string();
  metadata.base_uuid = base ? base->uuid() : std::string();
  return true;
}

void Backup_Engine::Impl::discard() {
  account.catalog(nullptr);
  // What a cancel, a full disk or a service that went away has ended is gone on with; what was refused is not.
  const bool worth = account.saved_objects() > account.continued_objects() &&
                     (cut || code == E_WRITE_MEDIUM || code == E_LIST_SOURCE || code == E_FAILED);
  for (const std::unique_ptr<Backup_Channel>& channel : channels)
    if (worth && !channel->keep())
      engine_log(log, LM_WARNING, "Not all that is stored can be gone on with: a medium cannot be written.");
  channels.clear();
  catalog.reset();
  stays = cut && account.saved_objects() != 0;
  std::string error;
  if (made_folder && worth) {
    remove_pool_file(pool.set_folder(uri) + "/" + catalog::FILE_NAME);
    engine_log(log, LM_INFO, "What is stored so far stays for the next run of the same source.");
  } else if (made_folder && !pool.remove_set(uri, error)) {
    engine_log(log, LM_WARNING, "The unfinished set stays until the next run: " + error + ".");
  }
  lock.release();
}

void Backup_Engine::Impl::conclude(bool kept) {
  const Run_End end = kept ? Run_End::KEPT : cut ? Run_End::STOPPED : Run_End::DROPPED;
  json_spirit::Object figures =
      account.figures(ledger.get(), end, seconds_between(begun, Clock::instance().monotonic()));
  if (stays)
    figures["resumable"] = account.saved_objects();
  if (!failure.empty())
    figures["failure"] = failure;
  metadata.figures = figures;
  // A text with a name, which no record of an encrypted set shall show.
  if (const unsigned long long outside = account.deselected().outside; outside != 0)
    figures["paths_changed"] = "the paths of '" + metadata.minor_resource_name +
                               "' have changed: " + std::to_string(outside) + (outside == 1 ? " object" : " objects") +
                               " of its last set " + (outside == 1 ? "is" : "are") + " not below them";
  if (kept && account.problems() != 0)
    code = E_END_WITH_SKIPPED_FILES;
  if (handler.null())
    return;
  handler->handle_progress(0, account.saved_objects(), account.bytes_read(), account.stored_bytes());
  handler->notify_event(EVENT_OUTCOME, figures);
}

bool Backup_Engine::run(const std::string& location, const std::string& pool_uuid) {
  Impl& i = *impl_;
  bool done = false;
  try {
    done = i.prepare(location, pool_uuid) && i.write_objects();
    i.listing_ended(false);
    done = done && i.complete();
  } catch (const std::exception& e) {
    i.fail(E_FAILED, std::string("The backup ends: ") + e.what() + ".");
    done = false;
  }
  if (!i.order.actions.null() && !i.order.actions->execute_post_action(done, "") && done) {
    i.fail(E_ACTION, "The post-action failed.");
    done = false;
  }
  done = done && i.begin_commit();
  if (!done)
    i.discard();
  i.channels.clear();
  i.catalog.reset();
  i.conclude(done);
  return done;
}

bool Backup_Engine::refuse(Error_Code code, const std::string& error) {
  impl_->fail(code, error);
  if (!impl_->order.actions.null())
    impl_->order.actions->execute_post_action(false, "");
  impl_->conclude(false);
  return false;
}
