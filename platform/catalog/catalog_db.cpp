#include "platform/catalog/catalog_db.h"

#include "platform/pool/pool_files.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace {

/// As a URI may carry a path.
std::string escaped(const std::string& path) {
  static const char digits[] = "0123456789ABCDEF";
  std::string text;
  for (const char c : path) {
    const unsigned char byte = static_cast<unsigned char>(c);
    if (c == '%' || c == '?' || c == '#' || byte < ' ' || byte > '~') {
      text += '%';
      text += digits[byte / 16];
      text += digits[byte % 16];
    } else {
      text += c;
    }
  }
  return text;
}

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
  // SQLite opens by name: the name is that of the file that was found where it should be, and a link that takes its
  // place now is refused. What is only read is final, so nothing beside it is looked at (a journal may be anything).
  std::string name;
  if (!path.empty()) {
    const bool reads = (flags & SQLITE_OPEN_READONLY) != 0;
    const int fd = open_pool_file(path, reads ? O_RDONLY : O_RDWR);
    if (fd < 0) {
      error = pool_file_error(errno);
      return false;
    }
    name = path_of_file(fd);
    ::close(fd);
    if (name.empty()) // no /proc
      name = path;
    flags |= SQLITE_OPEN_NOFOLLOW;
    if (reads) {
      name = "file:" + escaped(name) + "?immutable=1";
      flags |= SQLITE_OPEN_URI;
    }
  }
  const int result = sqlite3_open_v2(name.c_str(), &db, flags, vfs_ ? vfs_->name() : nullptr);
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
  // What is written here is a catalog of our own making; a copy of one that was there is checked by whoever copies it.
  if (!path.empty()) {
    guard_ = std::make_unique<Catalog_Guard>();
    guard_->attach(db, (flags & SQLITE_OPEN_READONLY) != 0);
  }
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
  error = guard_ && !guard_->reason().empty() ? guard_->reason() : catalog_error(db_.get());
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
