#pragma once

#include "platform/catalog/catalog_db.h"
#include "platform/catalog/catalog_writer.h"

#include <memory>
#include <string>

/// Objects on their way from media into a catalog: they come medium by medium, and go in the order of their ordinals,
/// with the folders and visits that a catalog has. Kept in a temporary database, so that memory does not depend on
/// their number. One thread.
class Catalog_Staging {
public:
  /// `cipher`: of an encrypted set, whose names shall not get into a temporary file as they are. Null with the reason.
  static std::unique_ptr<Catalog_Staging> make(std::string& error, const Set_Cipher_ptr& cipher = nullptr);

  /// False on failure. Of two objects with one ordinal the first stays.
  bool add(const Catalog_Object& object);
  /// Gives all to `catalog`. False when this or the catalog failed.
  bool write(Catalog_Writer& catalog);
  unsigned long long objects() const { return objects_; }
  unsigned long long bytes() const { return bytes_; }
  const std::string& error() const { return error_; }

private:
  Catalog_Db db_;
  Catalog_Statement add_, read_;
  unsigned long long objects_ = 0;
  unsigned long long bytes_ = 0;
  std::string error_;
};
