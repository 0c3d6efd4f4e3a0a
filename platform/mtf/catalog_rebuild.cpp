#include "platform/mtf/catalog_rebuild.h"

#include "platform/catalog/catalog_staging.h"
#include "platform/catalog/catalog_sum.h"
#include "platform/catalog/open_catalog.h"
#include "platform/mtf/catalog_relink.h"
#include "platform/mtf/media_feed.h"
#include "platform/mtf/partial_sets.h"
#include "platform/mtf/set_copy.h"
#include "platform/pool/durable_file.h"
#include "platform/pool/pool_files.h"
#include "platform/pool/pool_roll.h"
#include "platform/pool/record_text.h"
#include "platform/pool/set_guard.h"
#include "platform/pool/set_keys.h"
#include "sdk/base/time_format.h"

#include <ace/Log_Msg.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {

/// Where the new catalog is made, inside the set's folder; a rebuild that was cut short leaves it to the next one.
constexpr const char* WORK_FOLDER = "rebuild.tmp";
constexpr size_t MAX_PROBLEMS = 1000;

struct Found_Medium {
  std::string name;
  unsigned channel = 0;
  Medium_Set set;
};

class Rebuild {
public:
  /// `copy_only`: where there is no whole copy nothing is changed.
  Rebuild(const Pool& pool, const std::string& uri, bool copy_only, Rebuild_Report& report)
      : pool_(pool), uri_(uri), copy_only_(copy_only), folder_(pool.set_folder(uri)),
        work_(folder_ + "/" + WORK_FOLDER), report_(report) {}
  ~Rebuild() {
    std::string ignored;
    remove_pool_tree(work_, ignored);
  }

  bool run(std::string& error) {
    Set_Guard guard;
    const Set_Guard::Outcome held = guard.own(folder_, error);
    if (held == Set_Guard::BUSY || held == Set_Guard::FAILED)
      return false;
    std::string ignored;
    remove_pool_tree(work_, ignored);
    if (!find_media(error) ||
        !open_set_cipher(pool_, media_.front().set.uuid, media_.front().set.wrapped_key, cipher_, error))
      return false;
    if (!make_pool_folder(work_)) {
      error = "cannot make folder " + work_ + ": " + std::strerror(errno);
      return false;
    }
    std::string why;
    report_.exact = take_copy(why);
    // A medium that cannot be read may be the one that ends with it.
    if (!report_.problems.empty())
      why = report_.problems.front() + ", and " + why;
    const bool whole = !report_.exact && is_whole();
    if (!report_.exact && (copy_only_ || whole)) {
      error = "the copy of the catalog cannot be used: " + why +
              (whole ? ". The catalog that is there is whole, and stays as it is" : "");
      return false;
    }
    if (!report_.exact) {
      problem("the copy of the catalog cannot be used: " + why);
      if (!read_media(error))
        return false;
    }
    // A copy from before a merge points into sets that this has replaced, and may be there no more.
    return follow_merges(pool_, uri_.substr(0, uri_.rfind('/')), media_.front().set.uuid, work_, cipher_, error) &&
           make_record(error) && install(error);
  }

private:
  void problem(const std::string& text) {
    if (report_.problems.size() < MAX_PROBLEMS)
      report_.problems.push_back(text);
  }

  bool find_media(std::string& error) {
    std::vector<std::string> names;
    read_pool_folder(folder_, names);
    for (const std::string& name : names) {
      Found_Medium medium;
      medium.name = name;
      unsigned channel = 0;
      if (std::sscanf(medium.name.c_str(), "channel-%u.mtf", &channel) != 1 || medium_name(channel) != medium.name)
        continue;
      medium.channel = channel;
      std::string why;
      if (read_medium_set(folder_ + "/" + name, medium.set, why))
        media_.push_back(medium);
      else
        problem(why);
    }
    if (media_.empty()) {
      error = "there are no media in " + folder_;
      return false;
    }
    std::sort(media_.begin(), media_.end(),
              [](const Found_Medium& a, const Found_Medium& b) { return a.channel < b.channel; });
    for (const Found_Medium& medium : media_)
      if (medium.set.uuid != media_.front().set.uuid || medium.set.family != media_.front().set.family) {
        error = "in " + folder_ + " lie media of different sets: " + medium.name + " belongs to " + medium.set.uuid +
                ", " + media_.front().name + " to " + media_.front().set.uuid;
        return false;
      }
    return true;
  }

  /// Whether record and catalog that are there now are the set's, as they were written.
  bool is_whole() const {
    Set_Record record;
    Record_Text said;
    std::string ignored;
    bool none = false;
    if (!read_set_record(folder_, record, ignored, nullptr, said) || record.uuid != media_.front().set.uuid ||
        !open_whole_record(pool_, said, record, ignored))
      return false;
    const auto catalog = Catalog_Reader::open(folder_, ignored, cipher_);
    return catalog && catalog->set_uuid() == media_.front().set.uuid && check_catalog_sum(folder_, ignored, &none) &&
           (!none || catalog->check_pages(ignored));
  }

  bool take_copy(std::string& error) {
    const std::string path = work_ + "/" + catalog::FILE_NAME;
    const int fd = open_pool_file(path, O_CREAT | O_EXCL | O_WRONLY);
    if (fd < 0) {
      error = path + ": " + pool_file_error(errno);
      return false;
    }
    std::string text;
    bool done = read_set_copy(
        folder_ + "/" + media_.front().name, text,
        [&](const char* data, size_t size) {
          while (size != 0) {
            const ssize_t count = ::write(fd, data, size);
            if (count < 0 && errno == EINTR)
              continue;
            if (count <= 0)
              return false;
            data += count;
            size -= static_cast<size_t>(count);
          }
          return true;
        },
        error);
    if (done && ::fsync(fd) != 0) {
      error = path + ": " + std::strerror(errno);
      done = false;
    }
    ::close(fd);
    if (done) {
      const auto catalog = Catalog_Reader::open(work_, error, cipher_);
      done = catalog != nullptr && catalog->set_uuid() == media_.front().set.uuid;
      if (catalog && !done)
        error = "it is that of the set " + catalog->set_uuid();
      else if (done)
        report_.objects = catalog->counts().objects;
    }
    json_spirit::Value value;
    std::string why;
    copied_ = done && json_spirit::read(text, value, &why) && value.type() == json_spirit::obj_type &&
              Set_Record::from_json(value.get_obj(), from_copy_, why);
    if (!done)
      remove_pool_file(path);
    return done;
  }

  /// Without the copy: what the media hold.
  bool read_media(std::string& error) {
    const auto staging = Catalog_Staging::make(error, cipher_);
    if (!staging)
      return false;
    unsigned long long found = 0;
    for (const Found_Medium& medium : media_) {
      const auto reader = Medium_Reader::open(folder_ + "/" + medium.name, medium.set.family, error, cipher_);
      if (!reader)
        return false;
      const bool walked = reader->walk(
          false,
          [&](const Medium_Finding& finding) {
            if (finding.kind == Medium_Finding::DAMAGE)
              problem(medium.name + ": " + finding.message);
            if (finding.kind != Medium_Finding::OBJECT)
              return true;
            if ((finding.head.flags & OBJECT_OF_OTHERS) != 0) {
              ++report_.of_others;
              return true;
            }
            ++found;
            seq_ = std::max(seq_, finding.head.seq);
            return staging->add(found_object(finding, medium.channel));
          },
          error);
      if (!walked || !staging->error().empty()) {
        if (walked)
          error = staging->error();
        return false;
      }
    }
    if (found != staging->objects())
      problem(std::to_string(found - staging->objects()) + " objects have the ordinal of another one and are left out");
    const auto catalog = Catalog_Writer::create(work_, error, cipher_);
    if (!catalog)
      return false;
    report_.objects = staging->objects();
    bytes_ = staging->bytes();
    if (catalog->add_set({0, media_.front().set.uuid, uri_, seq_}) && staging->write(*catalog) && catalog->finish())
      return true;
    error = staging->error().empty() ? catalog->error() : staging->error();
    return false;
  }

  bool make_record(std::string& error) {
    Set_Record& record = report_.record;
    const Medium_Set& self = media_.front().set;
    Record_Text said;
    // What somebody without the key has changed is not taken over.
    report_.record_made = !read_set_record(folder_, record, error, nullptr, said) || record.uuid != self.uuid ||
                          is_another_on_roll(pool_, record.uuid, said.hash) ||
                          !open_whole_record(pool_, said, record, error);
    if (report_.record_made) {
      record = copied_ && from_copy_.uuid == self.uuid ? from_copy_ : Set_Record();
      if (record.uuid.empty()) {
        record.uuid = self.uuid;
        record.name = self.name;
        record.minor_resource_name = self.name;
        record.type = self.incremental ? "incremental" : "full";
        record.incarnation = self.incremental ? std::string() : self.uuid;
        record.seq = seq_;
        record.encryption = cipher_ ? "aes-256-gcm" : "none";
        record.source_size = record.backup_set_size = bytes_;
        record.start_time = record.end_time =
            POSIX_Time_To_ISO8601(to_time_t(self.write_date), "%Y-%m-%d %H:%M:%S").str();
        record.host_uuid = uri_.substr(0, uri_.find('/'));
        record.minor_resource_id =
            uri_.substr(record.host_uuid.size() + 1, uri_.rfind('/') - record.host_uuid.size() - 1);
        record.figures["listed"] = report_.objects;
        record.figures["saved"] = report_.objects;
        for (const char* const none : {"unchanged", "excluded", "skipped", "failed"})
          record.figures[none] = 0;
      }
    }
    error.clear();
    std::string why;
    if (cipher_ && !record.sealed.empty() && !open_record(*cipher_, record, why))
      problem(why);
    record.uri = uri_;
    if (!report_.exact)
      count_missing(record);
    record.figures["objects"] = report_.objects;
    record.figures["rebuilt"] = report_.exact ? "copy" : "media";
    if (copy_only_)
      record.figures[MARKS_LOST] = true;
    // Without an operator nothing but the catalog is mended: a medium that is short or missing stays known as such.
    if (copy_only_ && !report_.record_made)
      return seal_record(cipher_, record, error);
    record.channels = std::max<unsigned>(record.channels, media_.back().channel + 1);
    record.media.clear();
    record.backup_set_storage_size = 0;
    for (const Found_Medium& medium : media_) {
      struct stat status;
      const unsigned long long size =
          find_pool_file(folder_ + "/" + medium.name, status) ? static_cast<unsigned long long>(status.st_size) : 0;
      record.media.push_back({medium.name, size, medium.set.family});
      record.backup_set_storage_size += size;
    }
    return seal_record(cipher_, record, error);
  }

  /// What the run missed is missing still, and so is what its catalog had and media alone do not tell. Where that
  /// cannot be said, the record says nothing.
  void count_missing(Set_Record& record) const {
    const auto missing = record.missing(), had = figure_of(record.figures, "objects");
    record.figures.erase("missing");
    if (!report_.record_made && missing && had)
      record.figures["missing"] = *missing + (*had > report_.objects ? *had - report_.objects : 0);
  }

  bool install(std::string& error) {
    if (!install_catalog(work_, folder_, error))
      return false;
    std::string ignored;
    remove_pool_tree(work_, ignored);
    return commit_set_record(pool_, report_.record, error);
  }

  const Pool& pool_;
  const std::string uri_;
  const bool copy_only_;
  const std::string folder_, work_;
  Set_Cipher_ptr cipher_; ///< of an encrypted set
  Rebuild_Report& report_;
  std::vector<Found_Medium> media_;
  Set_Record from_copy_;
  bool copied_ = false;
  unsigned seq_ = 0;
  unsigned long long bytes_ = 0;
};

} // namespace

bool rebuild_catalog(const Pool& pool, const std::string& uri, Rebuild_Report& report, std::string& error) {
  report = Rebuild_Report();
  return Rebuild(pool, uri, false, report).run(error);
}

std::unique_ptr<Catalog_Reader> open_sound_catalog(const Pool& pool, const Set_Record& record, std::string& mended,
                                                   std::string& error) {
  mended.clear();
  std::unique_ptr<Catalog_Reader> catalog = open_checked_catalog(pool, record, error);
  if (catalog)
    return catalog;
  const std::string damage = error;
  Rebuild_Report report;
  // What is no set's any more, or another's, is not to be mended by what lies there.
  if (!Rebuild(pool, record.uri, true, report).run(error) || report.record.uuid != record.uuid) {
    error = damage + ", and it cannot be made anew: " + error;
    return nullptr;
  }
  mended = damage + ". It was made anew from the copy on the set's media";
  ACE_ERROR((LM_WARNING, ACE_TEXT("%C.\n"), mended.c_str()));
  return open_checked_catalog(pool, record, error);
}
