#pragma once

#include "agent/context.h"
#include "platform/catalog/catalog_reader.h"
#include "platform/pool/set_record.h"

#include <memory>
#include <string>

/// Opens a set's pool and reads its record; returns the set's folder. Throws Command_Error.
std::string open_set(Context& context, const Set& set, Pool& pool, Set_Record& record);

/// Opens a set's catalog. Throws Command_Error.
std::unique_ptr<Catalog_Reader> open_catalog(Context& context, const Set& set);

/// {"file","size","mtime"} of an object.
json_spirit::Object object_json(const Catalog_Object& object);
/// "unseen", "older" and "damaged", where they hold.
void add_flags(const Catalog_Object& object, json_spirit::Object& json);
/// The same as words to stand behind a line; empty where none holds.
std::string flags_text(const Catalog_Object& object);
/// "2024-05-01 10:00:00        12345  " as lines about objects begin.
std::string object_head(const Catalog_Object& object);
