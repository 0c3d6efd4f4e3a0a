#include "obs/agent/job/backup_job_source.h"

#include "sdk/json/yajl_writer.h"

#include <gtest/gtest.h>

namespace {

TEST(backup_job_source, id_is_always_written) {
  const OBS_Backup_Job_Source source;
  EXPECT_EQ(R"({"id":""})", yajl_generate(source));
}

TEST(backup_job_source, members_are_written_in_their_order) {
  OBS_Backup_Job_Source source;
  source.minor_resource_name_ = "n";
  source.minor_resource_id_ = "r";
  source.name("s");
  source.id("x");
  EXPECT_EQ(R"({"id":"x","name":"s","minor_resource_id":"r","minor_resource_name":"n"})", yajl_generate(source));
}

} // namespace
