#include "obs/agent/job/backup_job_source_parser.h"

#include "obs/agent/job_frame/exports.h"
#include "sdk/job/object_creator.h"

namespace {

enum Key : ACE_UINT64 {
  KEY_ID = 0x1,
  KEY_NAME = 0x2,
  KEY_MINOR_RESOURCE_ID = 0x4,
  KEY_MINOR_RESOURCE_NAME = 0x8,
  REQUIRED_KEYS = KEY_ID | KEY_MINOR_RESOURCE_ID | KEY_MINOR_RESOURCE_NAME
};

} // namespace

const JSON_Key OBS_Backup_Job_Source_Parser::key_table_1[] = {
    {"id", 2, KEY_ID},
    {"name", 4, KEY_NAME},
    {"minor_resource_id", 17, KEY_MINOR_RESOURCE_ID},
    {"minor_resource_name", 19, KEY_MINOR_RESOURCE_NAME},
    {"", 0, 0},
};

OBS_Backup_Job_Source_Parser::~OBS_Backup_Job_Source_Parser() = default;

bool OBS_Backup_Job_Source_Parser::handle_map_key_i(const char* text, unsigned length) {
  return set_key(level() == 1 ? find_json_key(key_table_1, text, length) : 0);
}

bool OBS_Backup_Job_Source_Parser::handle_string_i(const char* text, unsigned length) {
  if (level() == 1)
    return without_throwing([&] { return handle_level1_string(text, length); });
  return record() ? refuse(JSON_ERROR_WRONG_VALUE) : true;
}

bool OBS_Backup_Job_Source_Parser::handle_level1_string(const char* text, unsigned length) {
  if (!top().obj || top().key == 0)
    return true;
  OBS_Backup_Job_Source* const source = record();
  if (source) {
    const std::string value(text, length);
    switch (top().key) {
    case KEY_ID:
      source->id(value);
      break;
    case KEY_NAME:
      source->name(value);
      break;
    case KEY_MINOR_RESOURCE_ID:
      source->minor_resource_id_ = value;
      break;
    case KEY_MINOR_RESOURCE_NAME:
      source->minor_resource_name_ = value;
      break;
    default:
      return refuse(JSON_ERROR_WRONG_VALUE);
    }
  }
  return accept();
}

bool OBS_Backup_Job_Source_Parser::handle_end_map_i() {
  if (level() == 1 && !check_required_json_keys(key_table_1, REQUIRED_KEYS, top().masks))
    return refuse(JSON_ERROR_LACK_OF_KEY);
  return pop();
}

OBS_DEFINE_PARSER_CREATOR_FACTORY(OBS_Backup_Job_Source_Parser)
