#include "obs/agent/job/backup_job_source_parser.h"

#include "obs/agent/job/definition_parser_testing.h"

using namespace definition_testing;

namespace {

typedef Parsed<OBS_Backup_Job_Source_Parser, OBS_Backup_Job_Source> Source;

void expect_error(int error, const std::string& text) {
  module_testing::Log_Sink log;
  Source parsed(text);
  EXPECT_FALSE(parsed.accepted) << text;
  EXPECT_EQ(error, parsed.parser.err()) << text;
}

TEST(backup_job_source_parser, source_without_a_name_is_whole) {
  const Source parsed(R"({"id":"x","minor_resource_id":"r","minor_resource_name":"n"})");
  ASSERT_TRUE(parsed.accepted) << parsed.reason;
  EXPECT_EQ("x", parsed.record().id());
  EXPECT_EQ("", parsed.record().name());
  EXPECT_EQ("r", parsed.record().minor_resource_id_);
  EXPECT_EQ("n", parsed.record().minor_resource_name_);
}

TEST(backup_job_source_parser, name_is_stored) {
  const Source parsed(R"({"name":"s","id":"x","minor_resource_id":"r","minor_resource_name":"n"})");
  ASSERT_TRUE(parsed.accepted);
  EXPECT_EQ("s", parsed.record().name());
}

TEST(backup_job_source_parser, each_missing_key_is_named_in_order_and_gives_error_7) {
  module_testing::Log_Sink log;
  const Source parsed(R"({"minor_resource_id":"r"})");
  EXPECT_FALSE(parsed.accepted);
  EXPECT_EQ(7, parsed.parser.err());
  const std::vector<module_testing::Log_Line> lines = log.lines();
  ASSERT_EQ(2u, lines.size());
  EXPECT_EQ(LM_ERROR, lines[0].priority);
  EXPECT_EQ("Failed to parse job definition source, lack of 'id'.\n", lines[0].text);
  EXPECT_EQ(LM_ERROR, lines[1].priority);
  EXPECT_EQ("Failed to parse job definition source, lack of 'minor_resource_name'.\n", lines[1].text);
  EXPECT_EQ("r", parsed.record().minor_resource_id_);
}

TEST(backup_job_source_parser, empty_object_lacks_all_three) {
  module_testing::Log_Sink log;
  const Source parsed("{}");
  EXPECT_EQ(7, parsed.parser.err());
  ASSERT_EQ(3u, log.lines().size());
  EXPECT_EQ("Failed to parse job definition source, lack of 'minor_resource_id'.\n", log.lines()[1].text);
}

TEST(backup_job_source_parser, container_stays_open_when_a_key_is_missing) {
  module_testing::Log_Sink log;
  OBS_Backup_Job_Source_Parser parser;
  parser.handle_start_map_i();
  EXPECT_FALSE(parser.handle_end_map_i());
  EXPECT_FALSE(parser.handle_end_map_i());
  EXPECT_EQ(7, parser.err());
  // Still open, it takes what it lacks.
  for (const char* name : {"id", "minor_resource_id", "minor_resource_name"}) {
    EXPECT_TRUE(key(parser, name));
    EXPECT_TRUE(string(parser, name));
  }
  EXPECT_TRUE(parser.handle_end_map_i());
  EXPECT_EQ("id", parser.result()->id());
}

TEST(backup_job_source_parser, empty_text_counts_as_given) {
  EXPECT_TRUE(Source(R"({"id":"","minor_resource_id":"","minor_resource_name":""})").accepted);
}

TEST(backup_job_source_parser, last_of_two_values_stays) {
  EXPECT_EQ("b", Source(R"({"id":"a","id":"b","minor_resource_id":"r","minor_resource_name":"n"})").record().id());
}

TEST(backup_job_source_parser, text_below_the_source_object_is_error_9) {
  expect_error(9, R"({"unknown":{"a":"b"}})");
  expect_error(9, R"({"unknown":["b"]})");
  expect_error(9, R"({"id":["x"]})");
  expect_error(9, R"("x")");
}

TEST(backup_job_source_parser, unknown_keys_are_skipped) {
  const Source parsed(
      R"({"x":"y","n":{"id":5,"m":[]},"id":"x","minor_resource_id":"r","minor_resource_name":"n","ID":"no"})");
  ASSERT_TRUE(parsed.accepted) << parsed.reason;
  EXPECT_EQ("x", parsed.record().id());
}

TEST(backup_job_source_parser, value_of_another_kind_counts_as_lacking) {
  module_testing::Log_Sink log;
  const Source parsed(R"({"id":5,"minor_resource_id":true,"minor_resource_name":null})");
  EXPECT_EQ(7, parsed.parser.err());
  EXPECT_EQ(3u, log.count(LM_ERROR, "Failed to parse job definition source, lack of '"));
}

TEST(backup_job_source_parser, key_or_end_without_an_open_container_is_error_3) {
  expect_error_3_without_an_open_container<OBS_Backup_Job_Source_Parser>();
}

TEST(backup_job_source_parser, text_in_a_top_level_array_is_ignored) {
  OBS_Backup_Job_Source_Parser parser;
  parser.handle_start_array_i();
  EXPECT_TRUE(string(parser, "x"));
  EXPECT_TRUE(parser.handle_end_array_i());
  EXPECT_EQ(0, parser.err());
}

} // namespace
