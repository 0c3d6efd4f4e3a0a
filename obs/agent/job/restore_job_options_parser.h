#pragma once

#include "obs/agent/job/definition_parser_t.h"
#include "obs/agent/job/restore_job_options.h"

/// Reads the options of a restore job. Every option may be missing, and a text where another kind is wanted is
/// passed over.
///
/// An item of "bucket_maps" becomes the mapping of its "source" bucket when it ends, the default mapping where that is
/// "*"; a later one of the same source replaces an earlier one. Items without "source" are dropped.
class OBS_Restore_Job_Options_Parser : public Definition_Parser_T<Job_Options, OBS_Restore_Job_Options> {
public:
  OBS_Restore_Job_Options_Parser() = default;
  ~OBS_Restore_Job_Options_Parser() override;

  bool handle_boolean_i(bool value) override;
  bool handle_number_i(const char* text, unsigned length) override;
  bool handle_string_i(const char* text, unsigned length) override;
  bool handle_start_map_i() override;
  bool handle_map_key_i(const char* text, unsigned length) override;
  bool handle_end_map_i() override;

private:
  bool handle_level1_string(const char* text, unsigned length);
  bool handle_level3_string(const char* text, unsigned length);
  bool store_mapper();

  static const JSON_Key key_table_1[];
  static const JSON_Key key_table_3[];

  std::string cur_mapper_;          ///< "source" of the item being read
  Buckets_Mapper::mapper_t mapper_; ///< its "target" and "prefix"
};
