#pragma once

#include "platform/catalog/catalog_guard.h"
#include "platform/catalog/catalog_vfs.h"

#include <sqlite3.h>

#include <memory>
#include <string>
#include <string_view>

/// A prepared statement. Values are bound from place 1, columns read from 0. One thread at a time.
class Catalog_Statement {
public:
  Catalog_Statement() = default;
  /// False, with the database's message in `error`, when the text makes no sense there.
  bool prepare(sqlite3* db, const char* sql, std::string& error);

  Catalog_Statement& bind(int place, unsigned long long value);
  Catalog_Statement& bind_signed(int place, long long value);
  /// The bytes are copied.
  Catalog_Statement& bind_blob(int place, std::string_view bytes);
  Catalog_Statement& bind_null(int place);
  /// The bytes must last until the statement has run.
  Catalog_Statement& bind_lasting_blob(int place, std::string_view bytes);
  Catalog_Statement& bind_text(int place, std::string_view text);
  /// SQLITE_ROW, SQLITE_DONE or an error.
  int step();
  /// Runs a statement without rows and makes it ready for the next values.
  bool run();
  void reset();

  unsigned long long number(int column) const;
  long long signed_number(int column) const;
  /// Valid until the next step or reset.
  std::string_view blob(int column) const;
  std::string error() const;

private:
  struct Finalize {
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
  };
  std::unique_ptr<sqlite3_stmt, Finalize> statement_;
};

/// A connection.
class Catalog_Db {
public:
  /// `flags` as sqlite3_open_v2 takes them. `cipher`: the file is encrypted. False with the reason.
  bool open(const std::string& path, int flags, std::string& error, const Set_Cipher_ptr& cipher = nullptr);
  bool execute(const char* sql, std::string& error);
  /// Whether what was opened has the tables of a catalog, and nothing else. False with the reason.
  bool check_schema(std::string& error) { return guard_->check_schema(db_.get(), error); }
  /// Closes it; false with the reason when the last pages could not be written.
  bool close(std::string& error);
  sqlite3* get() const { return db_.get(); }

private:
  struct Close {
    void operator()(sqlite3* db) const { sqlite3_close_v2(db); }
  };
  std::unique_ptr<Catalog_Vfs> vfs_; ///< outlives `db_`, as the next
  std::unique_ptr<Catalog_Guard> guard_;
  std::unique_ptr<sqlite3, Close> db_;
};

/// Resets a statement when its rows have been read.
class Catalog_Reset {
public:
  explicit Catalog_Reset(Catalog_Statement& statement) : statement_(statement) { statement_.reset(); }
  ~Catalog_Reset() { statement_.reset(); }
  Catalog_Reset(const Catalog_Reset&) = delete;
  Catalog_Reset& operator=(const Catalog_Reset&) = delete;

private:
  Catalog_Statement& statement_;
};
