#include "platform/mtf/merge.h"

#include "platform/catalog/catalog_moves.h"
#include "platform/catalog/catalog_sum.h"
#include "platform/catalog/open_catalog.h"
#include "platform/mtf/catalog_rebuild.h"
#include "platform/mtf/catalog_relink.h"
#include "platform/mtf/media_feed.h"
#include "platform/mtf/medium_writer.h"
#include "platform/mtf/partial_sets.h"
#include "platform/mtf/set_copy.h"
#include "platform/pool/durable_file.h"
#include "platform/pool/pool_files.h"
#include "platform/pool/pool_roll.h"
#include "platform/pool/set_guard.h"
#include "sdk/base/clock.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <random>
#include <set>

namespace fs = std::filesystem;

namespace {

/// Where a catalog is made anew, inside the folder of its set.
constexpr const char* WORK_FOLDER = "relink.tmp";
constexpr unsigned long long TELL_EVERY = 256; ///< objects

std::string place_of(const std::string& uri) {
  return uri.substr(0, uri.rfind('/'));
}

class Merge {
public:
  Merge(const Pool& pool, const std::vector<Set_Record>& sets, const Merge_Options& options, Merge_Report& report)
      : pool_(pool), options_(options), report_(report), place_(place_of(sets.back().uri)), newest_(sets.back()) {
    for (const Set_Record& set : sets)
      absorbed_[set.uuid] = set;
  }

  bool run(std::string& error) {
    if (!check_catalogs(error) || !take_partial_sets(error))
      return false;
    const bool done = begin(error) && find_live(error) && copy_live(error) && report_.damaged == 0 && end(error);
    // Without the lock there is no folder of ours.
    if (!done && lock_.held()) {
      if (report_.damaged != 0)
        error = std::to_string(report_.damaged) + " objects are damaged; nothing is merged";
      media_.clear();
      moves_.reset();
      catalog_ = Catalog_Db();
      std::string why;
      if (!pool_.remove_set(uri_, why))
        error += " (" + why + ")";
    }
    lock_.release();
    return done;
  }

private:
  /// All that the merged set is made of, or that tells what of it is live, is as it was written.
  bool check_catalogs(std::string& error) {
    std::vector<std::string> bad;
    std::string mended;
    for (const Set_Record& record : pool_.sets(place_, bad))
      if (!open_sound_catalog(pool_, record, mended, error))
        return false;
    return true;
  }

  /// What unfinished runs left and one of the sets points into is taken along.
  bool take_partial_sets(std::string& error) {
    std::map<std::string, Set_Record> partial;
    std::vector<std::string> bad;
    for (Set_Record& record : pool_.partial_sets(place_, bad))
      partial[record.uuid] = std::move(record);
    const std::vector<std::pair<std::string, Set_Record>> given(absorbed_.begin(), absorbed_.end());
    for (const auto& [uuid, record] : given) {
      const auto catalog = open_set_catalog(pool_, record, error);
      if (!catalog)
        return false;
      for (const Catalog_Set& set : catalog->sets())
        if (const auto found = partial.find(set.uuid); found != partial.end())
          absorbed_.insert(*found);
    }
    return true;
  }

  bool begin(std::string& error) {
    uri_ = place_ + "/" + options_.uuid;
    folder_ = pool_.set_folder(uri_);
    Set_Cipher_ptr newest;
    if (!make_set_cipher(pool_, options_.uuid, cipher_, error) || !open_set_cipher(pool_, newest_, newest, error) ||
        !pool_.make_set_folder(uri_, lock_, error) || !write_durable_file(folder_, MERGE_MARK, "", error) ||
        !copy_catalog(pool_.set_folder(newest_.uri), folder_, catalog_, error, newest, cipher_))
      return false;
    moves_ = Catalog_Moves::make(catalog_, error);
    return moves_ && catalog_.execute("CREATE TEMP TABLE live(old INTEGER, channel INTEGER, position INTEGER,"
                                      "ordinal INTEGER, path BLOB, size INTEGER, mtime INTEGER, stored INTEGER,"
                                      "sha256 BLOB, flags INTEGER, PRIMARY KEY(old,channel,position)) WITHOUT ROWID",
                                      error);
  }

  /// The rows of one catalog that lie in what goes. Of rows with the same data the first stays.
  bool add_live(const Set_Record& record, bool own, std::string& error) {
    const auto catalog = open_set_catalog(pool_, record, error);
    if (!catalog)
      return false;
    std::map<unsigned, unsigned> places; // by index in that catalog
    for (const Catalog_Set& set : catalog->sets())
      if (absorbed_.count(set.uuid) != 0)
        places[set.index] = number_of(set.uuid);
    if (places.empty())
      return true;
    Catalog_Statement add;
    if (!add.prepare(catalog_.get(), "INSERT OR IGNORE INTO temp.live VALUES(?,?,?,?,?,?,?,?,?,?)", error))
      return false;
    bool good = true;
    const auto row = [&](const Catalog_Object& o) {
      const auto place = places.find(o.set);
      if (place == places.end())
        return true;
      last_ordinal_ = own ? std::max(last_ordinal_, o.ordinal) : last_ordinal_ + 1;
      add.bind(1, place->second).bind(2, o.channel).bind(3, o.offset).bind(4, own ? o.ordinal : last_ordinal_);
      add.bind_blob(5, o.path).bind(6, o.size).bind_signed(7, o.mtime).bind(8, o.stored).bind(10, o.flags);
      add.bind_blob(9, std::string_view(reinterpret_cast<const char*>(o.sha256), sizeof o.sha256));
      return good = add.run();
    };
    if (!catalog->walk_media(Catalog_Selection(), row, error))
      return false;
    if (!good)
      error = "cannot keep track of the objects: " + add.error();
    return good;
  }

  bool find_live(std::string& error) {
    if (!add_live(newest_, true, error))
      return false;
    last_own_ordinal_ = last_ordinal_;
    std::vector<std::string> bad;
    for (const Set_Record& record : pool_.sets(place_, bad))
      if (absorbed_.count(record.uuid) == 0 && !add_live(record, false, error))
        return false;
    if (!bad.empty())
      error = bad.front();
    return bad.empty();
  }

  unsigned number_of(const std::string& uuid) {
    const auto found = std::find(numbers_.begin(), numbers_.end(), uuid);
    if (found != numbers_.end())
      return static_cast<unsigned>(found - numbers_.begin());
    numbers_.push_back(uuid);
    return static_cast<unsigned>(numbers_.size() - 1);
  }

  bool make_media(std::string& error) {
    std::random_device random;
    while (family_ == 0)
      family_ = random();
    const unsigned count = std::max(newest_.channels, 1u);
    for (unsigned i = 0; i < count; ++i) {
      Medium_Identity identity;
      identity.family = family_;
      identity.media_name = medium_name(i);
      identity.software = "obs-agent";
      identity.set_uuid = options_.uuid;
      identity.set_name = newest_.name;
      identity.description = newest_.minor_resource_name;
      identity.machine = newest_.host;
      identity.incremental = newest_.type == "incremental";
      identity.write_date = Clock::instance().now();
      identity.cipher = cipher_;
      auto medium = Medium_Writer::create(folder_ + "/" + medium_name(i), identity, error);
      if (!medium)
        return false;
      media_.push_back(std::move(medium));
    }
    folders_.resize(count);
    return true;
  }

  bool canceled(std::string& error) {
    if (!options_.canceling || !options_.canceling())
      return false;
    report_.canceled = true;
    error = "it was cancelled";
    return true;
  }

  bool copy_live(std::string& error) {
    if (!make_media(error))
      return false;
    Catalog_Statement live;
    if (!live.prepare(catalog_.get(),
                      "SELECT old,channel,position,ordinal,path,size,mtime,stored,sha256,flags FROM temp.live "
                      "ORDER BY old,channel,position",
                      error))
      return false;
    unsigned old = 0, channel = 0;
    bool first = true;
    Media_Task task;
    int step;
    while ((step = live.step()) == SQLITE_ROW) {
      const unsigned place = static_cast<unsigned>(live.number(0));
      Catalog_Object& o = task.object;
      o.channel = static_cast<unsigned>(live.number(1));
      o.offset = live.number(2);
      o.ordinal = live.number(3);
      o.path = live.blob(4);
      o.size = live.number(5);
      o.mtime = live.signed_number(6);
      o.stored = live.number(7);
      const std::string_view digest = live.blob(8);
      std::memcpy(o.sha256, digest.data(), std::min(digest.size(), sizeof o.sha256));
      o.flags = static_cast<unsigned>(live.number(9));
      if (first || place != old || o.channel != channel) {
        first = false;
        old = place;
        channel = o.channel;
        task.error.clear();
        task.medium = open_medium(numbers_[old], channel, task.error);
      }
      if (canceled(error))
        return false;
      if (!copy(task, numbers_[old], error))
        return false;
      if (options_.progress && report_.objects % TELL_EVERY == 0)
        options_.progress(report_.objects, report_.bytes);
    }
    if (step != SQLITE_DONE)
      error = "cannot keep track of the objects: " + live.error();
    return step == SQLITE_DONE;
  }

  std::shared_ptr<Medium_Reader> open_medium(const std::string& uuid, unsigned channel, std::string& error) {
    return open_set_medium(pool_, absorbed_.at(uuid), channel, error);
  }

  /// Copies one object. Damage is counted; false when the new set cannot be written.
  bool copy(const Media_Task& task, const std::string& set, std::string& error) {
    const Catalog_Object& o = task.object;
    Stored_Reading reading;
    if (!reading.open(task))
      return damaged(task, reading.error());
    if (!reading.attributes_problem().empty())
      return damaged(task, reading.attributes_problem());
    // Behind the first damage nothing is written any more, but all the rest is still looked at.
    const bool writing = report_.damaged == 0;
    const unsigned channel = o.channel % static_cast<unsigned>(media_.size());
    Medium_Writer& medium = *media_[channel];
    const auto failed = [&] {
      error = medium.error().empty() ? "a medium cannot be written" : medium.error();
      return false;
    };
    if (writing) {
      const std::string folder = o.path.substr(0, o.path.rfind('/') + 1);
      if (folder != folders_[channel]) {
        std::string path = folder;
        std::replace(path.begin(), path.end(), '/', '\0');
        if (!medium.set_directory(path))
          return failed();
        folders_[channel] = folder;
      }
      Object_Head head = reading.head();
      head.ordinal = o.ordinal;
      head.mtime = o.mtime; // another one where the object got a new date and kept its data
      head.seq = newest_.seq;
      // Who reads the media alone must know which objects are this set's.
      head.flags &= ~static_cast<unsigned>(OBJECT_OF_OTHERS);
      if (o.ordinal > last_own_ordinal_)
        head.flags |= OBJECT_OF_OTHERS;
      Codec_Options codec;
      codec.cipher = cipher_;
      // What was worth compressing once is so again.
      if (o.stored < o.size)
        codec.compression = MTF_COMPRESSION_ZSTD;
      if (!medium.begin_object(head, codec))
        return failed();
    }
    Read_Outcome outcome = Read_Outcome::MORE;
    while (outcome == Read_Outcome::MORE) {
      std::string_view bytes;
      outcome = reading.next(bytes);
      if (writing && !bytes.empty() && !medium.write(bytes.data(), bytes.size()))
        return failed();
      if (canceled(error))
        return false;
    }
    if (outcome != Read_Outcome::END) {
      if (writing && !medium.cancel_object())
        return failed();
      return damaged(task, reading.error());
    }
    if (!writing)
      return true;
    Stored_Object stored;
    if (!medium.end_object(stored))
      return failed();
    if (std::memcmp(stored.sha256, o.sha256, sizeof o.sha256) != 0) {
      error = "\"" + o.path + "\" is not what was read";
      return false;
    }
    ++report_.objects;
    report_.bytes += o.size;
    if (moves_->add(set, o.channel, o.offset, {channel, stored.offset, stored.stored}))
      return true;
    error = moves_->error();
    return false;
  }

  bool damaged(const Media_Task& task, const std::string& why) {
    ++report_.damaged;
    if (report_.damages.size() < Merge_Report::MAX_DAMAGED)
      report_.damages.push_back("\"/" + task.object.path + "\": " + why);
    return true;
  }

  bool end(std::string& error) {
    for (const auto& [uuid, record] : absorbed_) {
      Set_Cipher_ptr cipher;
      if (!open_set_cipher(pool_, record, cipher, error))
        return false;
      const auto earlier = Catalog_Moves::open(pool_.set_folder(record.uri), error, cipher);
      if (!earlier && !error.empty())
        return false;
      if (earlier && !moves_->add_earlier(uuid, *earlier)) {
        error = moves_->error();
        return false;
      }
    }
    const Catalog_Set self{0, options_.uuid, uri_, newest_.seq};
    const bool linked = relink_catalog(catalog_, *moves_, self, true, error);
    moves_.reset();
    if (!linked || !catalog_.execute("DROP TABLE temp.live", error) || !finish_catalog_copy(catalog_, folder_, error) ||
        !write_catalog_sum(folder_, error))
      return false;
    if (!make_record(error))
      return false;
    const Set_Copy copy{json_spirit::write(report_.record.to_json()), folder_ + "/" + catalog::FILE_NAME};
    for (size_t i = media_.size(); i-- > 0;)
      if (!media_[i]->finish(i == 0 ? &copy : nullptr)) {
        error = media_[i]->error();
        return false;
      }
    Set_Record& record = report_.record;
    for (size_t i = 0; i < media_.size(); ++i) {
      record.media.push_back({medium_name(static_cast<unsigned>(i)), media_[i]->size(), family_});
      record.backup_set_storage_size += media_[i]->size();
    }
    media_.clear();
    if (canceled(error) || (options_.begin_commit && !options_.begin_commit())) {
      report_.canceled = true;
      return false;
    }
    if (!seal_record(cipher_, record, error) || !commit_set_record(pool_, record, error))
      return false;
    remove_pool_file(folder_ + "/" + MERGE_MARK);
    return true;
  }

  /// The merged set is what the newest one was, only that its data lie in it.
  bool make_record(std::string& error) {
    const auto catalog = Catalog_Reader::open(folder_, error, cipher_);
    if (!catalog)
      return false;
    Set_Record& record = report_.record;
    record = newest_;
    report_.moment_of = newest_.uuid;
    record.uuid = options_.uuid;
    record.uri = uri_;
    record.channels = static_cast<unsigned>(media_.size());
    record.media.clear();
    record.backup_set_storage_size = 0;
    record.type = catalog->sets().size() == 1 ? "full" : "incremental";
    record.bases.clear();
    for (const std::string& base : newest_.bases)
      if (absorbed_.count(base) == 0)
        record.bases.push_back(base);
    std::set<std::string> replaces;
    for (const auto& [uuid, set] : absorbed_) {
      replaces.insert(uuid);
      replaces.insert(set.replaces.begin(), set.replaces.end());
    }
    record.replaces.assign(replaces.begin(), replaces.end());
    unsigned long long own = 0, bytes = 0;
    const auto count = [&](const Catalog_Object& o) {
      own += o.set == 0;
      bytes += o.set == 0 ? o.size : 0;
      return o.set == 0; // they come first
    };
    if (!catalog->walk_media(Catalog_Selection(), count, error))
      return false;
    record.source_size = record.backup_set_size = bytes;
    record.figures["objects"] = catalog->counts().objects;
    record.figures["saved"] = own;
    record.figures["unchanged"] = catalog->counts().objects - own;
    record.figures["continued"] = 0;
    record.figures["bytes_read"] = 0;
    record.figures["bytes_stored"] = catalog->counts().stored;
    return seal_record(cipher_, record, error);
  }

  const Pool& pool_;
  const Merge_Options& options_;
  Merge_Report& report_;
  const std::string place_;
  const Set_Record newest_;
  std::map<std::string, Set_Record> absorbed_; ///< by uuid
  std::vector<std::string> numbers_;           ///< uuids, by their number in the table of live data
  std::string uri_, folder_;
  Set_Lock lock_;
  unsigned family_ = 0;
  unsigned long long last_ordinal_ = 0;
  unsigned long long last_own_ordinal_ = 0; ///< what is behind it is live for other sets only
  Set_Cipher_ptr cipher_;                   ///< of the merged set
  Catalog_Db catalog_;                      ///< of the merged set; `moves_` works on it
  std::unique_ptr<Catalog_Moves> moves_;
  std::vector<std::unique_ptr<Medium_Writer>> media_;
  std::vector<std::string> folders_; ///< by medium, of the object written last
};

/// Makes the catalog of `record` point into the merged set. The old catalog stays until the new one is whole.
bool relink(const Pool& pool, const Set_Record& record, const Set_Record& merged, std::string& error) {
  const std::string folder = pool.set_folder(record.uri), work = folder + "/" + WORK_FOLDER;
  std::string ignored;
  remove_pool_tree(work, ignored);
  Set_Cipher_ptr cipher;
  const bool done = open_set_cipher(pool, record, cipher, error) &&
                    relink_copy(pool, folder, work, cipher, merged, error) && install_catalog(work, folder, error);
  remove_pool_tree(work, ignored);
  return done;
}

/// What is called ".tmp" in a set's folder is nobody's any more: whoever made it has lost the pool.
void remove_temporary(const std::string& folder) {
  std::vector<std::string> names;
  std::string ignored;
  read_pool_folder(folder, names);
  for (const std::string& name : names)
    if (fs::path(name).extension() == ".tmp")
      remove_pool_tree(folder + "/" + name, ignored);
}

} // namespace

bool merge_sets(const Pool& pool, const std::vector<Set_Record>& sets, const Merge_Options& options,
                Merge_Report& report, std::string& error) {
  report = Merge_Report();
  return Merge(pool, sets, options, report).run(error);
}

bool finish_merges(const Pool& pool, const std::string& place, std::vector<std::string>& busy, std::string& error,
                   const Set_Lock* held) {
  if (!pool.finish_removals(place, error))
    return false;
  for (const std::string& uri : pool.unfinished(place)) {
    Set_Lock lock;
    struct stat status;
    std::string why;
    if (!find_pool_file(pool.set_folder(uri) + "/" + MERGE_MARK, status))
      continue;
    // A living run's folder is none of our business: then nothing is said.
    if (!pool.lock_unfinished(uri, lock, why, held) ? !why.empty() : !pool.remove_set(uri, why)) {
      error = why;
      return false;
    }
  }
  std::vector<std::string> bad;
  const std::vector<Set_Record> sets = pool.sets(place, bad);
  if (!bad.empty()) {
    error = bad.front();
    return false;
  }
  for (const Set_Record& set : sets)
    remove_temporary(pool.set_folder(set.uri));
  for (const Set_Record& merged : sets) {
    if (merged.replaces.empty())
      continue;
    remove_pool_file(pool.set_folder(merged.uri) + "/" + MERGE_MARK);
    const std::set<std::string> replaced(merged.replaces.begin(), merged.replaces.end());
    std::vector<Set_Record> gone = pool.replaced_sets(place);
    for (Set_Record& partial : pool.partial_sets(place, bad))
      gone.push_back(std::move(partial));
    gone.erase(
        std::remove_if(gone.begin(), gone.end(), [&](const Set_Record& one) { return replaced.count(one.uuid) == 0; }),
        gone.end());
    for (const Set_Record& other : sets) {
      if (other.uuid == merged.uuid)
        continue;
      // What a damaged one does not name any more must not go.
      auto catalog = gone.empty() ? open_set_catalog(pool, other, error) : nullptr;
      if (std::string mended; !catalog)
        catalog = open_sound_catalog(pool, other, mended, error);
      if (!catalog)
        return false;
      const bool points = std::any_of(catalog->sets().begin(), catalog->sets().end(),
                                      [&](const Catalog_Set& set) { return replaced.count(set.uuid) != 0; });
      if (points && !relink(pool, other, merged, error))
        return false;
    }
    std::vector<std::string> going;
    for (const Set_Record& one : gone)
      going.push_back(one.uuid);
    if (!announce_removals(pool, going, error))
      return false;
    for (const Set_Record& one : gone) {
      Set_Guard guard;
      const Set_Guard::Outcome held = guard.own(pool.set_folder(one.uri), error);
      if (held == Set_Guard::BUSY)
        busy.push_back(one.uuid);
      else if (held != Set_Guard::HELD || !pool.remove_set(one.uri, error))
        return false;
    }
    if (!settle_removals(pool, going, error))
      return false;
  }
  error.clear();
  return true;
}
