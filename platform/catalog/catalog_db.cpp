#include "platform/catalog/catalog_db.h"

namespace {

/// SQLite counts the memory of all connections behind one lock; nobody asks for the figures. It takes no settings once
/// a connection was opened, so this is said when the library is loaded; a host that was earlier only pays with time.
[[maybe_unused]] const int memory_is_not_counted = sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);

} // namespace

bool Catalog_Statement::prepare(sqlite3* db, const char* sql, std::string& error) {
  sqlite3_stmt* statement = nullptr;
  if (sqlite3_prepare_v3(db, sql, -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr) != SQLITE_OK) {
    error = catalog_error(db);
    return false;
  }
  statement_.reset(statement);
  return true;
}

Catalog_Statement& Catalog_Statement::bind(int place, unsigned long long value) {
  sqlite3_bind_int64(statement_.get(), place, static_cast<sqlite3_int64>(value));
  return *this;
}

Catalog_Statement& Catalog_Statement::bind_signed(int place, long long value) {
  sqlite3_bind_int64(statement_.get(), place, value);
  return *this;
}

Catalog_Statement& Catalog_Statement::bind_blob(int place, std::string_view bytes) {
  // A null pointer would bind NULL where an empty blob is meant.
  sqlite3_bind_blob64(statement_.get(), place, bytes.empty() ? "" : bytes.data(), bytes.size(), SQLITE_TRANSIENT);
  return *this;
}

Catalog_Statement& Catalog_Statement::bind_null(int place) {
  sqlite3_bind_null(statement_.get(), place);
  return *this;
}

Catalog_Statement& Catalog_Statement::bind_lasting_blob(int place, std::string_view bytes) {
  sqlite3_bind_blob64(statement_.get(), place, bytes.empty() ? "" : bytes.data(), bytes.size(), SQLITE_STATIC);
  return *this;
}

Catalog_Statement& Catalog_Statement::bind_text(int place, std::string_view text) {
  sqlite3_bind_text64(statement_.get(), place, text.empty() ? "" : text.data(), text.size(), SQLITE_TRANSIENT,
                      SQLITE_UTF8);
  return *this;
}

int Catalog_Statement::step() {
  return sqlite3_step(statement_.get());
}

bool Catalog_Statement::run() {
  const int result = step();
  reset();
  return result == SQLITE_DONE || result == SQLITE_ROW;
}

void Catalog_Statement::reset() {
  sqlite3_reset(statement_.get());
}

unsigned long long Catalog_Statement::number(int column) const {
  return static_cast<unsigned long long>(sqlite3_column_int64(statement_.get(), column));
}

long long Catalog_Statement::signed_number(int column) const {
  return sqlite3_column_int64(statement_.get(), column);
}

std::string_view Catalog_Statement::blob(int column) const {
  const void* bytes = sqlite3_column_blob(statement_.get(), column);
  const int size = sqlite3_column_bytes(statement_.get(), column);
  // An empty value has no address, and a view without one is not for everybody (memcpy).
  return bytes == nullptr ? std::string_view("", 0) : std::string_view(static_cast<const char*>(bytes), size_t(size));
}

std::string Catalog_Statement::error() const {
  return catalog_error(sqlite3_db_handle(statement_.get()));
}

bool Catalog_Db::open(const std::string& path, int flags, std::string& error, const Set_Cipher_ptr& cipher) {
  sqlite3* db = nullptr;
  if (cipher && (vfs_ = Catalog_Vfs::make(cipher, error)) == nullptr)
    return false;
  const int result = sqlite3_open_v2(path.c_str(), &db, flags, vfs_ ? vfs_->name() : nullptr);
  db_.reset(db);
  if (result != SQLITE_OK) {
    // SQLite reads the file's head at once; a connection that could not has no file to ask.
    if (vfs_ && !vfs_->reason().empty())
      error = vfs_->reason();
    else
      error = db != nullptr ? sqlite3_errmsg(db) : "out of memory";
    db_.reset();
    return false;
  }
  sqlite3_extended_result_codes(db, 1);
  int reserved = Catalog_Vfs::RESERVED;
  if (!vfs_ || (flags & SQLITE_OPEN_READWRITE) == 0)
    return true;
  if (sqlite3_file_control(db, "main", SQLITE_FCNTL_RESERVE_BYTES, &reserved) == SQLITE_OK &&
      execute(("PRAGMA page_size=" + std::to_string(Catalog_Vfs::PAGE)).c_str(), error))
    return true;
  error = "SQLite cannot leave room for what encryption adds to a page";
  return false;
}

bool Catalog_Db::execute(const char* sql, std::string& error) {
  if (sqlite3_exec(db_.get(), sql, nullptr, nullptr, nullptr) == SQLITE_OK)
    return true;
  error = catalog_error(db_.get());
  return false;
}

bool Catalog_Db::close(std::string& error) {
  sqlite3* db = db_.get();
  if (db == nullptr)
    return true;
  if (sqlite3_close(db) != SQLITE_OK) {
    error = catalog_error(db);
    return false;
  }
  static_cast<void>(db_.release());
  return true;
}
