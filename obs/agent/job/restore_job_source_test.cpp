#include "obs/agent/job/restore_job_source.h"

#include "sdk/json/yajl_writer.h"
#include "testing/module/log_sink.h"

#include <gtest/gtest.h>

namespace {

using json_spirit::Object;

TEST(restore_job_source, default_record_writes_id_and_seq) {
  const OBS_Restore_Job_Source source;
  EXPECT_EQ(R"({"id":"","seq":0})", yajl_generate(source));
}

TEST(restore_job_source, entry_with_both_keys_writes_its_folder_only) {
  OBS_Restore_Job_Source source;
  source.entries_.push_back(Object{{"dir", "/b/d/"}, {"file", "/b/k"}});
  EXPECT_EQ(R"({"id":"","seq":0,"entries":[{"dir":"/b/d/"}]})", yajl_generate(source));
}

TEST(restore_job_source, entry_with_an_empty_text_is_written_empty) {
  OBS_Restore_Job_Source source;
  source.entries_.push_back(Object{{"dir", ""}});
  source.entries_.push_back(Object{{"file", ""}});
  source.entries_.push_back(Object{{"dir", ""}, {"file", "/b/k"}});
  EXPECT_EQ(R"({"id":"","seq":0,"entries":[{},{},{}]})", yajl_generate(source));
}

TEST(restore_job_source, bad_entries_are_logged_and_left_out) {
  module_testing::Log_Sink log;
  OBS_Restore_Job_Source source;
  source.entries_.push_back(Object{{"size", 1}});
  source.entries_.push_back("text");
  source.entries_.push_back(Object{{"dir", 5}});
  source.entries_.push_back(Object{{"file", "/b/k"}});
  EXPECT_EQ(R"({"id":"","seq":0,"entries":[{"file":"/b/k"}]})", yajl_generate(source));
  ASSERT_EQ(3u, log.lines().size());
  EXPECT_EQ(LM_ERROR, log.lines()[0].priority);
  EXPECT_EQ("Invalid object on entries_: neither 'dir' nor 'file' key\n", log.lines()[0].text);
  EXPECT_EQ(2u, log.count(LM_ERROR, "Invalid item on entries_, error: "));
}

} // namespace
