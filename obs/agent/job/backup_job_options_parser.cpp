#include "obs/agent/job/backup_job_options_parser.h"

#include "obs/agent/job_frame/exports.h"
#include "obs/agent/util/natoi.h"
#include "sdk/job/object_creator.h"

namespace {

enum Key : ACE_UINT64 {
  KEY_COMPRESSION = 0x2,
  KEY_CHANNELS = 0x4,
  KEY_EXCLUSION = 0x8,
  KEY_INCLUSION = 0x10,
  KEY_COMPRESSION_LEVEL = 0x20,
  KEY_CACHE_DIR = 0x40,
  KEY_SCAN_FILE_THREADS = 0x80,
  KEY_LIST_CACHE_LIMITS = 0x100,
  KEY_TAGS = 0x200,
  KEY_ACL = 0x400,
  KEY_REFRESH_TAGS = 0x800
};

} // namespace

const JSON_Key OBS_Backup_Job_Options_Parser::key_table_1[] = {
    {"compression", 11, KEY_COMPRESSION},
    {"channels", 8, KEY_CHANNELS},
    {"exclusion", 9, KEY_EXCLUSION},
    {"inclusion", 9, KEY_INCLUSION},
    {"compression_level", 17, KEY_COMPRESSION_LEVEL},
    {"cache_dir", 9, KEY_CACHE_DIR},
    {"scan_file_threads", 17, KEY_SCAN_FILE_THREADS},
    {"list_cache_limits", 17, KEY_LIST_CACHE_LIMITS},
    {"tags", 4, KEY_TAGS},
    {"acl", 3, KEY_ACL},
    {"refresh_tags", 12, KEY_REFRESH_TAGS},
    {"", 0, 0},
};

OBS_Backup_Job_Options_Parser::~OBS_Backup_Job_Options_Parser() = default;

bool OBS_Backup_Job_Options_Parser::handle_map_key_i(const char* text, unsigned length) {
  return set_key(level() == 1 ? find_json_key(key_table_1, text, length) : 0);
}

bool OBS_Backup_Job_Options_Parser::handle_boolean_i(bool value) {
  OBS_Backup_Job_Options* const options = record();
  if (level() != 1 || !options)
    return true;
  if (top().key == KEY_TAGS)
    options->tags_ = value;
  else if (top().key == KEY_ACL)
    options->acl_ = value;
  else if (top().key == KEY_REFRESH_TAGS)
    options->refresh_tags_ = value;
  return true;
}

bool OBS_Backup_Job_Options_Parser::handle_number_i(const char* text, unsigned length) {
  OBS_Backup_Job_Options* const options = record();
  if (!options)
    return true;
  if (level() != 1)
    return refuse(JSON_ERROR_WRONG_VALUE);
  if (!top().obj)
    return true;
  switch (top().key) {
  case KEY_COMPRESSION_LEVEL:
    options->compression_level_ = natoi<ACE_INT32>(text, length);
    break;
  case KEY_CHANNELS:
    options->channels_ = natoi<ACE_UINT32>(text, length);
    break;
  case KEY_SCAN_FILE_THREADS:
    options->scan_file_threads_ = natoi<ACE_UINT32>(text, length);
    break;
  case KEY_LIST_CACHE_LIMITS:
    // Definitions are written with a limit of 32 bits; a negative one means "as much as there is".
    options->list_cache_limits_ = static_cast<ACE_UINT64>(static_cast<ACE_INT64>(natoi<ACE_INT32>(text, length)));
    break;
  default:
    break;
  }
  return accept();
}

bool OBS_Backup_Job_Options_Parser::handle_string_i(const char* text, unsigned length) {
  if (!record())
    return true;
  switch (level()) {
  case 1:
    return without_throwing([&] { return handle_level1_string(text, length); });
  case 2:
    return without_throwing([&] { return handle_level2_string(text, length); });
  default:
    return refuse(JSON_ERROR_WRONG_VALUE);
  }
}

bool OBS_Backup_Job_Options_Parser::handle_level1_string(const char* text, unsigned length) {
  if (!top().obj)
    return true;
  OBS_Backup_Job_Options* const options = record();
  switch (top().key) {
  case 0:
  // Of another kind than they want, these are skipped like a key that nobody knows.
  case KEY_TAGS:
  case KEY_ACL:
  case KEY_REFRESH_TAGS:
    return true;
  case KEY_COMPRESSION:
    options->compression_ = compression_name_to_value(text, static_cast<int>(length));
    break;
  case KEY_COMPRESSION_LEVEL:
    options->compression_level_ = natoi<ACE_INT32>(text, length);
    break;
  case KEY_CACHE_DIR:
    options->cache_dir_.assign(text, length);
    break;
  default:
    return refuse(JSON_ERROR_WRONG_VALUE);
  }
  return accept();
}

bool OBS_Backup_Job_Options_Parser::handle_level2_string(const char* text, unsigned length) {
  OBS_Backup_Job_Options* const options = record();
  switch (states_.front().key) {
  case 0:
  case KEY_TAGS:
  case KEY_ACL:
  case KEY_REFRESH_TAGS:
    return true;
  case KEY_EXCLUSION:
    options->exclusion_.emplace_back(text, length);
    break;
  case KEY_INCLUSION:
    options->inclusion_.emplace_back(text, length);
    break;
  default:
    return refuse(JSON_ERROR_WRONG_VALUE);
  }
  return accept();
}

OBS_DEFINE_PARSER_CREATOR_FACTORY(OBS_Backup_Job_Options_Parser)
