#include "obs/agent/job/restore_job_source_parser.h"

#include "obs/agent/job_frame/exports.h"
#include "obs/agent/util/natoi.h"
#include "sdk/job/object_creator.h"

namespace {

enum Key : ACE_UINT64 {
  KEY_ID = 0x1,
  KEY_NAME = 0x2,
  KEY_CATALOG_ID = 0x4,
  KEY_ENTRIES = 0x8,
  KEY_FILE = 0x10,
  KEY_DIR = 0x20,
  KEY_BACKUP_HOST_ID = 0x40,
  KEY_BACKUP_DEFINITION_ID = 0x80,
  KEY_BACKUP_MINOR_RESOURCE_ID = 0x100,
  KEY_SEQ = 0x200,
  KEY_POOL_UUID = 0x400,
  REQUIRED_KEYS = KEY_ID | KEY_BACKUP_HOST_ID | KEY_BACKUP_MINOR_RESOURCE_ID | KEY_SEQ | KEY_POOL_UUID
};

} // namespace

const JSON_Key OBS_Restore_Job_Source_Parser::key_table[] = {
    {"id", 2, KEY_ID},
    {"name", 4, KEY_NAME},
    {"catalog_id", 10, KEY_CATALOG_ID},
    {"entries", 7, KEY_ENTRIES},
    {"backup_host_id", 14, KEY_BACKUP_HOST_ID},
    {"backup_definition_id", 20, KEY_BACKUP_DEFINITION_ID},
    {"backup_minor_resource_id", 24, KEY_BACKUP_MINOR_RESOURCE_ID},
    {"seq", 3, KEY_SEQ},
    {"pool_uuid", 9, KEY_POOL_UUID},
    {"", 0, 0},
};

const JSON_Key OBS_Restore_Job_Source_Parser::entries_key_table[] = {
    {"file", 4, KEY_FILE},
    {"dir", 3, KEY_DIR},
    {"", 0, 0},
};

OBS_Restore_Job_Source_Parser::~OBS_Restore_Job_Source_Parser() = default;

bool OBS_Restore_Job_Source_Parser::handle_map_key_i(const char* text, unsigned length) {
  ACE_UINT64 bit = 0;
  if (level() == 1)
    bit = find_json_key(key_table, text, length);
  else if (level() == 3 && states_.front().key == KEY_ENTRIES)
    bit = find_json_key(entries_key_table, text, length);
  return set_key(bit);
}

bool OBS_Restore_Job_Source_Parser::handle_number_i(const char* text, unsigned length) {
  if (level() != 1)
    return record() ? refuse(JSON_ERROR_WRONG_VALUE) : true;
  if (record() && top().key == KEY_SEQ)
    record()->seq_ = natoi<ACE_INT64>(text, length);
  return accept();
}

bool OBS_Restore_Job_Source_Parser::handle_string_i(const char* text, unsigned length) {
  if (!record())
    return true;
  switch (level()) {
  case 1:
    return without_throwing([&] { return handle_level1_string(text, length); });
  case 3:
    return without_throwing([&] { return handle_level3_string(text, length); });
  default:
    return refuse(JSON_ERROR_WRONG_VALUE);
  }
}

bool OBS_Restore_Job_Source_Parser::handle_level1_string(const char* text, unsigned length) {
  if (!top().obj || top().key == 0)
    return true;
  OBS_Restore_Job_Source* const source = record();
  const std::string value(text, length);
  switch (top().key) {
  case KEY_ID:
    source->id(value);
    break;
  case KEY_NAME:
    source->name(value);
    break;
  case KEY_CATALOG_ID:
    source->catalog_id_ = value;
    break;
  case KEY_BACKUP_MINOR_RESOURCE_ID:
    source->backup_minor_resource_id_ = value;
    break;
  case KEY_BACKUP_HOST_ID:
    source->backup_host_id_ = value;
    break;
  case KEY_POOL_UUID:
    source->pool_uuid_ = value;
    break;
  default:
    return refuse(JSON_ERROR_WRONG_VALUE);
  }
  return accept();
}

bool OBS_Restore_Job_Source_Parser::handle_level3_string(const char* text, unsigned length) {
  if (!top().obj || top().key == 0)
    return true;
  OBS_Restore_Job_Source* const source = record();
  const std::string value(text, length);
  switch (top().key) {
  case KEY_DIR:
    source->entries_.emplace_back(json_spirit::Object{{"dir", value}});
    break;
  case KEY_FILE:
    source->entries_.emplace_back(json_spirit::Object{{"file", value}});
    break;
  default:
    return refuse(JSON_ERROR_WRONG_VALUE);
  }
  return accept();
}

bool OBS_Restore_Job_Source_Parser::handle_end_map_i() {
  if (level() == 1 && !check_required_json_keys(key_table, REQUIRED_KEYS, top().masks))
    return refuse(JSON_ERROR_LACK_OF_KEY);
  return pop();
}

OBS_DEFINE_PARSER_CREATOR_FACTORY(OBS_Restore_Job_Source_Parser)
