#include "platform/mtf/verify.h"

#include "platform/catalog/open_catalog.h"
#include "platform/mtf/engine_threads.h"
#include "platform/mtf/media_feed.h"

#include <atomic>
#include <mutex>

namespace {

constexpr unsigned DEFAULT_THREADS = 4;
constexpr unsigned MAX_THREADS = 256;
constexpr size_t BUFFER = 256u << 10;

class Verification {
public:
  Verification(const Verify_Options& options, Media_Feed& feed, Verify_Report& report)
      : options_(options), feed_(feed), report_(report) {}

  void check() {
    std::vector<char> buffer(BUFFER);
    Media_Task task;
    while (feed_.next(task)) {
      if (options_.canceling && options_.canceling()) {
        canceled_ = true;
        feed_.stop();
        return;
      }
      Stored_Reading reading;
      Read_Outcome outcome = reading.open(task) ? Read_Outcome::MORE : Read_Outcome::DAMAGED;
      unsigned long long bytes = 0;
      while (outcome == Read_Outcome::MORE) {
        size_t got = 0;
        outcome = reading.read(buffer.data(), buffer.size(), got);
        bytes += got;
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

private:
  void settle(const Media_Task& task, bool good, const Stored_Reading& reading, unsigned long long bytes) {
    std::lock_guard<std::mutex> guard(mutex_);
    ++report_.checked;
    report_.bytes += bytes;
    report_.stored += reading.stored();
    if (good) {
      ++report_.good;
      return;
    }
    ++report_.damaged;
    if (report_.damages.size() < Verify_Report::MAX_DAMAGES)
      report_.damages.push_back({task.object.path, reading.error()});
  }

  const Verify_Options& options_;
  Media_Feed& feed_;
  std::atomic<bool> canceled_{false};
  std::mutex mutex_; ///< guards `report_`
  Verify_Report& report_;
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
  if (catalog->set_uuid() != record.uuid) {
    report.failure = "the catalog is that of another set (" + catalog->set_uuid() + ")";
    return false;
  }
  report.objects = catalog->counts().objects;
  Media_Feed feed(pool, record, *catalog);
  feed.inspect_own_media();
  Verification verification(options, feed, report);
  Engine_Threads threads;
  const auto failed = [&](const std::string& why) { verification.fail(why); };
  const unsigned count = options.threads == 0            ? DEFAULT_THREADS
                         : options.threads < MAX_THREADS ? options.threads
                                                         : MAX_THREADS;
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
  threads.join([&](bool tell) {
    if (tell)
      verification.tell();
  });
  report.media = feed.findings();
  report.canceled = verification.canceled();
  if (report.failure.empty() && !report.canceled && report.checked != report.objects)
    report.failure =
        "the catalog holds " + std::to_string(report.checked) + " objects instead of " + std::to_string(report.objects);
  verification.tell();
  return report.clean();
}
