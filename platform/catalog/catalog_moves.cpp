#include "platform/catalog/catalog_moves.h"

#include "platform/pool/pool_files.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>

namespace {

/// Rows that are taken at once: while they are changed no reading statement stands on the table.
constexpr unsigned BATCH = 1000;

bool copy_file(const std::string& from, const std::string& to, std::string& error) {
  const int in = open_pool_file(from, O_RDONLY);
  const int out = in < 0 ? -1 : open_pool_file(to, O_CREAT | O_EXCL | O_WRONLY);
  std::vector<char> buffer(1u << 20);
  bool good = out >= 0;
  while (good) {
    const ssize_t got = ::read(in, buffer.data(), buffer.size());
    if (got < 0 && errno == EINTR)
      continue;
    if (got <= 0) {
      good = got == 0;
      break;
    }
    for (ssize_t done = 0; good && done < got;) {
      const ssize_t put = ::write(out, buffer.data() + done, static_cast<size_t>(got - done));
      if (put > 0)
        done += put;
      else
        good = put < 0 && errno == EINTR;
    }
  }
  if (!good)
    error = "cannot copy " + from + " to " + to + ": " + pool_file_error(errno);
  if (in >= 0)
    ::close(in);
  if (out >= 0 && ::close(out) != 0 && good) {
    error = "cannot write " + to + ": " + std::strerror(errno);
    good = false;
  }
  return good;
}

struct Row {
  unsigned long long ordinal;
  unsigned place;
  unsigned channel;
  unsigned long long position;
};

} // namespace

bool Catalog_Moves::prepare(std::string& error) {
  return find_.prepare(db_->get(),
                       "SELECT to_channel,to_position,to_stored FROM moved WHERE old=? AND channel=? AND position=?",
                       error) &&
         (!writable_ || (add_set_.prepare(db_->get(), "INSERT INTO moved_sets VALUES(?,?)", error) &&
                         add_.prepare(db_->get(), "INSERT OR IGNORE INTO moved VALUES(?,?,?,?,?,?)", error)));
}

std::unique_ptr<Catalog_Moves> Catalog_Moves::open(const std::string& folder, std::string& error,
                                                   const Set_Cipher_ptr& cipher) {
  std::unique_ptr<Catalog_Moves> moves(new Catalog_Moves);
  moves->own_ = std::make_unique<Catalog_Db>();
  moves->db_ = moves->own_.get();
  error.clear();
  Catalog_Statement there;
  if (!moves->own_->open(folder + "/" + catalog::FILE_NAME, SQLITE_OPEN_READONLY | SQLITE_OPEN_NOMUTEX, error,
                         cipher) ||
      !moves->own_->execute("PRAGMA cache_size=-4096", error) || !moves->own_->check_schema(error) ||
      !there.prepare(moves->db_->get(), "SELECT count(*) FROM sqlite_master WHERE name='moved_sets'", error))
    return nullptr;
  if (there.step() != SQLITE_ROW) {
    error = "cannot read catalog in " + folder + ": " + there.error();
    return nullptr;
  }
  if (there.number(0) == 0)
    return nullptr;
  Catalog_Statement sets;
  if (!sets.prepare(moves->db_->get(), "SELECT idx,uuid FROM moved_sets ORDER BY idx", error) || !moves->prepare(error))
    return nullptr;
  int step;
  while ((step = sets.step()) == SQLITE_ROW) {
    moves->sets_.emplace_back(sets.blob(1));
    moves->numbers_[moves->sets_.back()] = static_cast<unsigned>(sets.number(0));
  }
  if (step == SQLITE_DONE)
    return moves;
  error = "cannot read catalog in " + folder + ": " + sets.error();
  return nullptr;
}

std::unique_ptr<Catalog_Moves> Catalog_Moves::make(Catalog_Db& catalog, std::string& error) {
  std::unique_ptr<Catalog_Moves> moves(new Catalog_Moves);
  moves->db_ = &catalog;
  moves->writable_ = true;
  if (catalog.execute("DROP TABLE IF EXISTS moved_sets; DROP TABLE IF EXISTS moved;"
                      "CREATE TABLE moved_sets(idx INTEGER PRIMARY KEY, uuid TEXT NOT NULL);"
                      "CREATE TABLE moved(old INTEGER NOT NULL, channel INTEGER NOT NULL, position INTEGER NOT NULL,"
                      "to_channel INTEGER NOT NULL, to_position INTEGER NOT NULL, to_stored INTEGER NOT NULL,"
                      "PRIMARY KEY(old,channel,position)) WITHOUT ROWID",
                      error) &&
      moves->prepare(error))
    return moves;
  return nullptr;
}

unsigned Catalog_Moves::number_of(const std::string& set) {
  unsigned& number = numbers_[set];
  if (number == 0) {
    sets_.push_back(set);
    number = static_cast<unsigned>(sets_.size());
    if (!add_set_.bind(1, number).bind_text(2, set).run())
      error_ = "cannot write catalog: " + add_set_.error();
  }
  return number;
}

bool Catalog_Moves::add(const std::string& set, unsigned channel, unsigned long long offset, const Moved_Object& to) {
  add_.bind(1, number_of(set)).bind(2, channel).bind(3, offset);
  if (!add_.bind(4, to.channel).bind(5, to.offset).bind(6, to.stored).run() && error_.empty())
    error_ = "cannot write catalog: " + add_.error();
  return error_.empty();
}

bool Catalog_Moves::find(const std::string& set, unsigned channel, unsigned long long offset, Moved_Object& to) {
  const auto number = numbers_.find(set);
  if (number == numbers_.end())
    return false;
  Catalog_Reset reset(find_);
  const int step = find_.bind(1, number->second).bind(2, channel).bind(3, offset).step();
  if (step == SQLITE_ROW) {
    to.channel = static_cast<unsigned>(find_.number(0));
    to.offset = find_.number(1);
    to.stored = find_.number(2);
    return true;
  }
  if (step != SQLITE_DONE)
    error_ = "cannot read catalog: " + find_.error();
  return false;
}

bool Catalog_Moves::add_earlier(const std::string& set, Catalog_Moves& earlier) {
  Catalog_Statement rows;
  if (!rows.prepare(earlier.db_->get(),
                    "SELECT s.uuid,m.channel,m.position,m.to_channel,m.to_position FROM moved m "
                    "JOIN moved_sets s ON s.idx=m.old",
                    error_))
    return false;
  for (const std::string& one : earlier.sets_)
    number_of(one);
  int step;
  while ((step = rows.step()) == SQLITE_ROW) {
    Moved_Object to;
    if (find(set, static_cast<unsigned>(rows.number(3)), rows.number(4), to) &&
        !add(std::string(rows.blob(0)), static_cast<unsigned>(rows.number(1)), rows.number(2), to))
      return false;
    if (!error_.empty())
      return false;
  }
  if (step != SQLITE_DONE)
    error_ = "cannot read catalog: " + rows.error();
  return error_.empty();
}

namespace {

/// Copies page by page through both encryptions.
bool copy_encrypted(const std::string& from, const std::string& path, Catalog_Db& db, std::string& error,
                    const Set_Cipher_ptr& from_cipher, const Set_Cipher_ptr& cipher) {
  const int fd = open_pool_file(path, O_CREAT | O_EXCL | O_WRONLY);
  if (fd < 0) {
    error = "cannot make catalog " + path + ": " + std::strerror(errno);
    return false;
  }
  ::close(fd);
  Catalog_Db source;
  if (!source.open(from, SQLITE_OPEN_READONLY | SQLITE_OPEN_NOMUTEX, error, from_cipher) ||
      !db.open(path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, error, cipher) ||
      !db.execute("PRAGMA locking_mode=EXCLUSIVE; PRAGMA journal_mode=OFF; PRAGMA synchronous=OFF;"
                  "PRAGMA temp_store=FILE; PRAGMA cache_size=-8192",
                  error))
    return false;
  sqlite3_backup* const copy = sqlite3_backup_init(db.get(), "main", source.get(), "main");
  const int step = copy == nullptr ? SQLITE_ERROR : sqlite3_backup_step(copy, -1);
  if (sqlite3_backup_finish(copy) == SQLITE_OK && step == SQLITE_DONE)
    return db.execute("BEGIN", error);
  const std::string below = catalog_layer_reason(source.get());
  error = "cannot copy catalog " + from + ": " + (below.empty() ? catalog_error(db.get()) : below);
  return false;
}

} // namespace

bool copy_catalog(const std::string& from, const std::string& folder, Catalog_Db& db, std::string& error,
                  const Set_Cipher_ptr& from_cipher, const Set_Cipher_ptr& cipher) {
  const std::string path = folder + "/" + catalog::FILE_NAME;
  Catalog_Db original;
  if (!original.open(from + "/" + catalog::FILE_NAME, SQLITE_OPEN_READONLY | SQLITE_OPEN_NOMUTEX, error, from_cipher) ||
      !original.execute("PRAGMA cache_size=-4096", error) || !original.check_schema(error)) {
    error = "cannot copy catalog " + from + "/" + catalog::FILE_NAME + ": " + error;
    return false;
  }
  if (cipher)
    return copy_encrypted(from + "/" + catalog::FILE_NAME, path, db, error, from_cipher, cipher);
  // Nothing refers to the copy before it is whole and durable, so a torn one costs nothing and needs no journal.
  return copy_file(from + "/" + catalog::FILE_NAME, path, error) &&
         db.open(path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, error) &&
         db.execute("PRAGMA locking_mode=EXCLUSIVE; PRAGMA journal_mode=OFF; PRAGMA synchronous=OFF;"
                    "PRAGMA temp_store=FILE; PRAGMA cache_size=-8192; BEGIN",
                    error);
}

bool finish_catalog_copy(Catalog_Db& db, const std::string& folder, std::string& error) {
  if (!db.execute("COMMIT", error) || !db.close(error))
    return false;
  const std::string file = folder + "/" + catalog::FILE_NAME;
  for (const std::string& path : {file, folder}) {
    const int fd = path == folder ? open_pool_folder(path) : open_pool_file(path, O_RDWR);
    const bool synced = fd >= 0 && ::fsync(fd) == 0;
    if (!synced)
      error = "cannot sync " + path + ": " + std::strerror(errno);
    if (fd >= 0)
      ::close(fd);
    if (!synced)
      return false;
  }
  return true;
}

bool relink_catalog(Catalog_Db& db, Catalog_Moves& moves, const Catalog_Set& merged, bool own, std::string& error) {
  const std::set<std::string> moved(moves.sets().begin(), moves.sets().end());
  std::map<unsigned, std::string> places;
  unsigned next = 1, known = 0;
  {
    Catalog_Statement sets;
    if (!sets.prepare(db.get(), "SELECT idx,uuid FROM sets", error))
      return false;
    int step;
    while ((step = sets.step()) == SQLITE_ROW) {
      const unsigned index = static_cast<unsigned>(sets.number(0));
      std::string uuid(sets.blob(1));
      next = std::max(next, index + 1);
      if (moved.count(uuid) != 0)
        places[index] = std::move(uuid);
      else if (uuid == merged.uuid)
        known = index;
    }
    if (step != SQLITE_DONE) {
      error = "cannot read catalog: " + sets.error();
      return false;
    }
  }
  const unsigned target = own ? 0 : known != 0 ? known : next;
  Catalog_Statement rows, update, remove, insert;
  if (!rows.prepare(db.get(),
                    "SELECT ordinal,place,channel,position FROM objects WHERE ordinal>? ORDER BY ordinal LIMIT ?",
                    error) ||
      !update.prepare(db.get(), "UPDATE objects SET place=?,channel=?,position=?,stored=? WHERE ordinal=?", error) ||
      !remove.prepare(db.get(), "DELETE FROM sets WHERE idx=?", error) ||
      !insert.prepare(db.get(), "INSERT OR REPLACE INTO sets VALUES(?,?,?,?)", error))
    return false;
  const auto failed = [&] {
    if (error.empty())
      error = std::string("cannot write catalog: ") + sqlite3_errmsg(db.get());
    return false;
  };
  std::vector<Row> batch;
  for (unsigned long long last = 0;;) {
    batch.clear();
    rows.bind(1, last).bind(2, BATCH);
    int step;
    while ((step = rows.step()) == SQLITE_ROW)
      batch.push_back({rows.number(0), static_cast<unsigned>(rows.number(1)), static_cast<unsigned>(rows.number(2)),
                       rows.number(3)});
    if (step != SQLITE_DONE) {
      error = "cannot read catalog: " + rows.error();
      return false;
    }
    rows.reset();
    if (batch.empty())
      break;
    last = batch.back().ordinal;
    for (const Row& row : batch) {
      const auto place = places.find(row.place);
      if (place == places.end())
        continue;
      Moved_Object to;
      if (!moves.find(place->second, row.channel, row.position, to)) {
        error = !moves.error().empty() ? moves.error()
                                       : "the merged set does not hold the object " + std::to_string(row.ordinal) +
                                             " that lay in the set " + place->second;
        return false;
      }
      update.bind(1, target).bind(2, to.channel).bind(3, to.offset).bind(4, to.stored).bind(5, row.ordinal);
      if (!update.run())
        return failed();
    }
  }
  for (const auto& place : places)
    if (!remove.bind(1, place.first).run())
      return failed();
  insert.bind(1, target).bind_text(2, merged.uuid).bind_text(3, merged.uri).bind(4, merged.seq);
  if (!insert.run())
    return failed();
  return !own || db.execute("UPDATE meta SET value=(SELECT coalesce(sum(stored),0) FROM objects WHERE place=0) "
                            "WHERE name='stored'",
                            error);
}
