#include "platform/store/database.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace {

// Longer than any transaction of the agent takes, short enough that a hung process is noticed.
constexpr int BUSY_TIMEOUT_MS = 20000;

/// SQLite makes its other files with the mode of this one.
bool make_private_file(const std::string& path, std::string& error) {
  const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0) {
    error = "cannot open the agent's database " + path + ": " + std::strerror(errno);
    return false;
  }
  struct stat status;
  const bool narrow = ::fstat(fd, &status) == 0 && S_ISREG(status.st_mode) &&
                      ((status.st_mode & 077) == 0 || ::fchmod(fd, status.st_mode & 0700) == 0);
  if (!narrow)
    error = "cannot make the agent's database " + path + " unreadable for others";
  ::close(fd);
  return narrow;
}

} // namespace

bool Store_Db::open(const std::string& path, std::string& error) {
  path_ = path;
  if (!make_private_file(path, error))
    return false;
  sqlite3* db = nullptr;
  const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_EXRESCODE;
  const int result = sqlite3_open_v2(path.c_str(), &db, flags, nullptr);
  db_.reset(db);
  if (result != SQLITE_OK) {
    error = failure();
    return false;
  }
  sqlite3_busy_timeout(db, BUSY_TIMEOUT_MS);
  return execute("PRAGMA foreign_keys=ON; PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL", error);
}

bool Store_Db::execute(const char* sql, std::string& error) {
  if (sqlite3_exec(db_.get(), sql, nullptr, nullptr, nullptr) == SQLITE_OK)
    return true;
  error = failure();
  return false;
}

std::string Store_Db::failure() const {
  return "the agent's database " + path_ + ": " + (db_ ? sqlite3_errmsg(db_.get()) : "out of memory");
}

Store_Statement::Store_Statement(const Store_Db& db, const char* sql) : db_(db) {
  sqlite3_stmt* statement = nullptr;
  result_ = sqlite3_prepare_v2(db.get(), sql, -1, &statement, nullptr);
  statement_.reset(statement);
}

Store_Statement& Store_Statement::bound(int result) {
  if (result_ == SQLITE_OK)
    result_ = result;
  return *this;
}

Store_Statement& Store_Statement::text(const std::string& value) {
  return bound(
      sqlite3_bind_text64(statement_.get(), ++place_, value.data(), value.size(), SQLITE_TRANSIENT, SQLITE_UTF8));
}

Store_Statement& Store_Statement::blob(const std::string& value) {
  return bound(sqlite3_bind_blob64(statement_.get(), ++place_, value.data(), value.size(), SQLITE_TRANSIENT));
}

Store_Statement& Store_Statement::number(unsigned long long value) {
  return bound(sqlite3_bind_int64(statement_.get(), ++place_, static_cast<sqlite3_int64>(value)));
}

Store_Statement& Store_Statement::time(time_t value) {
  return bound(sqlite3_bind_int64(statement_.get(), ++place_, static_cast<sqlite3_int64>(value)));
}

bool Store_Statement::next() {
  if (result_ != SQLITE_OK && result_ != SQLITE_ROW)
    return false;
  result_ = sqlite3_step(statement_.get());
  column_ = 0;
  return result_ == SQLITE_ROW;
}

bool Store_Statement::run(std::string& error) {
  next();
  return good(error);
}

bool Store_Statement::good(std::string& error) const {
  if (result_ == SQLITE_OK || result_ == SQLITE_ROW || result_ == SQLITE_DONE)
    return true;
  error = db_.failure();
  return false;
}

std::string Store_Statement::get_text() {
  const int column = column_++;
  const void* bytes = sqlite3_column_blob(statement_.get(), column);
  const int size = sqlite3_column_bytes(statement_.get(), column);
  return bytes ? std::string(static_cast<const char*>(bytes), static_cast<size_t>(size)) : std::string();
}

unsigned long long Store_Statement::get_number() {
  return static_cast<unsigned long long>(sqlite3_column_int64(statement_.get(), column_++));
}

time_t Store_Statement::get_time() {
  return static_cast<time_t>(sqlite3_column_int64(statement_.get(), column_++));
}

Store_Transaction::~Store_Transaction() {
  if (open_)
    sqlite3_exec(db_.get(), "ROLLBACK", nullptr, nullptr, nullptr);
}

bool Store_Transaction::begin(std::string& error) {
  open_ = db_.execute("BEGIN IMMEDIATE", error);
  return open_;
}

bool Store_Transaction::commit(std::string& error) {
  if (!db_.execute("COMMIT", error))
    return false;
  open_ = false;
  return true;
}
