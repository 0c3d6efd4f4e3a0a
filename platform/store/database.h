#pragma once

#include <sqlite3.h>

#include <ctime>
#include <memory>
#include <string>

/// A connection to the agent's database. One thread at a time.
class Store_Db {
public:
  /// Opens or makes the file (mode 0600) for writing, with foreign keys, write-ahead log and a busy time-out. False
  /// with the reason.
  bool open(const std::string& path, std::string& error);
  bool execute(const char* sql, std::string& error);
  sqlite3* get() const { return db_.get(); }
  const std::string& path() const { return path_; }
  /// What the last call on the connection failed with, for the operator.
  std::string failure() const;

private:
  struct Close {
    void operator()(sqlite3* db) const { sqlite3_close_v2(db); }
  };
  std::unique_ptr<sqlite3, Close> db_;
  std::string path_;
};

/// A prepared statement: bind from the first place on, then step. Failures stick, so that only the last result needs a
/// look. One thread at a time.
class Store_Statement {
public:
  Store_Statement(const Store_Db& db, const char* sql);

  Store_Statement& text(const std::string& value);
  Store_Statement& blob(const std::string& value);
  Store_Statement& number(unsigned long long value);
  Store_Statement& time(time_t value);

  /// True while there is a row. False at the end and on failure: see `good`.
  bool next();
  /// Runs a statement without rows. False on failure, with the reason.
  bool run(std::string& error);
  /// Whether nothing failed so far; fills `error` otherwise.
  bool good(std::string& error) const;

  // Columns of the row, in their order.
  std::string get_text();
  unsigned long long get_number();
  time_t get_time();

private:
  Store_Statement& bound(int result);

  struct Finalize {
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
  };
  const Store_Db& db_;
  std::unique_ptr<sqlite3_stmt, Finalize> statement_;
  int result_ = SQLITE_OK;
  int place_ = 0;
  int column_ = 0;
};

/// A write transaction; taken back unless `commit` answered true.
class Store_Transaction {
public:
  explicit Store_Transaction(Store_Db& db) : db_(db) {}
  ~Store_Transaction();
  Store_Transaction(const Store_Transaction&) = delete;
  Store_Transaction& operator=(const Store_Transaction&) = delete;
  /// Waits for other writers, up to the busy time-out.
  bool begin(std::string& error);
  bool commit(std::string& error);

private:
  Store_Db& db_;
  bool open_ = false;
};
