#pragma once

#include "platform/catalog/catalog_reader.h"
#include "platform/pool/set_keys.h"

/// Opens the catalog of a set in a pool, encrypted or not. Null with the reason.
std::unique_ptr<Catalog_Reader> open_set_catalog(const Pool& pool, const Set_Record& record, std::string& error);
