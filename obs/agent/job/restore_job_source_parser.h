#pragma once

#include "obs/agent/job/definition_parser_t.h"
#include "obs/agent/job/restore_job_source.h"

/// Reads the source of a restore job. "id", "backup_host_id", "backup_minor_resource_id", "seq" and "pool_uuid" are
/// required; each "dir" and "file" of an item of "entries" becomes an entry of its own.
class OBS_Restore_Job_Source_Parser : public Definition_Parser_T<Job_Source, OBS_Restore_Job_Source> {
public:
  OBS_Restore_Job_Source_Parser() = default;
  ~OBS_Restore_Job_Source_Parser() override;

  bool handle_number_i(const char* text, unsigned length) override;
  bool handle_string_i(const char* text, unsigned length) override;
  bool handle_map_key_i(const char* text, unsigned length) override;
  bool handle_end_map_i() override;

private:
  bool handle_level1_string(const char* text, unsigned length);
  bool handle_level3_string(const char* text, unsigned length);

  static const JSON_Key key_table[];
  static const JSON_Key entries_key_table[];
};
