#include "obs/agent/job/restore_job_source.h"

#include "sdk/json/yajl_writer.h"

#include <ace/Log_Msg.h>

OBS_Restore_Job_Source::~OBS_Restore_Job_Source() = default;

namespace {

void generate_entry(yajl_gen_t* gen, const json_spirit::Value& entry) {
  try {
    const json_spirit::Object& object = entry.get_obj();
    const json_spirit::Value* const dir = json_spirit::find(object, "dir");
    const json_spirit::Value* const value = dir ? dir : json_spirit::find(object, "file");
    if (!value) {
      ACE_ERROR((LM_ERROR, ACE_TEXT("Invalid object on entries_: neither 'dir' nor 'file' key\n")));
      return;
    }
    const std::string& text = value->get_str();
    yajl_gen_map_open(gen);
    if (!text.empty()) {
      yajl_write(gen, dir ? "dir" : "file");
      yajl_write(gen, text);
    }
    yajl_gen_map_close(gen);
  } catch (const json_spirit::Type_Error& error) {
    ACE_ERROR((LM_ERROR, ACE_TEXT("Invalid item on entries_, error: %s\n"), error.what()));
  }
}

} // namespace

int OBS_Restore_Job_Source::generate(yajl_gen_t* gen) const {
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
  write_unless_empty("catalog_id", catalog_id_);
  write_unless_empty("backup_minor_resource_id", backup_minor_resource_id_);
  write_unless_empty("backup_host_id", backup_host_id_);
  write_unless_empty("pool_uuid", pool_uuid_);
  yajl_write(gen, "seq");
  yajl_gen_integer(gen, seq_);
  if (!entries_.empty()) {
    yajl_write(gen, "entries");
    yajl_gen_array_open(gen);
    for (const json_spirit::Value& entry : entries_)
      generate_entry(gen, entry);
    yajl_gen_array_close(gen);
  }
  yajl_gen_map_close(gen);
  return 0;
}
