#include "platform/store/schema.h"

namespace {

// "OBSA" as SQLite's application id.
constexpr int STORE_APPLICATION_ID = 0x4F425341;

// Lists (paths, rules, buckets, bases) are rows of `items`, because their members are any bytes. A set refers to its
// account and resource by value: a pool may hold sets that another agent made.
const char* const VERSION_1 = R"(
CREATE TABLE accounts(uuid TEXT PRIMARY KEY NOT NULL, name TEXT NOT NULL UNIQUE, scheme TEXT NOT NULL,
  endpoint TEXT NOT NULL, access_key TEXT NOT NULL, secret_key TEXT NOT NULL, region TEXT NOT NULL, vendor TEXT NOT NULL,
  sign_method TEXT NOT NULL, addressing TEXT NOT NULL, ca_file BLOB NOT NULL) WITHOUT ROWID;
CREATE TABLE pools(uuid TEXT PRIMARY KEY NOT NULL, name TEXT NOT NULL UNIQUE, url TEXT NOT NULL,
  encrypt INTEGER NOT NULL) WITHOUT ROWID;
CREATE TABLE selections(uuid TEXT PRIMARY KEY NOT NULL,
  account_uuid TEXT NOT NULL REFERENCES accounts(uuid) ON DELETE CASCADE, name TEXT NOT NULL,
  UNIQUE(account_uuid, name)) WITHOUT ROWID;
CREATE TABLE definitions(id TEXT PRIMARY KEY NOT NULL, uuid TEXT NOT NULL, name TEXT NOT NULL,
  json TEXT NOT NULL) WITHOUT ROWID;
CREATE TABLE activities(added INTEGER PRIMARY KEY AUTOINCREMENT, id TEXT NOT NULL UNIQUE, definition_id TEXT NOT NULL,
  type TEXT NOT NULL, state TEXT NOT NULL, start INTEGER NOT NULL, end INTEGER NOT NULL, outcome TEXT NOT NULL);
CREATE TABLE sets(added INTEGER PRIMARY KEY AUTOINCREMENT, uuid TEXT NOT NULL UNIQUE,
  pool_uuid TEXT NOT NULL REFERENCES pools(uuid) ON DELETE CASCADE, account_uuid TEXT NOT NULL,
  minor_resource_id TEXT NOT NULL, minor_resource_name TEXT NOT NULL, name TEXT NOT NULL, seq INTEGER NOT NULL,
  channels INTEGER NOT NULL, incarnation TEXT NOT NULL, uri TEXT NOT NULL, type TEXT NOT NULL,
  start_time TEXT NOT NULL, end_time TEXT NOT NULL, source_size INTEGER NOT NULL, backup_set_size INTEGER NOT NULL,
  backup_set_storage_size INTEGER NOT NULL, objects INTEGER NOT NULL, state TEXT NOT NULL);
CREATE INDEX sets_of_resource ON sets(pool_uuid, minor_resource_id, added);
CREATE TABLE items(owner TEXT NOT NULL, kind TEXT NOT NULL, position INTEGER NOT NULL, item BLOB NOT NULL,
  PRIMARY KEY(owner, kind, position)) WITHOUT ROWID;
CREATE TABLE notes(kind TEXT NOT NULL, key TEXT NOT NULL, text TEXT NOT NULL, PRIMARY KEY(kind, key)) WITHOUT ROWID;
CREATE TRIGGER account_items AFTER DELETE ON accounts BEGIN DELETE FROM items WHERE owner=old.uuid; END;
CREATE TRIGGER selection_items AFTER DELETE ON selections BEGIN DELETE FROM items WHERE owner=old.uuid; END;
CREATE TRIGGER set_items AFTER DELETE ON sets BEGIN DELETE FROM items WHERE owner=old.uuid; END;
)";

// How services are reached and asked, beyond where they are; what tests of an account found out about it.
const char* const VERSION_2 = R"(
ALTER TABLE accounts ADD COLUMN list_version TEXT NOT NULL DEFAULT 'auto';
ALTER TABLE accounts ADD COLUMN url_encoding TEXT NOT NULL DEFAULT 'auto';
ALTER TABLE accounts ADD COLUMN payload_signing TEXT NOT NULL DEFAULT 'auto';
ALTER TABLE accounts ADD COLUMN client_cert BLOB NOT NULL DEFAULT x'';
ALTER TABLE accounts ADD COLUMN client_key BLOB NOT NULL DEFAULT x'';
ALTER TABLE accounts ADD COLUMN proxy TEXT NOT NULL DEFAULT '';
ALTER TABLE accounts ADD COLUMN connect_timeout INTEGER NOT NULL DEFAULT 0;
ALTER TABLE accounts ADD COLUMN idle_timeout INTEGER NOT NULL DEFAULT 0;
ALTER TABLE accounts ADD COLUMN user_agent TEXT NOT NULL DEFAULT '';
ALTER TABLE accounts ADD COLUMN found_addressing TEXT NOT NULL DEFAULT '';
ALTER TABLE accounts ADD COLUMN found_list_version TEXT NOT NULL DEFAULT '';
ALTER TABLE accounts ADD COLUMN found_url_encoding TEXT NOT NULL DEFAULT '';
)";

// What a set lacks; -1: not known.
const char* const VERSION_3 = "ALTER TABLE sets ADD COLUMN missing INTEGER NOT NULL DEFAULT -1;";

// Step N brings a database of version N to version N + 1. Steps are added at the end and never changed.
const char* const STEPS[] = {VERSION_1, VERSION_2, VERSION_3};
static_assert(sizeof STEPS / sizeof *STEPS == STORE_SCHEMA_VERSION, "every version has the step that leads to it");

bool pragma(Store_Db& db, const char* sql, int& value, std::string& error) {
  Store_Statement statement(db, sql);
  if (statement.next())
    value = static_cast<int>(statement.get_number());
  return statement.good(error);
}

} // namespace

bool bring_up_to_date(Store_Db& db, std::string& error) {
  Store_Transaction transaction(db);
  int version = 0;
  int application = 0;
  int tables = 0;
  if (!transaction.begin(error) || !pragma(db, "PRAGMA user_version", version, error) ||
      !pragma(db, "PRAGMA application_id", application, error) ||
      !pragma(db, "SELECT count(*) FROM sqlite_master", tables, error))
    return false;
  const bool empty = tables == 0 && version == 0 && application == 0;
  if (!empty && application != STORE_APPLICATION_ID) {
    error = db.path() + " is not a database of the agent";
    return false;
  }
  if (version > STORE_SCHEMA_VERSION) {
    error = "the agent's database " + db.path() + " was written by a newer version (format " + std::to_string(version) +
            ", known up to " + std::to_string(STORE_SCHEMA_VERSION) + ")";
    return false;
  }
  if (version == STORE_SCHEMA_VERSION)
    return true;
  for (int step = version; step < STORE_SCHEMA_VERSION; ++step)
    if (!db.execute(STEPS[step], error))
      return false;
  const std::string marks = "PRAGMA user_version=" + std::to_string(STORE_SCHEMA_VERSION) +
                            "; PRAGMA application_id=" + std::to_string(STORE_APPLICATION_ID);
  return db.execute(marks.c_str(), error) && transaction.commit(error);
}
