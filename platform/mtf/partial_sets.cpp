#include "platform/mtf/partial_sets.h"

#include "platform/catalog/catalog_staging.h"
#include "platform/catalog/open_catalog.h"
#include "platform/job/current_job.h"
#include "platform/mtf/media_feed.h"
#include "platform/mtf/medium_salvage.h"
#include "platform/pool/durable_file.h"
#include "platform/pool/pool_files.h"
#include "platform/pool/set_guard.h"
#include "sdk/base/clock.h"
#include "sdk/base/time_format.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

namespace {

/// Far more media than a set ever has: where the numbers stop.
constexpr unsigned MAX_MEDIA = 65536;
/// Numbers that may be missing between two media of one set.
constexpr unsigned MAX_GAP = 256;

bool exists(const std::string& path) {
  struct stat status;
  return find_pool_file(path, status);
}

std::string time_text(long long time) {
  return POSIX_Time_To_ISO8601(to_time_t(time), "%Y-%m-%d %H:%M:%S").str();
}

/// What the files in a folder hold, as far as that can be seen.
unsigned long long bytes_in(const std::string& folder) {
  unsigned long long bytes = 0;
  std::vector<std::string> names;
  read_pool_folder(folder, names);
  for (const std::string& name : names) {
    struct stat status;
    if (find_pool_file(folder + "/" + name, status) && S_ISREG(status.st_mode))
      bytes += static_cast<unsigned long long>(status.st_size);
  }
  return bytes;
}

/// What became of an unfinished folder.
enum class Salvage {
  PARTIAL, ///< it is a partial set
  NOTHING, ///< all of it was read, and nothing in it is whole
  STAYS    ///< something failed; what is whole in it still is
};

/// Makes a partial set of one unfinished folder. All of it is read before anything in it is changed, and no change
/// touches what is whole: so it can fail, or be cut short, at every step, and be done again.
class Unfinished_Set {
public:
  Unfinished_Set(const Pool& pool, const std::string& uri) : pool_(pool), uri_(uri), folder_(pool.set_folder(uri)) {}

  Salvage make_partial(Set_Record& record, std::string& error) {
    if (!find_media(error))
      return Salvage::STAYS;
    if (media_.empty())
      return Salvage::NOTHING;
    const Medium_Set& set = media_.front().medium.set;
    if (!open_set_cipher(pool_, set.uuid, set.wrapped_key, cipher_, error) || !read_media(error))
      return Salvage::STAYS;
    if (staging_->objects() == 0)
      return Salvage::NOTHING;
    describe(record);
    if (change(record, error))
      return Salvage::PARTIAL;
    give_room();
    return Salvage::STAYS;
  }

private:
  struct Channel {
    unsigned number;
    Left_Medium medium;
  };

  bool find_media(std::string& error) {
    for (unsigned channel = 0, gap = 0; channel < MAX_MEDIA && gap < MAX_GAP; ++channel, ++gap) {
      Channel one{channel, {}};
      one.medium.path = folder_ + "/" + medium_name(channel);
      struct stat status;
      if (!find_pool_file(one.medium.path, status)) {
        if (errno == ENOENT)
          continue;
        error = "cannot look at " + one.medium.path + ": " + std::strerror(errno);
        return false;
      }
      gap = 0;
      std::string why;
      const Left_Kind kind = look_at_left_medium(one.medium, why);
      if (kind == Left_Kind::NOTHING)
        continue;
      error = why;
      if (kind == Left_Kind::UNREAD)
        return false;
      media_.push_back(std::move(one));
      const std::string& uuid = media_.back().medium.set.uuid;
      if (uuid != media_.front().medium.set.uuid) {
        error = media_.back().medium.path + " belongs to another set (" + uuid + ") than the media before it";
        return false;
      }
    }
    return true;
  }

  /// Puts what is whole into `staging_`, and forgets media without any.
  bool read_media(std::string& error) {
    staging_ = Catalog_Staging::make(error, cipher_);
    if (!staging_)
      return false;
    for (Channel& one : media_) {
      const auto found = [&](const Medium_Finding& finding) {
        return !is_current_job_canceling() && staging_->add(found_object(finding, one.number));
      };
      if (!read_left_medium(one.medium, cipher_, found, error)) {
        if (!staging_->error().empty())
          error = staging_->error();
        return false;
      }
    }
    media_.erase(
        std::remove_if(media_.begin(), media_.end(), [](const Channel& one) { return one.medium.objects == 0; }),
        media_.end());
    return true;
  }

  void describe(Set_Record& record) const {
    const Medium_Set& set = media_.front().medium.set;
    record = Set_Record();
    record.uuid = set.uuid;
    record.name = set.name;
    record.uri = uri_;
    record.host_uuid = uri_.substr(0, uri_.find('/'));
    record.minor_resource_id = uri_.substr(record.host_uuid.size() + 1, uri_.rfind('/') - record.host_uuid.size() - 1);
    record.type = "partial";
    record.encryption = cipher_ ? "aes-256-gcm" : "none";
    record.start_time = time_text(set.write_date);
    record.end_time = time_text(Clock::instance().now());
    record.channels = media_.back().number + 1;
    record.source_size = record.backup_set_size = staging_->bytes();
    record.figures["saved"] = staging_->objects();
  }

  /// What is no use is given up first: on a full disk that is the room for what is written then. The record makes it a
  /// partial set, so all else is durable before.
  bool change(Set_Record& record, std::string& error) {
    remove_all_but_media();
    for (const Channel& one : media_)
      if (!cut_left_medium(one.medium, error))
        return false;
    if (!write_catalog(error))
      return false;
    for (Channel& one : media_) {
      if (!end_left_medium(one.medium, cipher_, error))
        return false;
      record.media.push_back({medium_name(one.number), one.medium.size, one.medium.set.family});
      record.backup_set_storage_size += one.medium.size;
    }
    return seal_record(cipher_, record, error) && sync_folder(folder_, error) &&
           write_partial_record(folder_, record, error);
  }

  bool write_catalog(std::string& error) {
    const auto catalog = Catalog_Writer::create(folder_, error, cipher_);
    if (!catalog)
      return false;
    const std::string& uuid = media_.front().medium.set.uuid;
    if (catalog->add_set({0, uuid, uri_, 0}) && staging_->write(*catalog) && catalog->finish())
      return true;
    error = staging_->error().empty() ? catalog->error() : staging_->error();
    return false;
  }

  /// The unfinished catalog, media without anything whole, and whatever else the run was about to write.
  void remove_all_but_media() const {
    std::vector<std::string> names;
    std::string ignored;
    read_pool_folder(folder_, names);
    for (const std::string& name : names)
      if (name != Set_Lock::FILE_NAME && std::none_of(media_.begin(), media_.end(), [&](const Channel& one) {
            return medium_name(one.number) == name;
          }))
        remove_pool_tree(folder_ + "/" + name, ignored);
  }

  /// Leaves nothing but what is whole. Only a record that is there, and may or may not be durable, forbids it.
  void give_room() const {
    struct stat status;
    if (find_pool_file(folder_ + "/" + Set_Record::PARTIAL_FILE_NAME, status) || errno != ENOENT)
      return;
    remove_all_but_media();
    std::string ignored;
    for (const Channel& one : media_)
      cut_left_medium(one.medium, ignored);
  }

  const Pool& pool_;
  const std::string uri_, folder_;
  std::vector<Channel> media_;
  Set_Cipher_ptr cipher_;
  std::unique_ptr<Catalog_Staging> staging_;
};

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
  // On a full disk small ones, of which often nothing is left, make room for the others.
  std::vector<std::pair<unsigned long long, std::string>> left;
  for (const std::string& uri : pool.unfinished(place))
    left.emplace_back(bytes_in(pool.set_folder(uri)), uri);
  std::sort(left.begin(), left.end());
  for (const auto& [bytes, uri] : left) {
    // Before anything in a folder is changed, all of it is read: that can be left at any point.
    if (is_current_job_canceling())
      return;
    const std::string folder = pool.set_folder(uri);
    Set_Lock lock;
    std::string error;
    if (!pool.lock_unfinished(uri, lock, error)) {
      if (!error.empty())
        report.problems.push_back({folder, error});
      continue;
    }
    Set_Record record;
    const Salvage made =
        exists(folder + "/" + MERGE_MARK) ? Salvage::NOTHING : Unfinished_Set(pool, uri).make_partial(record, error);
    if (made == Salvage::PARTIAL) {
      ++report.salvaged;
      report.objects += json_spirit::find(record.figures, "saved")->get_uint64();
      report.bytes += record.source_size;
    } else if (made == Salvage::NOTHING && pool.remove_set(uri, error)) {
      ++report.removed;
    } else if (!is_current_job_canceling()) {
      report.problems.push_back({folder, error});
    }
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
    const auto catalog = open_checked_catalog(pool, record, error);
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
    one.catalog = open_checked_catalog(pool, record, error);
    if (!one.catalog) {
      problems.push_back(error);
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
