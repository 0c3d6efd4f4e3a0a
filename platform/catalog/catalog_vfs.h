#pragma once

#include "platform/crypto/set_cipher.h"

#include <sqlite3.h>

#include <memory>
#include <string>

/// A file layer under SQLite that encrypts the catalog of an encrypted set: each page of the database with AES-256-GCM,
/// bound to its number, to the set and to the one writing of the file; and whatever SQLite puts into temporary files
/// under a key that ends with the file. SQLite above it works as ever. doc/format/catalog.md has the layout of a page.
///
/// One connection each; it must be closed before the layer is destroyed. One thread at a time.
class Catalog_Vfs {
public:
  static constexpr int PAGE = 4096;
  /// Bytes that SQLite must leave free at the end of each page (SQLITE_FCNTL_RESERVE_BYTES).
  static constexpr int RESERVED = 48;

  /// Registers it with SQLite. Null with the reason.
  static std::unique_ptr<Catalog_Vfs> make(const Set_Cipher_ptr& cipher, std::string& error);
  virtual ~Catalog_Vfs() = default;
  /// For sqlite3_open_v2.
  virtual const char* name() const = 0;
  /// Why a page could not be read or written; empty while all went well.
  virtual const std::string& reason() const = 0;
};

/// Why the layer of a connection could not read or write a page; empty when it could, or there is none.
std::string catalog_layer_reason(sqlite3* db);
/// The message of the last failure on a connection: the layer's where it has one, which tells damage from a wrong key,
/// else SQLite's.
std::string catalog_error(sqlite3* db);
