#pragma once

#include "obs/agent/job/backup_job_options.h"
#include "obs/agent/job/definition_parser_t.h"

/// Reads the options of a backup job. Every option may be missing.
class OBS_Backup_Job_Options_Parser : public Definition_Parser_T<Job_Options, OBS_Backup_Job_Options> {
public:
  OBS_Backup_Job_Options_Parser() = default;
  ~OBS_Backup_Job_Options_Parser() override;

  bool handle_boolean_i(bool value) override;
  bool handle_number_i(const char* text, unsigned length) override;
  bool handle_string_i(const char* text, unsigned length) override;
  bool handle_map_key_i(const char* text, unsigned length) override;

private:
  bool handle_level1_string(const char* text, unsigned length);
  bool handle_level2_string(const char* text, unsigned length);

  static const JSON_Key key_table_1[];
};
