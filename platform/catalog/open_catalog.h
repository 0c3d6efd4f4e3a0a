#pragma once

#include "platform/catalog/catalog_reader.h"
#include "platform/pool/set_keys.h"

/// Opens the catalog of a set in a pool, encrypted or not. Null with the reason, also when it is another set's than the
/// record.
std::unique_ptr<Catalog_Reader> open_set_catalog(const Pool& pool, const Set_Record& record, std::string& error);
/// The same for whoever builds on what it says, or removes what it does not name: all of it is read and compared with
/// its check first.
std::unique_ptr<Catalog_Reader> open_checked_catalog(const Pool& pool, const Set_Record& record, std::string& error);
