#include "obs/agent/job/restore_job_options.h"

#include "sdk/json/yajl_writer.h"

#include <gtest/gtest.h>

namespace {

TEST(restore_job_options, policy_names_are_exact_and_everything_else_overwrites) {
  const auto policy = [](const std::string& text) {
    return OBS_Restore_Job_Options::name_to_existing(text.data(), static_cast<int>(text.size()));
  };
  EXPECT_EQ(OBS_PCT_EXISTING_OVERWRITE, policy("overwrite"));
  EXPECT_EQ(OBS_PCT_EXISTING_SKIP, policy("skip"));
  EXPECT_EQ(OBS_PCT_EXISTING_NEWEST, policy("newest"));
  for (const char* text : {"", "Skip", "SKIP", "skip ", "ski", "skipped", "none"})
    EXPECT_EQ(OBS_PCT_EXISTING_OVERWRITE, policy(text)) << text;
  EXPECT_EQ(OBS_PCT_EXISTING_OVERWRITE, OBS_Restore_Job_Options::name_to_existing(nullptr, 4));
  EXPECT_EQ(OBS_PCT_EXISTING_SKIP, OBS_Restore_Job_Options::name_to_existing("skipped", 4));
}

TEST(restore_job_options, default_record_writes_what_is_always_written) {
  OBS_Restore_Job_Options options;
  EXPECT_EQ(R"({"standalone":false,"bucket_maps":[]})", yajl_generate(options));
}

TEST(restore_job_options, members_are_written_in_their_order_and_maps_by_name) {
  OBS_Restore_Job_Options options;
  options.channels_ = 4294967295u;
  options.existing_ = OBS_PCT_EXISTING_NEWEST;
  options.standalone_ = true;
  options.cache_dir_ = "/c";
  options.mapper_.default_mapper() = {"all", "p/q", true};
  options.mapper_.mappers()["b"] = {"x", "", false};
  options.mapper_.mappers()["a"] = {"y", "z", false};
  options.mapper_.mappers()[""] = {"never", "", false};
  EXPECT_EQ(R"({"channels":4294967295,"existing":"newest","standalone":true,"bucket_maps":[)"
            R"({"source":"*","target":"all","prefix":"p/q"},{"source":"a","target":"y","prefix":"z"},)"
            R"({"source":"b","target":"x","prefix":""}],"cache_dir":"/c"})",
            yajl_generate(options));
}

TEST(restore_job_options, default_mapping_without_a_target_is_left_out) {
  OBS_Restore_Job_Options options;
  options.mapper_.default_mapper() = {"", "p", true};
  EXPECT_EQ(R"({"standalone":false,"bucket_maps":[]})", yajl_generate(options));
}

} // namespace
