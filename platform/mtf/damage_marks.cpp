#include "platform/mtf/damage_marks.h"

#include "platform/catalog/catalog_moves.h"
#include "platform/catalog/catalog_sum.h"
#include "platform/catalog/open_catalog.h"
#include "platform/pool/pool_files.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <vector>

namespace {

/// Where a catalog is made anew, inside the folder of its set.
constexpr const char* WORK_FOLDER = "mark.tmp";
/// Rows that are taken at once: while they are changed no reading statement stands on the table.
constexpr unsigned BATCH = 1000;

struct Row {
  unsigned long long ordinal;
  unsigned place;
  unsigned channel;
  unsigned long long offset;
};

} // namespace

std::unique_ptr<Damage_Marks> Damage_Marks::make(std::string& error) {
  std::unique_ptr<Damage_Marks> marks(new Damage_Marks);
  // An empty name makes a database of its own that spills to a temporary file.
  if (!marks->damaged_.open("", SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, error) ||
      !marks->damaged_.execute("PRAGMA journal_mode=OFF; PRAGMA synchronous=OFF; PRAGMA cache_size=-2048;"
                               "CREATE TABLE damaged(holder TEXT, channel INTEGER, position INTEGER,"
                               "PRIMARY KEY(holder,channel,position)) WITHOUT ROWID; BEGIN",
                               error) ||
      !marks->add_.prepare(marks->damaged_.get(), "INSERT OR IGNORE INTO damaged VALUES(?,?,?)", error) ||
      !marks->find_.prepare(marks->damaged_.get(), "SELECT 1 FROM damaged WHERE holder=? AND channel=? AND position=?",
                            error) ||
      !marks->find_set_.prepare(marks->damaged_.get(), "SELECT 1 FROM damaged WHERE holder=? LIMIT 1", error))
    return nullptr;
  return marks;
}

bool Damage_Marks::add(const Verify_Damage& damage) {
  if (!add_.bind_text(1, damage.set).bind(2, damage.channel).bind(3, damage.offset).run() && error_.empty())
    error_ = "cannot keep track of what is damaged: " + add_.error();
  return error_.empty();
}

bool Damage_Marks::holds(const std::string& set) {
  Catalog_Reset reset(find_set_);
  return found(find_set_, find_set_.bind_text(1, set).step());
}

bool Damage_Marks::holds(const std::string& set, unsigned channel, unsigned long long offset) {
  Catalog_Reset reset(find_);
  return found(find_, find_.bind_text(1, set).bind(2, channel).bind(3, offset).step());
}

/// Whether a look-up has found its row. One that could not be made leaves an error.
bool Damage_Marks::found(const Catalog_Statement& statement, int step) {
  if (step != SQLITE_ROW && step != SQLITE_DONE && error_.empty())
    error_ = "cannot look up what is damaged: " + statement.error();
  return step == SQLITE_ROW;
}

/// Whether the catalog has a row to be marked that is not.
bool Damage_Marks::is_touched(const Pool& pool, const Set_Record& record, bool& touched) {
  touched = false;
  const auto catalog = open_set_catalog(pool, record, error_);
  if (!catalog)
    return false;
  std::map<unsigned, std::string> places;
  for (const Catalog_Set& set : catalog->sets())
    if (holds(set.uuid))
      places[set.index] = set.uuid;
  if (!error_.empty())
    return false;
  return places.empty() || (catalog->walk(
                                "",
                                [&](const Catalog_Object& object) {
                                  const auto place = places.find(object.set);
                                  touched = place != places.end() && (object.flags & catalog::FLAG_DAMAGED) == 0 &&
                                            holds(place->second, object.channel, object.offset);
                                  return !touched;
                                },
                                error_) &&
                            error_.empty());
}

bool Damage_Marks::mark_rows(Catalog_Db& db, unsigned long long& rows) {
  Catalog_Statement sets, find, update;
  if (!sets.prepare(db.get(), "SELECT idx,uuid FROM sets", error_) ||
      !find.prepare(db.get(),
                    "SELECT ordinal,place,channel,position FROM objects WHERE ordinal>? AND (flags & ?)=0 "
                    "ORDER BY ordinal LIMIT ?",
                    error_) ||
      !update.prepare(db.get(), "UPDATE objects SET flags=flags|? WHERE ordinal=?", error_))
    return false;
  std::map<unsigned, std::string> places;
  int set_step;
  while ((set_step = sets.step()) == SQLITE_ROW)
    if (std::string uuid(sets.blob(1)); holds(uuid))
      places[static_cast<unsigned>(sets.number(0))] = std::move(uuid);
  if (set_step != SQLITE_DONE) {
    error_ = "cannot read catalog: " + sets.error();
    return false;
  }
  sets.reset();
  std::vector<Row> batch;
  for (unsigned long long last = 0;; last = batch.back().ordinal) {
    batch.clear();
    find.bind(1, last).bind(2, catalog::FLAG_DAMAGED).bind(3, BATCH);
    int step;
    while ((step = find.step()) == SQLITE_ROW)
      batch.push_back({find.number(0), static_cast<unsigned>(find.number(1)), static_cast<unsigned>(find.number(2)),
                       find.number(3)});
    if (step != SQLITE_DONE) {
      error_ = "cannot read catalog: " + find.error();
      return false;
    }
    find.reset();
    if (batch.empty())
      return error_.empty();
    for (const Row& row : batch) {
      const auto place = places.find(row.place);
      if (place == places.end() || !holds(place->second, row.channel, row.offset))
        continue;
      if (!update.bind(1, catalog::FLAG_DAMAGED).bind(2, row.ordinal).run()) {
        error_ = "cannot write catalog: " + update.error();
        return false;
      }
      ++rows;
    }
  }
}

bool Damage_Marks::mark(const Pool& pool, const Set_Record& record, unsigned long long& rows) {
  const std::string folder = pool.set_folder(record.uri), work = folder + "/" + WORK_FOLDER;
  std::string ignored;
  remove_pool_tree(work, ignored);
  Set_Cipher_ptr cipher;
  if (!open_set_cipher(pool, record, cipher, error_))
    return false;
  bool done = make_pool_folder(work);
  if (!done)
    error_ = "cannot make folder " + work + ": " + std::strerror(errno);
  if (done) {
    Catalog_Db db;
    done = copy_catalog(folder, work, db, error_, cipher, cipher) && mark_rows(db, rows) &&
           finish_catalog_copy(db, work, error_);
  }
  done = done && install_catalog(work, folder, error_);
  remove_pool_tree(work, ignored);
  return done;
}

bool Damage_Marks::write(const Pool& pool, const std::string& place, unsigned long long& rows) {
  rows = 0;
  if (!error_.empty())
    return false;
  std::vector<std::string> bad;
  for (const Set_Record& record : pool.sets(place, bad)) {
    bool touched = false;
    if (!is_touched(pool, record, touched) || (touched && !mark(pool, record, rows)))
      return false;
  }
  if (!bad.empty())
    error_ = bad.front();
  return bad.empty();
}
