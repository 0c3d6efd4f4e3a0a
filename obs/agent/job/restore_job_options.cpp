#include "obs/agent/job/restore_job_options.h"

#include "sdk/json/yajl_writer.h"

#include <cstring>

namespace {

struct Existing_Entry {
  const char* text;
  OBS_PATH_CONVERTER_TYPE value;
};

// The last entry is the policy of every text that is not listed.
const Existing_Entry existing_table[] = {
    {"overwrite", OBS_PCT_EXISTING_OVERWRITE},
    {"skip", OBS_PCT_EXISTING_SKIP},
    {"newest", OBS_PCT_EXISTING_NEWEST},
    {nullptr, OBS_PCT_EXISTING_OVERWRITE},
};

const char* existing_to_name(OBS_PATH_CONVERTER_TYPE value) {
  const Existing_Entry* entry = existing_table;
  while (entry->text && entry->value != value)
    ++entry;
  return entry->text;
}

} // namespace

OBS_Restore_Job_Options::~OBS_Restore_Job_Options() = default;

OBS_PATH_CONVERTER_TYPE OBS_Restore_Job_Options::name_to_existing(const char* text, int length) {
  if (!text || length <= 0)
    return OBS_PCT_EXISTING_OVERWRITE;
  const size_t size = static_cast<size_t>(length);
  const Existing_Entry* entry = existing_table;
  while (entry->text && (std::strlen(entry->text) != size || std::memcmp(entry->text, text, size) != 0))
    ++entry;
  return entry->value;
}

int OBS_Restore_Job_Options::generate(yajl_gen_t* gen) {
  yajl_gen_map_open(gen);
  if (channels_ != 0) {
    yajl_write(gen, "channels");
    yajl_gen_integer(gen, channels_);
  }
  if (const char* const name = existing_to_name(existing_)) {
    yajl_write(gen, "existing");
    yajl_write(gen, name);
  }
  yajl_write(gen, "standalone");
  yajl_gen_bool(gen, standalone_);

  yajl_write(gen, "bucket_maps");
  yajl_gen_array_open(gen);
  if (!mapper_.default_mapper().bucket.empty())
    generate_bucket_mapper(gen, "*", mapper_.default_mapper());
  for (const Buckets_Mapper::mappers_t::value_type& entry : mapper_.mappers())
    if (!entry.first.empty())
      generate_bucket_mapper(gen, entry.first, entry.second);
  yajl_gen_array_close(gen);

  if (!cache_dir_.empty()) {
    yajl_write(gen, "cache_dir");
    yajl_write(gen, cache_dir_);
  }
  if (no_acl_) {
    yajl_write(gen, "no_acl");
    yajl_gen_bool(gen, 1);
  }
  if (drop_tags_) {
    yajl_write(gen, "drop_tags");
    yajl_gen_bool(gen, 1);
  }
  if (!storage_class_.empty()) {
    yajl_write(gen, "storage_class");
    yajl_write(gen, storage_class_);
  }
  yajl_gen_map_close(gen);
  return 0;
}

void OBS_Restore_Job_Options::generate_bucket_mapper(yajl_gen_t* gen, const std::string& source,
                                                     const Buckets_Mapper::mapper_t& mapper) {
  yajl_gen_map_open(gen);
  yajl_write(gen, "source");
  yajl_write(gen, source);
  yajl_write(gen, "target");
  yajl_write(gen, mapper.bucket);
  yajl_write(gen, "prefix");
  yajl_write(gen, mapper.prefix);
  yajl_gen_map_close(gen);
}
