#include "obs/agent/job/restore_job_options_parser.h"

#include "obs/agent/job_frame/exports.h"
#include "obs/agent/util/natoi.h"
#include "sdk/job/object_creator.h"

namespace {

enum Key : ACE_UINT64 {
  KEY_CHANNELS = 0x1,
  KEY_BUCKET_MAPS = 0x2,
  KEY_SOURCE = 0x4,
  KEY_TARGET = 0x8,
  KEY_PREFIX = 0x10,
  KEY_STANDALONE = 0x20,
  KEY_EXISTING = 0x40,
  KEY_CACHE_DIR = 0x80,
  KEY_NO_ACL = 0x100,
  KEY_DROP_TAGS = 0x200,
  KEY_STORAGE_CLASS = 0x400
};

} // namespace

const JSON_Key OBS_Restore_Job_Options_Parser::key_table_1[] = {
    {"channels", 8, KEY_CHANNELS},   {"bucket_maps", 11, KEY_BUCKET_MAPS},     {"standalone", 10, KEY_STANDALONE},
    {"existing", 8, KEY_EXISTING},   {"cache_dir", 9, KEY_CACHE_DIR},          {"no_acl", 6, KEY_NO_ACL},
    {"drop_tags", 9, KEY_DROP_TAGS}, {"storage_class", 13, KEY_STORAGE_CLASS}, {"", 0, 0},
};

const JSON_Key OBS_Restore_Job_Options_Parser::key_table_3[] = {
    {"source", 6, KEY_SOURCE},
    {"target", 6, KEY_TARGET},
    {"prefix", 6, KEY_PREFIX},
    {"", 0, 0},
};

OBS_Restore_Job_Options_Parser::~OBS_Restore_Job_Options_Parser() = default;

bool OBS_Restore_Job_Options_Parser::handle_start_map_i() {
  if (level() == 2) {
    cur_mapper_.clear();
    mapper_.bucket.clear();
    mapper_.prefix.clear();
  }
  return Definition_Parser_T::handle_start_map_i();
}

bool OBS_Restore_Job_Options_Parser::handle_map_key_i(const char* text, unsigned length) {
  ACE_UINT64 bit = 0;
  if (level() == 1)
    bit = find_json_key(key_table_1, text, length);
  else if (level() == 3 && states_.front().key == KEY_BUCKET_MAPS)
    bit = find_json_key(key_table_3, text, length);
  return set_key(bit);
}

bool OBS_Restore_Job_Options_Parser::handle_boolean_i(bool value) {
  OBS_Restore_Job_Options* const options = record();
  if (!options)
    return true;
  if (level() != 1)
    return refuse(JSON_ERROR_WRONG_VALUE);
  if (top().key == KEY_STANDALONE)
    options->standalone_ = value;
  else if (top().key == KEY_NO_ACL)
    options->no_acl_ = value;
  else if (top().key == KEY_DROP_TAGS)
    options->drop_tags_ = value;
  return accept();
}

bool OBS_Restore_Job_Options_Parser::handle_number_i(const char* text, unsigned length) {
  if (!record())
    return true;
  if (level() != 1)
    return refuse(JSON_ERROR_WRONG_VALUE);
  if (top().obj && top().key == KEY_CHANNELS)
    record()->channels_ = natoi<ACE_UINT32>(text, length);
  return true;
}

bool OBS_Restore_Job_Options_Parser::handle_string_i(const char* text, unsigned length) {
  if (!record())
    return true;
  switch (level()) {
  case 1:
    return without_throwing([&] { return handle_level1_string(text, length); });
  case 2:
    return true;
  case 3:
    return without_throwing([&] { return handle_level3_string(text, length); });
  default:
    return refuse(JSON_ERROR_WRONG_VALUE);
  }
}

bool OBS_Restore_Job_Options_Parser::handle_level1_string(const char* text, unsigned length) {
  if (!top().obj || top().key == 0)
    return true;
  OBS_Restore_Job_Options* const options = record();
  if (top().key == KEY_EXISTING)
    options->existing_ = OBS_Restore_Job_Options::name_to_existing(text, static_cast<int>(length));
  else if (top().key == KEY_CACHE_DIR)
    options->cache_dir_.assign(text, length);
  else if (top().key == KEY_STORAGE_CLASS)
    options->storage_class_.assign(text, length);
  return accept();
}

bool OBS_Restore_Job_Options_Parser::handle_level3_string(const char* text, unsigned length) {
  if (!text || !top().obj)
    return true;
  if (length > 0 && text[0] == '/') {
    ++text;
    --length;
  }
  if (length > 0 && text[length - 1] == '/')
    --length;
  if (length == 0)
    return true;
  switch (top().key) {
  case KEY_TARGET:
    mapper_.bucket.assign(text, length);
    break;
  case KEY_PREFIX:
    mapper_.prefix.assign(text, length);
    break;
  case KEY_SOURCE:
    cur_mapper_.assign(text, length);
    break;
  default:
    break;
  }
  return true;
}

bool OBS_Restore_Job_Options_Parser::handle_end_map_i() {
  if (!pop())
    return false;
  if (level() != 2 || !record() || cur_mapper_.empty())
    return true;
  return without_throwing([this] { return store_mapper(); });
}

bool OBS_Restore_Job_Options_Parser::store_mapper() {
  // Many buckets may end up in the target of "*": only their names keep them apart there.
  mapper_.add_bucket_prefix = cur_mapper_ == "*";
  if (mapper_.add_bucket_prefix)
    record()->mapper_.default_mapper() = mapper_;
  else
    record()->mapper_.mappers()[cur_mapper_] = mapper_;
  return true;
}

OBS_DEFINE_PARSER_CREATOR_FACTORY(OBS_Restore_Job_Options_Parser)
