#include "obs/agent/job/backup_job_options.h"

#include "sdk/json/yajl_writer.h"

OBS_Backup_Job_Options::~OBS_Backup_Job_Options() = default;

namespace {

void write_list(yajl_gen_t* gen, const char* key, const String_Array& list) {
  if (list.empty())
    return;
  yajl_write(gen, key);
  yajl_gen_array_open(gen);
  for (const std::string& text : list)
    yajl_write(gen, text);
  yajl_gen_array_close(gen);
}

void write_number(yajl_gen_t* gen, const char* key, unsigned long long value) {
  yajl_write(gen, key);
  const std::string text = std::to_string(value);
  yajl_gen_number(gen, text.data(), text.size());
}

void write_flag(yajl_gen_t* gen, const char* key, bool value) {
  if (!value)
    return;
  yajl_write(gen, key);
  yajl_gen_bool(gen, 1);
}

} // namespace

int OBS_Backup_Job_Options::generate(yajl_gen_t* gen) {
  yajl_gen_map_open(gen);
  if (const char* const name = compression_value_to_name(compression_)) {
    yajl_write(gen, "compression");
    yajl_write(gen, name);
  }
  yajl_write(gen, "compression_level");
  yajl_gen_integer(gen, compression_level_);
  if (channels_ != 0)
    write_number(gen, "channels", channels_);
  write_list(gen, "exclusion", exclusion_);
  write_list(gen, "inclusion", inclusion_);
  if (!cache_dir_.empty()) {
    yajl_write(gen, "cache_dir");
    yajl_write(gen, cache_dir_);
  }
  if (scan_file_threads_ != 0)
    write_number(gen, "scan_file_threads", scan_file_threads_);
  write_number(gen, "list_cache_limits", list_cache_limits_);
  write_flag(gen, "tags", tags_);
  write_flag(gen, "acl", acl_);
  write_flag(gen, "refresh_tags", refresh_tags_);
  yajl_gen_map_close(gen);
  return 0;
}
