#include "platform/mtf/partial_sets.h"

#include "platform/catalog/catalog_staging.h"
#include "platform/catalog/open_catalog.h"
#include "platform/mtf/media_feed.h"
#include "platform/mtf/medium_salvage.h"
#include "platform/pool/durable_file.h"
#include "platform/pool/set_guard.h"
#include "sdk/base/clock.h"
#include "sdk/base/time_format.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>

namespace fs = std::filesystem;

namespace {

/// Far more media than a set ever has: where the numbers stop.
constexpr unsigned MAX_MEDIA = 65536;
/// Numbers that may be missing between two media of one set.
constexpr unsigned MAX_GAP = 256;

bool exists(const std::string& path) {
  struct stat status;
  return ::lstat(path.c_str(), &status) == 0;
}

std::string time_text(long long time) {
  return POSIX_Time_To_ISO8601(to_time_t(time), "%Y-%m-%d %H:%M:%S").str();
}

/// The unfinished catalog, and whatever else the run was about to write.
void remove_all_but_media(const std::string& folder, const Set_Record& record) {
  std::error_code code;
  std::vector<fs::path> others;
  for (fs::directory_iterator it(folder, code), end; !code && it != end; it.increment(code)) {
    const std::string name = it->path().filename().string();
    if (name != Set_Lock::FILE_NAME && std::none_of(record.media.begin(), record.media.end(),
                                                    [&](const Set_Record::Medium& one) { return one.name == name; }))
      others.push_back(it->path());
  }
  for (const fs::path& path : others)
    fs::remove_all(path, code);
}

/// The cipher of the set that the media of an unfinished folder belong to. True, with none, where no medium tells.
bool find_cipher(const Pool& pool, const std::string& folder, Set_Cipher_ptr& cipher, std::string& error) {
  for (unsigned channel = 0; channel < MAX_GAP; ++channel) {
    Medium_Set set;
    std::string ignored;
    if (exists(folder + "/" + medium_name(channel)) &&
        read_medium_set(folder + "/" + medium_name(channel), set, ignored))
      return open_set_cipher(pool, set.uuid, set.wrapped_key, cipher, error);
  }
  return true;
}

/// Makes a partial set of one unfinished folder. False when there is nothing to make it of.
bool make_partial(const Pool& pool, const std::string& uri, Set_Record& record, std::string& error) {
  const std::string folder = pool.set_folder(uri);
  Set_Cipher_ptr cipher;
  if (!find_cipher(pool, folder, cipher, error))
    return false;
  const std::unique_ptr<Catalog_Staging> staging = Catalog_Staging::make(error, cipher);
  if (!staging)
    return false;
  record = Set_Record();
  long long begun = 0;
  for (unsigned channel = 0, gap = 0; channel < MAX_MEDIA && gap < MAX_GAP; ++channel, ++gap) {
    const std::string name = medium_name(channel);
    const std::string path = folder + "/" + name;
    if (!exists(path))
      continue;
    gap = 0;
    Salvaged_Medium medium;
    std::string why;
    const bool whole = salvage_medium(
        path, cipher, [&](const Medium_Finding& finding) { return staging->add(found_object(finding, channel)); },
        medium, why);
    if (!staging->error().empty()) {
      error = staging->error();
      return false;
    }
    if (!whole || medium.objects == 0) {
      if (whole || error.empty())
        error = why;
      // Objects that were told before it failed are of no use without it.
      if (medium.objects != 0)
        return false;
      ::unlink(path.c_str());
      continue;
    }
    if (record.uuid.empty()) {
      record.uuid = medium.set.uuid;
      record.name = medium.set.name;
      begun = medium.set.write_date;
    } else if (record.uuid != medium.set.uuid) {
      error = path + " belongs to another set (" + medium.set.uuid + ") than the media before it";
      return false;
    }
    record.media.push_back({name, medium.size, medium.set.family});
    record.backup_set_storage_size += medium.size;
    record.channels = channel + 1;
  }
  if (staging->objects() == 0)
    return false;
  error.clear();
  record.uri = uri;
  record.host_uuid = uri.substr(0, uri.find('/'));
  record.minor_resource_id = uri.substr(record.host_uuid.size() + 1, uri.rfind('/') - record.host_uuid.size() - 1);
  record.type = "partial";
  record.encryption = cipher ? "aes-256-gcm" : "none";
  record.start_time = time_text(begun);
  record.end_time = time_text(Clock::instance().now());
  record.source_size = record.backup_set_size = staging->bytes();
  record.figures["saved"] = staging->objects();

  remove_all_but_media(folder, record);
  const auto catalog = Catalog_Writer::create(folder, error, cipher);
  if (!catalog)
    return false;
  if (!catalog->add_set({0, record.uuid, uri, 0}) || !staging->write(*catalog) || !catalog->finish()) {
    error = staging->error().empty() ? catalog->error() : staging->error();
    return false;
  }
  return seal_record(cipher, record, error) && sync_folder(folder, error) &&
         write_partial_record(folder, record, error);
}

} // namespace

Catalog_Object found_object(const Medium_Finding& finding, unsigned channel) {
  Catalog_Object object;
  object.path = finding.head.path;
  object.ordinal = finding.head.ordinal;
  object.size = finding.head.size;
  object.mtime = finding.head.mtime;
  object.channel = channel;
  object.offset = finding.offset;
  object.stored = finding.length;
  object.attributes = finding.head.attributes;
  std::memcpy(object.sha256, finding.sha256, sizeof object.sha256);
  object.flags = (finding.head.flags & OBJECT_FRESH) != 0 ? catalog::FLAG_FRESH : 0;
  return object;
}

void salvage_unfinished(const Pool& pool, const std::string& place, Salvage_Report& report) {
  for (const std::string& uri : pool.unfinished(place)) {
    Set_Lock lock;
    std::string error;
    if (!pool.lock_unfinished(uri, lock, error)) {
      if (!error.empty())
        report.problems.push_back(error);
      continue;
    }
    Set_Record record;
    if (!exists(pool.set_folder(uri) + "/" + MERGE_MARK) && make_partial(pool, uri, record, error)) {
      ++report.salvaged;
      report.objects += json_spirit::find(record.figures, "saved")->get_uint64();
      report.bytes += record.source_size;
      continue;
    }
    if (pool.remove_set(uri, error))
      ++report.removed;
    else
      report.problems.push_back(error);
  }
}

bool referenced_sets(const Pool& pool, const std::string& place, std::set<std::string>& uuids, std::string& error) {
  std::vector<std::string> bad;
  const std::vector<Set_Record> records = pool.sets(place, bad);
  if (!bad.empty()) {
    error = bad.front();
    return false;
  }
  for (const Set_Record& record : records) {
    const auto catalog = open_set_catalog(pool, record, error);
    if (!catalog)
      return false;
    for (const Catalog_Set& set : catalog->sets())
      if (set.index != 0)
        uuids.insert(set.uuid);
  }
  return true;
}

bool reclaim_partial_sets(const Pool& pool, const std::string& place, const std::set<std::string>* candidates,
                          std::string& error) {
  std::vector<std::string> bad;
  const std::vector<Set_Record> partial = pool.partial_sets(place, bad);
  bool done = bad.empty();
  if (!done)
    error = bad.front();
  if (partial.empty())
    return done;
  std::set<std::string> used;
  if (!referenced_sets(pool, place, used, error))
    return false;
  for (const Set_Record& one : partial) {
    if (used.count(one.uuid) != 0 || (candidates != nullptr && candidates->count(one.uuid) == 0))
      continue;
    Set_Guard guard;
    if (guard.own(pool.set_folder(one.uri), error) != Set_Guard::HELD || !pool.remove_set(one.uri, error))
      done = false;
  }
  return done;
}

std::unique_ptr<Partial_Sets> Partial_Sets::open(const Pool& pool, const std::string& place, unsigned first_index,
                                                 std::vector<std::string>& problems) {
  std::unique_ptr<Partial_Sets> sets(new Partial_Sets);
  const std::vector<Set_Record> found = pool.partial_sets(place, problems);
  if (found.empty())
    return sets;
  std::set<std::string> used;
  std::string error;
  if (!referenced_sets(pool, place, used, error))
    problems.push_back(error);
  for (const Set_Record& record : found) {
    if (used.count(record.uuid) != 0)
      continue;
    One one;
    one.catalog = open_set_catalog(pool, record, error);
    if (!one.catalog || one.catalog->set_uuid() != record.uuid) {
      problems.push_back(one.catalog ? "the catalog of the partial set " + record.uuid + " is that of another" : error);
      continue;
    }
    bool bad = false;
    for (const Set_Record::Medium& medium : record.media) {
      const std::string path = pool.set_folder(record.uri) + "/" + medium.name;
      const std::string why = medium_problem(path, medium.size);
      if (why.empty())
        continue;
      problems.push_back(path + ": " + why);
      bad = true;
    }
    if (bad)
      continue;
    one.set = {first_index++, record.uuid, record.uri, record.seq};
    sets->sets_.push_back(std::move(one));
  }
  return sets;
}

bool Partial_Sets::enter(const std::string& path) {
  for (One& one : sets_)
    if (!one.catalog->enter(path, error_))
      return false;
  return true;
}

bool Partial_Sets::find(const std::string& name, unsigned long long size, long long mtime, Catalog_Object& object) {
  for (One& one : sets_) {
    if (!one.catalog->match(name, object, error_)) {
      if (!error_.empty())
        return false;
      continue;
    }
    if (object.size != size || object.mtime != mtime || (object.flags & catalog::FLAG_FRESH) != 0)
      continue;
    object.flags = 0;
    object.set = one.set.index;
    one.used = true;
    return true;
  }
  return false;
}

bool Partial_Sets::add_sets(Catalog_Writer& catalog) const {
  for (const One& one : sets_)
    if (one.used && !catalog.add_set(one.set))
      return false;
  return true;
}
