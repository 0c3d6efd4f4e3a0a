#pragma once

#include "platform/catalog/catalog_format.h"
#include "platform/crypto/set_cipher.h"

#include <memory>
#include <string>
#include <vector>

/// Writes the catalog of a set. Rows may come from any thread and in any order, since each carries its ordinal; a
/// thread of the writer's own puts them into the database behind a bounded queue, so that memory does not depend on
/// the number of objects.
///
/// Until `finish` has answered true the file is no catalog, and nothing in it is durable. Destroying the writer before
/// leaves the unfinished file behind for whoever removes the set's folder.
class Catalog_Writer {
public:
  /// Makes the catalog in `folder`; there must be none. Encrypted with a `cipher`. Null with the reason.
  static std::unique_ptr<Catalog_Writer> create(const std::string& folder, std::string& error,
                                                const Set_Cipher_ptr& cipher = nullptr);
  virtual ~Catalog_Writer() = default;

  /// Any thread; blocks while the queue is full. False once the writer has failed.
  virtual bool add_object(const Catalog_Object& object) = 0;
  /// The first `count` objects at once. The vector comes back with other objects, which are of no use but for the
  /// memory that they hold.
  virtual bool add_objects(std::vector<Catalog_Object>& objects, size_t count) = 0;
  /// Makes the folder `path` ("bucket/a/") known, whether it holds objects or not, and those above it.
  virtual bool add_folder(const std::string& path) = 0;
  virtual bool add_visit(const Catalog_Visit& visit) = 0;
  virtual bool add_problem(const Catalog_Problem& problem) = 0;
  virtual bool add_deletion(const Catalog_Deletion& deletion) = 0;
  /// Index 0, the catalog's own set, comes first.
  virtual bool add_set(const Catalog_Set& set) = 0;

  /// Waits for the queue, completes the catalog and makes it durable. No other call may run or follow.
  virtual bool finish() = 0;
  /// What was added; valid after `finish`.
  virtual const Catalog_Counts& counts() const = 0;
  /// The first failure; empty while there was none.
  virtual std::string error() const = 0;
};
