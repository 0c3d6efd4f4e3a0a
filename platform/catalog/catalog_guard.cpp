#include "platform/catalog/catalog_guard.h"

#include "platform/catalog/catalog_db.h"
#include "platform/job/current_job.h"
#include "sdk/base/clock.h"

#include <set>

namespace {

/// Steps of SQLite's machine between two calls of `progress`, and how many of these a schema of a dozen tables needs at
/// most by far.
constexpr int STEPS = 1000;
constexpr unsigned SCHEMA_CALLS = 20;
constexpr time_t PATIENCE = 2; // seconds

/// Every statement that has ever made a part of a catalog, in any of its formats.
const char* const KNOWN[] = {
    "CREATE TABLE meta(name TEXT PRIMARY KEY, value) WITHOUT ROWID",
    "CREATE TABLE sets(idx INTEGER PRIMARY KEY, uuid TEXT NOT NULL, uri TEXT NOT NULL, seq INTEGER NOT NULL)",
    "CREATE TABLE folders(id INTEGER PRIMARY KEY, parent INTEGER NOT NULL, path BLOB NOT NULL UNIQUE)",
    "CREATE TABLE visits(first INTEGER PRIMARY KEY, last INTEGER NOT NULL, folder INTEGER NOT NULL, "
    "ascending INTEGER NOT NULL)",
    "CREATE TABLE objects(ordinal INTEGER PRIMARY KEY, name BLOB NOT NULL, size INTEGER NOT NULL, "
    "mtime INTEGER NOT NULL, place INTEGER NOT NULL, channel INTEGER NOT NULL, position INTEGER NOT NULL, "
    "stored INTEGER NOT NULL, sha256 BLOB NOT NULL, flags INTEGER NOT NULL, attributes INTEGER, own BLOB)",
    "CREATE TABLE objects(ordinal INTEGER PRIMARY KEY, name BLOB NOT NULL, size INTEGER NOT NULL, "
    "mtime INTEGER NOT NULL, place INTEGER NOT NULL, channel INTEGER NOT NULL, position INTEGER NOT NULL, "
    "stored INTEGER NOT NULL, sha256 BLOB NOT NULL, flags INTEGER NOT NULL)",
    "CREATE TABLE attributes(id INTEGER PRIMARY KEY, digest INTEGER NOT NULL, text BLOB NOT NULL)",
    "CREATE INDEX attributes_digest ON attributes(digest)",
    "CREATE TABLE problems(id INTEGER PRIMARY KEY, kind INTEGER NOT NULL, path BLOB NOT NULL, number INTEGER NOT NULL, "
    "message TEXT NOT NULL)",
    "CREATE TABLE deletions(id INTEGER PRIMARY KEY, path BLOB NOT NULL, size INTEGER NOT NULL, mtime INTEGER NOT NULL)",
    "CREATE INDEX folders_parent ON folders(parent, path)",
    "CREATE INDEX visits_folder ON visits(folder, first)",
    "CREATE TABLE moved_sets(idx INTEGER PRIMARY KEY, uuid TEXT NOT NULL)",
    "CREATE TABLE moved(old INTEGER NOT NULL, channel INTEGER NOT NULL, position INTEGER NOT NULL,"
    "to_channel INTEGER NOT NULL, to_position INTEGER NOT NULL, to_stored INTEGER NOT NULL,"
    "PRIMARY KEY(old,channel,position)) WITHOUT ROWID",
};

/// With one blank for each run of blanks and line ends.
std::string with_single_blanks(std::string_view text) {
  std::string out;
  for (const char c : text) {
    const bool blank = c == ' ' || c == '\n';
    if (!blank || out.empty() || out.back() != ' ')
      out += blank ? ' ' : c;
  }
  return out;
}

} // namespace

void Catalog_Guard::attach(sqlite3* db, bool reads) {
  for (const int option : {SQLITE_DBCONFIG_TRUSTED_SCHEMA, SQLITE_DBCONFIG_ENABLE_TRIGGER, SQLITE_DBCONFIG_ENABLE_VIEW})
    sqlite3_db_config(db, option, 0, nullptr);
  sqlite3_limit(db, SQLITE_LIMIT_ATTACHED, 0);
  sqlite3_limit(db, SQLITE_LIMIT_LENGTH, reads ? MAX_SCHEMA_TEXT : MAX_VALUE);
  if (!reads)
    return;
  // It would also forbid to go without a journal, as those who write do.
  sqlite3_db_config(db, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
  left_ = SCHEMA_CALLS;
  sqlite3_progress_handler(db, STEPS, &Catalog_Guard::progress, this);
}

int Catalog_Guard::progress(void* self) {
  Catalog_Guard& guard = *static_cast<Catalog_Guard*>(self);
  if (guard.left_ > 0 && --guard.left_ == 0)
    guard.schema_too_large_ = true;
  if (is_current_job_canceling()) {
    const ACE_Time_Value now = Clock::instance().monotonic();
    if (guard.cancelled_at_ == ACE_Time_Value::zero)
      guard.cancelled_at_ = now;
    guard.cancelled_ = now - guard.cancelled_at_ >= ACE_Time_Value(PATIENCE);
  }
  return guard.schema_too_large_ || guard.cancelled_;
}

std::string Catalog_Guard::reason() const {
  if (schema_too_large_)
    return "it is no catalog: there is more in its schema than in any catalog's";
  return cancelled_ ? "the job is being cancelled" : std::string();
}

bool Catalog_Guard::check_schema(sqlite3* db, std::string& error) {
  static const std::set<std::string> known(std::begin(KNOWN), std::end(KNOWN));
  Catalog_Statement parts;
  if (!parts.prepare(db, "SELECT type,name,sql FROM sqlite_schema", error)) {
    error = reason().empty() ? error : reason();
    return false;
  }
  int step;
  while ((step = parts.step()) == SQLITE_ROW) {
    const std::string type(parts.blob(0)), name(parts.blob(1)), sql = with_single_blanks(parts.blob(2));
    // SQLite's own index for what is unique has no text; its name is reserved.
    if (sql.empty() ? type == "index" && name == "sqlite_autoindex_folders_1" : known.count(sql) != 0)
      continue;
    error = "it is no catalog: it has the " + type + " '" + name + "', which no catalog has like that";
    return false;
  }
  if (step != SQLITE_DONE) {
    error = reason().empty() ? parts.error() : reason();
    return false;
  }
  parts.reset();
  left_ = 0;
  sqlite3_limit(db, SQLITE_LIMIT_LENGTH, MAX_VALUE);
  return true;
}
