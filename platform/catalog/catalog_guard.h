#pragma once

#include <ace/Time_Value.h>
#include <sqlite3.h>

#include <string>

/// What stands between the program and a catalog that somebody else may have made: SQLite runs nothing that such a file
/// brings along (views, triggers, functions), its rows have bounded lengths, and reading it can be interrupted. Belongs
/// to one connection and outlives it. One thread at a time, as the connection.
class Catalog_Guard {
public:
  /// Longest value of a catalog's row, in bytes. What services keep beside an object is a thousandth of it.
  static constexpr int MAX_VALUE = 16 << 20;
  /// Longest text of a table in the schema.
  static constexpr int MAX_SCHEMA_TEXT = 16 << 10;
  /// Sets that one catalog may point into; numbers of sets end before.
  static constexpr size_t MAX_SETS = 100000;

  /// Guards a connection that was just opened. What is opened to be read may be anything: until `check_schema` only as
  /// much of it can be read as a catalog's schema takes, and reading that still goes on two seconds after the calling
  /// thread's job was cancelled ends: who reads has long looked by then, unless a row does not come to its end. What is
  /// opened to be written is a file of our own.
  void attach(sqlite3* db, bool reads);
  /// Whether the schema is that of a catalog of this format or an older one, table by table. False with the reason.
  bool check_schema(sqlite3* db, std::string& error);
  /// Why SQLite was interrupted; empty when it was not.
  std::string reason() const;

private:
  static int progress(void* self);

  unsigned left_ = 0; ///< calls of `progress` until the schema must have been read; 0: it has been
  bool schema_too_large_ = false;
  bool cancelled_ = false;
  ACE_Time_Value cancelled_at_; ///< when that was seen first; zero: not yet
};
