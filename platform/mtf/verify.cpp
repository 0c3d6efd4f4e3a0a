#include "platform/mtf/verify.h"

#include "platform/catalog/catalog_sum.h"
#include "platform/catalog/open_catalog.h"
#include "platform/mtf/engine_threads.h"
#include "platform/mtf/media_feed.h"

#include <algorithm>
#include <atomic>
#include <map>
#include <mutex>
#include <set>
#include <utility>

namespace {

constexpr unsigned DEFAULT_THREADS = 4;
constexpr unsigned MAX_THREADS = 256;
/// What is kept of what stands wrong beside objects, and of where damaged objects lie.
constexpr size_t MAX_FINDINGS = 1000;
constexpr size_t MAX_DAMAGED_PLACES = 100000;
constexpr double PARTS = 1e6;

/// A number that depends on both and on nothing else, evenly spread (the finalizer of SplitMix64).
unsigned long long mixed(unsigned long long seed, unsigned long long ordinal) {
  unsigned long long x = seed * 0x9E3779B97F4A7C15ull + ordinal;
  x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
  x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
  return x ^ (x >> 31);
}

class Verification {
public:
  Verification(const Pool& pool, const Set_Record& record, const std::vector<Catalog_Set>& sets,
               const Verify_Options& options, Media_Feed& feed, Verify_Report& report)
      : pool_(pool), record_(record), sets_(sets), options_(options), feed_(feed), report_(report) {}

  /// Whether the object is to be read. The feed's thread.
  bool choose(const Media_Task& task) {
    const double part = static_cast<double>(mixed(options_.seed, task.object.ordinal) % static_cast<unsigned>(PARTS));
    if (!task.medium || part < options_.sample / 100 * PARTS)
      return true;
    std::lock_guard<std::mutex> guard(mutex_);
    ++place_of(task.object).objects;
    ++report_.passed;
    return false;
  }

  /// The work of one thread: first what stands between the objects of some medium, then objects.
  void check() {
    if (options_.sample >= 100)
      for (size_t i; (i = next_medium_++) < record_.media.size() && !feed_.stopped();)
        check_blocks(i);
    Media_Task task;
    while (feed_.next(task)) {
      if (is_canceling())
        return;
      Stored_Reading reading;
      Read_Outcome outcome = reading.open(task) ? Read_Outcome::MORE : Read_Outcome::DAMAGED;
      unsigned long long bytes = 0;
      while (outcome == Read_Outcome::MORE) {
        std::string_view piece;
        outcome = reading.next(piece);
        bytes += piece.size();
        if (feed_.stopped())
          return;
      }
      settle(task, outcome == Read_Outcome::END, reading, bytes);
    }
  }

  void tell() {
    if (!options_.progress)
      return;
    unsigned long long checked, bytes;
    {
      std::lock_guard<std::mutex> guard(mutex_);
      checked = report_.checked;
      bytes = report_.bytes;
    }
    options_.progress(checked, bytes);
  }

  void fail(const std::string& why) {
    {
      std::lock_guard<std::mutex> guard(mutex_);
      if (report_.failure.empty())
        report_.failure = why;
    }
    feed_.stop();
  }

  bool canceled() const { return canceled_; }

  /// Puts the places and what was found beside objects into the report. When all threads have ended.
  void conclude() {
    for (const auto& [key, place] : places_)
      report_.places.push_back(place);
    for (const Block_Finding& one : findings_)
      if (damaged_.count({one.medium, one.offset}) == 0)
        report_.media.push_back(one.text);
  }

  bool is_canceling() {
    if (!options_.canceling || !options_.canceling())
      return false;
    canceled_ = true;
    feed_.stop();
    return true;
  }

private:
  struct Block_Finding {
    unsigned medium;
    unsigned long long offset;
    std::string text;
  };

  /// Whole media that are missing or cut have been told already, and damaged objects are found by reading them.
  void check_blocks(size_t index) {
    const Set_Record::Medium& medium = record_.media[index];
    const std::string file = pool_.set_folder(record_.uri) + "/" + medium.name;
    Set_Cipher_ptr cipher;
    std::string error;
    if (!open_set_cipher(pool_, record_, cipher, error))
      return;
    const auto reader = Medium_Reader::open(file, medium.family, error, cipher);
    if (!reader || reader->size() != medium.size || !reader->complete(error))
      return;
    unsigned channel = 0;
    while (channel < record_.media.size() && medium_name(channel) != medium.name)
      ++channel;
    const auto found = [&](const Medium_Finding& finding) {
      if (finding.kind == Medium_Finding::DAMAGE) {
        std::lock_guard<std::mutex> guard(mutex_);
        if (findings_.size() < MAX_FINDINGS)
          findings_.push_back({channel, finding.offset, medium.name + ": " + finding.message});
      }
      return !feed_.stopped();
    };
    if (!reader->walk(false, found, error)) {
      std::lock_guard<std::mutex> guard(mutex_);
      findings_.push_back({channel, ~0ull, medium.name + ": " + error});
    }
  }

  /// The lock is held.
  Verify_Report::Place& place_of(const Catalog_Object& object) {
    const auto [found, made] = places_.emplace(std::make_pair(object.set, object.channel), Verify_Report::Place());
    Verify_Report::Place& place = found->second;
    if (!made)
      return place;
    place.medium = medium_name(object.channel);
    place.own = object.set == 0;
    for (const Catalog_Set& set : sets_)
      if (set.index == object.set) {
        place.set = set.uuid;
        place.uri = object.set == 0 ? record_.uri : set.uri;
      }
    return place;
  }

  /// What the catalog says of an object, beside its content, that the medium says otherwise; empty when they agree.
  std::string difference(const Catalog_Object& object, const Stored_Reading& reading) const {
    const Object_Head& head = reading.head();
    // What only one object has is not handed out here; the catalog's check covers it.
    if (reading.attributes().common != object.attributes.common)
      return "its attributes on the medium are not those of the catalog";
    // An object of another set may have been found the same under a new date, which only this catalog has.
    if (object.set == 0 && head.mtime != object.mtime)
      return "its modification time on the medium (" + std::to_string(head.mtime) + ") is not that of the catalog (" +
             std::to_string(object.mtime) + ")";
    if (reading.stored() != object.stored)
      return "it takes " + std::to_string(reading.stored()) + " bytes on the medium instead of " +
             std::to_string(object.stored);
    // Where it was taken over from another set, it has had another place in that one's listing.
    if (object.set == 0 && head.ordinal != object.ordinal)
      return "its number on the medium (" + std::to_string(head.ordinal) + ") is not that of the catalog (" +
             std::to_string(object.ordinal) + ")";
    return std::string();
  }

  void settle(const Media_Task& task, bool good, const Stored_Reading& reading, unsigned long long bytes) {
    std::lock_guard<std::mutex> guard(mutex_);
    Verify_Report::Place& place = place_of(task.object);
    ++place.objects;
    ++report_.checked;
    report_.bytes += bytes;
    report_.stored += reading.stored();
    std::string problem = reading.error();
    if (good)
      problem = reading.attributes_problem();
    if (good && problem.empty())
      problem = difference(task.object, reading);
    if (good && problem.empty()) {
      ++report_.good;
      ++place.good;
      return;
    }
    ++report_.damaged;
    ++place.damaged;
    report_.lost += good ? 0 : 1;
    report_.lost_bytes += good ? 0 : task.object.size;
    if (!task.medium)
      place.error = task.error;
    if (!good && task.object.set == 0 && damaged_.size() < MAX_DAMAGED_PLACES)
      damaged_.insert({task.object.channel, task.object.offset});
    const Verify_Damage damage = {!good,        task.object.path, task.object.size,    place.set,
                                  place.medium, problem,          task.object.channel, task.object.offset};
    if (report_.damages.size() < Verify_Report::MAX_DAMAGES)
      report_.damages.push_back(damage);
    if (options_.found)
      options_.found(damage);
  }

  const Pool& pool_;
  const Set_Record& record_;
  const std::vector<Catalog_Set>& sets_;
  const Verify_Options& options_;
  Media_Feed& feed_;
  std::atomic<bool> canceled_{false};
  std::atomic<size_t> next_medium_{0};
  std::mutex mutex_; ///< guards what follows
  Verify_Report& report_;
  std::map<std::pair<unsigned, unsigned>, Verify_Report::Place> places_;
  std::vector<Block_Finding> findings_;
  std::set<std::pair<unsigned, unsigned long long>> damaged_; ///< medium and offset, of the set's own
};

} // namespace

bool verify_set(const Pool& pool, const Set_Record& record, const Verify_Options& options, Verify_Report& report) {
  report = Verify_Report();
  std::string error;
  auto catalog = open_set_catalog(pool, record, error);
  if (!catalog) {
    report.failure = error;
    return false;
  }
  report.objects = catalog->counts().objects;
  std::vector<std::string> catalog_findings;
  if (!catalog->check_pages(error))
    catalog_findings.push_back(error);
  else if (!check_catalog_sum(pool.set_folder(record.uri), error))
    catalog_findings.push_back(error);
  Media_Feed feed(pool, record, *catalog);
  if (!feed.hold(report.failure))
    return false;
  feed.inspect_media();
  const std::vector<Catalog_Set> sets = catalog->sets();
  Verification verification(pool, record, sets, options, feed, report);
  feed.choose([&](const Media_Task& task) { return verification.choose(task); });
  Engine_Threads threads;
  const auto failed = [&](const std::string& why) { verification.fail(why); };
  const unsigned count = options.threads == 0            ? DEFAULT_THREADS
                         : options.threads < MAX_THREADS ? options.threads
                                                         : MAX_THREADS;
  const auto starts = [&] {
    for (unsigned i = 0; i < count; ++i)
      threads.start(
          "Verify " + std::to_string(i), [&] { verification.check(); }, failed);
    threads.start(
        "Verify feed",
        [&] {
          std::string why;
          if (!feed.run(Catalog_Selection(), why))
            verification.fail(why);
        },
        failed);
  };
  const auto watch = [&](bool tell) {
    verification.is_canceling();
    if (tell)
      verification.tell();
  };
  threads.run(starts, watch, failed);
  report.media = catalog_findings;
  report.media.insert(report.media.end(), feed.findings().begin(), feed.findings().end());
  verification.conclude();
  verification.is_canceling();
  report.canceled = verification.canceled();
  if (report.failure.empty() && !report.canceled && report.checked + report.passed != report.objects)
    report.failure = "the catalog holds " + std::to_string(report.checked + report.passed) + " objects instead of " +
                     std::to_string(report.objects);
  verification.tell();
  return report.clean();
}
