#include "agent/commands/open_set.h"

#include "platform/catalog/open_catalog.h"
#include "sdk/base/time_format.h"

#include <cstdio>

std::string open_set(Context& context, const Set& set, Pool& pool, Set_Record& record) {
  pool = context.open_pool(context.pool_entry(set.pool_uuid));
  const std::string folder = pool.set_folder(set.uri);
  std::string error;
  if (!read_set_record(folder, record, error))
    throw Command_Error("set " + set.uuid + ": " + error);
  if (record.uuid != set.uuid)
    throw Command_Error("set " + set.uuid + ": in " + folder + " lies another set (" + record.uuid + ")");
  // Where it lies counts, not where it was written.
  record.uri = set.uri;
  return folder;
}

std::unique_ptr<Catalog_Reader> open_catalog(Context& context, const Set& set) {
  Pool pool;
  Set_Record record;
  std::string error;
  open_set(context, set, pool, record);
  std::unique_ptr<Catalog_Reader> catalog = open_set_catalog(pool, record, error);
  if (!catalog)
    throw Command_Error("set " + set.uuid + ": " + error);
  return catalog;
}

json_spirit::Object object_json(const Catalog_Object& object) {
  json_spirit::Object json;
  json["file"] = "/" + object.path;
  json["size"] = object.size;
  json["mtime"] = POSIX_Time_To_ISO8601(object.mtime).str();
  return json;
}

void add_flags(const Catalog_Object& object, json_spirit::Object& json) {
  if (object.flags & catalog::FLAG_UNSEEN)
    json["unseen"] = true;
  if (object.flags & catalog::FLAG_OLDER)
    json["older"] = true;
  if (object.flags & catalog::FLAG_DAMAGED)
    json["damaged"] = true;
}

std::string flags_text(const Catalog_Object& object) {
  std::string text;
  if (object.flags & catalog::FLAG_UNSEEN)
    text += "  (not listed in this run)";
  if (object.flags & catalog::FLAG_OLDER)
    text += "  (an older version: the one listed could not be read)";
  if (object.flags & catalog::FLAG_DAMAGED)
    text += "  (damaged)";
  return text;
}

std::string object_head(const Catalog_Object& object) {
  char head[64];
  std::snprintf(head, sizeof head, "%s %12llu  ", POSIX_Time_To_ISO8601(object.mtime, "%Y-%m-%d %H:%M:%SZ").c_str(),
                object.size);
  return head;
}
