#include "obs/agent/job/backup_job_source.h"

#include "sdk/json/yajl_writer.h"

OBS_Backup_Job_Source::~OBS_Backup_Job_Source() = default;

int OBS_Backup_Job_Source::generate(yajl_gen_t* gen) const {
  const auto write_unless_empty = [gen](const char* key, const std::string& text) {
    if (!text.empty()) {
      yajl_write(gen, key);
      yajl_write(gen, text);
    }
  };
  yajl_gen_map_open(gen);
  yajl_write(gen, "id");
  yajl_write(gen, id());
  write_unless_empty("name", name());
  write_unless_empty("minor_resource_id", minor_resource_id_);
  write_unless_empty("minor_resource_name", minor_resource_name_);
  yajl_gen_map_close(gen);
  return 0;
}
