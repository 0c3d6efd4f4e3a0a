#include "platform/mtf/backup_base.h"

#include "platform/catalog/open_catalog.h"
#include "platform/mtf/catalog_rebuild.h"
#include "platform/mtf/media_feed.h"

#include <algorithm>

namespace {

/// Far more sets than a catalog ever points into.
constexpr unsigned MAX_PLACES = 1u << 20;
const std::string TRACKING = "cannot keep track of the listing: ";

/// The record of the set `uuid`, else that of the newest set of that number.
bool find_record(const Pool& pool, const std::string& place, unsigned seq, const std::string& uuid, Set_Record& found) {
  std::vector<std::string> ignored;
  bool done = false;
  for (Set_Record& record : pool.sets(place, ignored)) {
    const bool asked = !uuid.empty() && record.uuid == uuid;
    if (!asked && record.seq != seq)
      continue;
    found = std::move(record);
    done = true;
    if (asked)
      break;
  }
  return done;
}

} // namespace

std::string Backup_Base::chain_of(const Pool& pool, const std::string& place, unsigned seq, const std::string& uuid) {
  Set_Record record;
  return find_record(pool, place, seq, uuid, record) ? record.incarnation : std::string();
}

bool Backup_Base::mend(const Pool& pool, const std::string& place, unsigned seq, const std::string& uuid,
                       std::string& mended, std::string& error) {
  Set_Record record;
  mended.clear();
  return !find_record(pool, place, seq, uuid, record) || open_sound_catalog(pool, record, mended, error) != nullptr;
}

std::unique_ptr<Backup_Base> Backup_Base::open(const Pool& pool, const std::string& place, unsigned seq,
                                               const std::string& uuid, std::string& error) {
  std::unique_ptr<Backup_Base> base(new Backup_Base);
  if (!find_record(pool, place, seq, uuid, base->record_)) {
    error = "there is no set " + std::to_string(seq) + " to compare with";
    return nullptr;
  }
  if (json_spirit::find(base->record_.figures, MARKS_LOST) != nullptr) {
    error = "the catalog of the set " + base->record_.uuid +
            " was damaged and is made anew: which of its objects are damaged is not known any more";
    return nullptr;
  }
  base->catalog_ = open_checked_catalog(pool, base->record_, error);
  if (!base->catalog_)
    return nullptr;
  for (const Catalog_Set& set : base->catalog_->sets()) {
    Set_Record record;
    if (!read_stored_record(pool.set_folder(set.uri), record, error))
      return nullptr;
    if (record.uuid != set.uuid) {
      error = "in " + set.uri + " lies another set than " + set.uuid;
      return nullptr;
    }
    record.uri = set.uri;
    base->look_at_media(pool, set.index, record);
  }
  if (base->catalog_->sets().back().index >= MAX_PLACES) {
    error = "the catalog of the set " + base->record_.uuid + " is damaged";
    return nullptr;
  }
  base->places_ = base->catalog_->sets().back().index + size_t(1);
  base->used_ = std::make_unique<std::atomic<bool>[]>(base->places_);
  // An empty name makes a database of its own that spills to a temporary file.
  if (!base->shown_.open("", SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, error) ||
      !base->shown_.execute("PRAGMA journal_mode=OFF; PRAGMA synchronous=OFF; PRAGMA cache_size=-2048;"
                            "CREATE TABLE runs(first INTEGER PRIMARY KEY, last INTEGER NOT NULL); BEGIN",
                            error) ||
      !base->add_run_.prepare(base->shown_.get(), "INSERT OR REPLACE INTO runs VALUES(?,?)", error) ||
      !base->find_run_.prepare(base->shown_.get(), "SELECT last FROM runs WHERE first<=? ORDER BY first DESC LIMIT 1",
                               error) ||
      !base->next_run_.prepare(base->shown_.get(), "SELECT min(first) FROM runs WHERE first BETWEEN ? AND ?", error) ||
      !base->inner_end_.prepare(base->shown_.get(), "SELECT max(last) FROM runs WHERE first BETWEEN ? AND ?", error) ||
      !base->remove_inner_.prepare(base->shown_.get(), "DELETE FROM runs WHERE first BETWEEN ? AND ?", error))
    return nullptr;
  return base;
}

unsigned Backup_Base::end_index() const {
  return catalog_->sets().back().index + 2;
}

bool Backup_Base::enter(const std::string& path) {
  return catalog_->enter(path, error_);
}

void Backup_Base::look_at_media(const Pool& pool, unsigned index, const Set_Record& record) {
  for (const Set_Record::Medium& medium : record.media) {
    const std::string path = pool.set_folder(record.uri) + "/" + medium.name;
    const std::string why = medium_problem(path, medium.size);
    if (why.empty())
      continue;
    bad_.insert({index, medium.name});
    bad_media_.push_back({path, "A medium of the set " + record.uuid + ": " + why + ". Its objects are stored anew."});
  }
}

/// As far as is known without reading it.
bool Backup_Base::is_good(const Catalog_Object& object) const {
  return (object.flags & catalog::FLAG_DAMAGED) == 0 &&
         (bad_.empty() || bad_.count({object.set, medium_name(object.channel)}) == 0);
}

Backup_Base::Match Backup_Base::match(const std::string& name, unsigned long long size, long long mtime,
                                      Catalog_Object& object) {
  if (!catalog_->match(name, object, error_) || !show(object.ordinal))
    return Match::NONE;
  if (object.set >= places_ || !is_good(object))
    return Match::NONE;
  const bool same =
      object.size == size && object.mtime == mtime && (object.flags & (catalog::FLAG_FRESH | catalog::FLAG_OLDER)) == 0;
  object.flags &= catalog::FLAG_ASKED_LATER;
  // The catalog's own set is 0 in every catalog; the base's sets move up by one.
  ++object.set;
  if (same)
    use(object);
  return same ? Match::UNCHANGED : Match::CHANGED;
}

bool Backup_Base::show(unsigned long long ordinal) {
  if (ordinal == last_ + 1 && first_ <= last_) {
    last_ = ordinal;
    return true;
  }
  if (!store_run())
    return false;
  first_ = last_ = ordinal;
  return true;
}

/// Runs never lie inside one another: what is shown twice, as overlapping sources do it, is joined.
bool Backup_Base::store_run() {
  if (first_ > last_)
    return true;
  bool done = true;
  if (!is_shown(first_, last_)) {
    unsigned long long end = last_;
    done = inner_end_.bind(1, first_).bind(2, last_).step() == SQLITE_ROW;
    end = std::max(end, inner_end_.number(0));
    inner_end_.reset();
    done = done && remove_inner_.bind(1, first_).bind(2, last_).run() && add_run_.bind(1, first_).bind(2, end).run();
  }
  first_ = 1;
  last_ = 0;
  if (!done)
    error_ = TRACKING + add_run_.error();
  return done;
}

/// Where the last run ends that begins at `ordinal` or before; 0 when none does, or with `error_` on failure.
unsigned long long Backup_Base::run_end(unsigned long long ordinal) {
  const int step = find_run_.bind(1, ordinal).step();
  const unsigned long long end = step == SQLITE_ROW ? find_run_.number(0) : 0;
  find_run_.reset();
  if (step != SQLITE_ROW && step != SQLITE_DONE)
    error_ = TRACKING + find_run_.error();
  return end;
}

bool Backup_Base::is_shown(unsigned long long first, unsigned long long last) {
  return run_end(first) >= last;
}

/// Makes `first` to `last` the first run of ordinals among them that was not shown; false when there is none.
bool Backup_Base::first_gap(unsigned long long& first, unsigned long long& last) {
  for (unsigned long long end; (end = run_end(first)) >= first; first = end + 1)
    if (end >= last || !error_.empty())
      return false;
  if (!error_.empty())
    return false;
  const int step = next_run_.bind(1, first).bind(2, last).step();
  if (step == SQLITE_ROW && next_run_.number(0) != 0)
    last = next_run_.number(0) - 1;
  next_run_.reset();
  if (step != SQLITE_ROW)
    error_ = TRACKING + next_run_.error();
  return error_.empty();
}

bool Backup_Base::not_shown(const std::string& path, bool take,
                            const std::function<bool(const Catalog_Object&)>& wanted,
                            const std::function<bool(Catalog_Object&)>& told) {
  if (!store_run())
    return false;
  bool done = true;
  const auto one = [&](const Catalog_Object& found) {
    if (is_shown(found.ordinal, found.ordinal) || !error_.empty() || !wanted(found))
      return error_.empty();
    Catalog_Object object = found;
    if (take && found.set >= places_) {
      error_ = "the catalog of the set " + record_.uuid + " is damaged";
      return done = false;
    }
    if (take) {
      done = show(found.ordinal);
      if (!is_good(object))
        object.flags |= catalog::FLAG_DAMAGED;
      ++object.set;
      use(object);
    }
    return done && told(object);
  };
  const auto gaps = [this](unsigned long long& first, unsigned long long& last) { return first_gap(first, last); };
  if (path.empty() || path.back() == '/')
    return catalog_->walk(path, one, error_, gaps) && done && error_.empty() && store_run();
  Catalog_Object object;
  if (catalog_->find(path, object, error_))
    one(object);
  return error_.empty() && done && store_run();
}

bool Backup_Base::add_sets(Catalog_Writer& catalog) const {
  for (const Catalog_Set& set : catalog_->sets()) {
    if (!used_[set.index])
      continue;
    Catalog_Set moved = set;
    ++moved.index;
    if (!catalog.add_set(moved))
      return false;
  }
  return true;
}
