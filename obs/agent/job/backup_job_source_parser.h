#pragma once

#include "obs/agent/job/backup_job_source.h"
#include "obs/agent/job/definition_parser_t.h"

/// Reads the source of a backup job: strings, all of them directly in the source object. "id", "minor_resource_id"
/// and "minor_resource_name" are required.
class OBS_Backup_Job_Source_Parser : public Definition_Parser_T<Job_Source, OBS_Backup_Job_Source> {
public:
  OBS_Backup_Job_Source_Parser() = default;
  ~OBS_Backup_Job_Source_Parser() override;

  bool handle_string_i(const char* text, unsigned length) override;
  bool handle_map_key_i(const char* text, unsigned length) override;
  bool handle_end_map_i() override;

private:
  bool handle_level1_string(const char* text, unsigned length);

  static const JSON_Key key_table_1[];
};
