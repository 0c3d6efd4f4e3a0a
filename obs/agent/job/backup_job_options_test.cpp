#include "obs/agent/job/backup_job_options.h"

#include "sdk/json/yajl_writer.h"

#include <gtest/gtest.h>

namespace {

TEST(backup_job_options, default_record_writes_what_is_always_written) {
  OBS_Backup_Job_Options options;
  EXPECT_EQ(R"({"compression":"none","compression_level":1,"list_cache_limits":0})", yajl_generate(options));
}

TEST(backup_job_options, options_are_written_in_their_order) {
  OBS_Backup_Job_Options options;
  options.compression_ = COMPR_LZOP;
  options.compression_level_ = -2;
  options.channels_ = 4;
  options.exclusion_ = {"b", "a"};
  options.inclusion_ = {"\"q\"\n"};
  options.cache_dir_ = "/c";
  options.scan_file_threads_ = 8;
  options.list_cache_limits_ = 18446744073709551615ull;
  EXPECT_EQ(R"({"compression":"lzop","compression_level":-2,"channels":4,"exclusion":["b","a"],)"
            R"("inclusion":["\"q\"\n"],"cache_dir":"/c","scan_file_threads":8,)"
            R"("list_cache_limits":18446744073709551615})",
            yajl_generate(options));
}

TEST(backup_job_options, one_channel_is_written) {
  OBS_Backup_Job_Options options;
  options.channels_ = 1;
  options.scan_file_threads_ = 1;
  EXPECT_EQ(R"({"compression":"none","compression_level":1,"channels":1,"scan_file_threads":1,"list_cache_limits":0})",
            yajl_generate(options));
}

TEST(backup_job_options, compression_without_a_name_is_left_out) {
  OBS_Backup_Job_Options options;
  options.compression_ = COMPR_MAX;
  EXPECT_EQ(R"({"compression_level":1,"list_cache_limits":0})", yajl_generate(options));
}

} // namespace
