#include "obs/agent/job/restore_job_source_parser.h"

#include "obs/agent/job/definition_parser_testing.h"

using namespace definition_testing;

namespace {

typedef Parsed<OBS_Restore_Job_Source_Parser, OBS_Restore_Job_Source> Source;

const char* const REQUIRED = R"("id":"i","backup_host_id":"h","backup_minor_resource_id":"r","seq":7,"pool_uuid":"p")";

/// The source with the required keys and `more`.
std::string with(const std::string& more) {
  return std::string("{") + REQUIRED + "," + more + "}";
}

void expect_error_9(const std::string& text) {
  Source parsed(text);
  EXPECT_FALSE(parsed.accepted) << text;
  EXPECT_EQ(9, parsed.parser.err()) << text;
}

TEST(restore_job_source_parser, every_key_reaches_its_field) {
  const Source parsed(with(R"("name":"n","catalog_id":"c","entries":[{"dir":"/b/d/"},{"file":"/b/k"}])"));
  ASSERT_TRUE(parsed.accepted) << parsed.reason;
  EXPECT_EQ("i", parsed.record().id());
  EXPECT_EQ("n", parsed.record().name());
  EXPECT_EQ("c", parsed.record().catalog_id_);
  EXPECT_EQ("h", parsed.record().backup_host_id_);
  EXPECT_EQ("r", parsed.record().backup_minor_resource_id_);
  EXPECT_EQ("p", parsed.record().pool_uuid_);
  EXPECT_EQ(7, parsed.record().seq_);
  ASSERT_EQ(2u, parsed.record().entries_.size());
  EXPECT_EQ(R"({"dir":"/b/d/"})", json_spirit::write(parsed.record().entries_.front()));
  EXPECT_EQ(R"({"file":"/b/k"})", json_spirit::write(parsed.record().entries_.back()));
}

TEST(restore_job_source_parser, each_missing_key_is_named_in_order_and_gives_error_7) {
  module_testing::Log_Sink log;
  const Source parsed(R"({"id":"i","backup_host_id":"h","backup_minor_resource_id":"r"})");
  EXPECT_FALSE(parsed.accepted);
  EXPECT_EQ(7, parsed.parser.err());
  ASSERT_EQ(2u, log.lines().size());
  EXPECT_EQ("Failed to parse job definition source, lack of 'seq'.\n", log.lines()[0].text);
  EXPECT_EQ("Failed to parse job definition source, lack of 'pool_uuid'.\n", log.lines()[1].text);
  EXPECT_EQ(LM_ERROR, log.lines()[0].priority);
}

TEST(restore_job_source_parser, container_stays_open_when_a_key_is_missing) {
  module_testing::Log_Sink log;
  OBS_Restore_Job_Source_Parser parser;
  parser.handle_start_map_i();
  EXPECT_FALSE(parser.handle_end_map_i());
  EXPECT_EQ(7, parser.err());
  // Still open, it takes what it lacks.
  for (const char* name : {"id", "backup_host_id", "backup_minor_resource_id", "pool_uuid"}) {
    EXPECT_TRUE(key(parser, name));
    EXPECT_TRUE(string(parser, name));
  }
  EXPECT_TRUE(key(parser, "seq"));
  EXPECT_TRUE(number(parser, "3"));
  EXPECT_TRUE(parser.handle_end_map_i());
  EXPECT_EQ("id", parser.result()->id());
}

TEST(restore_job_source_parser, empty_object_lacks_all_required_keys_and_no_other) {
  module_testing::Log_Sink log;
  EXPECT_EQ(7, Source("{}").parser.err());
  std::string names;
  for (const module_testing::Log_Line& line : log.lines())
    names += line.text.substr(line.text.find('\''));
  EXPECT_EQ("'id'.\n'backup_host_id'.\n'backup_minor_resource_id'.\n'seq'.\n'pool_uuid'.\n", names);
}

TEST(restore_job_source_parser, number_counts_as_given_though_only_seq_is_stored) {
  const Source parsed(R"({"id":1,"backup_host_id":2,"backup_minor_resource_id":3,"seq":-4,"pool_uuid":5})");
  ASSERT_TRUE(parsed.accepted) << parsed.reason;
  EXPECT_EQ("", parsed.record().id());
  EXPECT_EQ("", parsed.record().pool_uuid_);
  EXPECT_EQ(-4, parsed.record().seq_);
}

TEST(restore_job_source_parser, seq_is_a_signed_64_bit_number) {
  EXPECT_EQ(9223372036854775807ll, Source(with(R"("seq":9223372036854775808)")).record().seq_);
  EXPECT_EQ(5000000000ll, Source(with(R"("seq":5000000000)")).record().seq_);
  EXPECT_EQ(-5000000000ll, Source(with(R"("seq":-5000000000)")).record().seq_);
  EXPECT_EQ(-9223372036854775807ll - 1, Source(with(R"("seq":-9223372036854775808)")).record().seq_);
  EXPECT_EQ(9223372036854775807ll, Source(with(R"("seq":-9223372036854775809)")).record().seq_);
  EXPECT_EQ(9223372036854775807ll, Source(with(R"("seq":99999999999999999999)")).record().seq_);
}

TEST(restore_job_source_parser, text_for_seq_entries_or_definition_is_error_9) {
  expect_error_9(with(R"("seq":"7")"));
  expect_error_9(with(R"("entries":"x")"));
  expect_error_9(with(R"("backup_definition_id":"d")"));
}

TEST(restore_job_source_parser, number_for_the_definition_is_ignored) {
  EXPECT_TRUE(Source(with(R"("backup_definition_id":12)")).accepted);
}

TEST(restore_job_source_parser, text_or_number_at_another_level_is_error_9) {
  expect_error_9(with(R"("entries":["x"])"));
  expect_error_9(with(R"("entries":[1])"));
  expect_error_9(with(R"("entries":[{"file":1}])"));
  expect_error_9(with(R"("entries":[{"file":["x"]}])"));
  expect_error_9(with(R"("unknown":["x"])"));
  expect_error_9("1");
  expect_error_9(R"("x")");
}

TEST(restore_job_source_parser, item_with_both_keys_gives_two_entries_in_their_order) {
  const Source parsed(with(R"("entries":[{"file":"f","dir":"d"}])"));
  ASSERT_TRUE(parsed.accepted);
  ASSERT_EQ(2u, parsed.record().entries_.size());
  EXPECT_EQ(R"({"file":"f"})", json_spirit::write(parsed.record().entries_.front()));
  EXPECT_EQ(R"({"dir":"d"})", json_spirit::write(parsed.record().entries_.back()));
}

TEST(restore_job_source_parser, unknown_keys_are_skipped) {
  const Source parsed(with(R"("x":"y","z":{},"b":true,"entries":[{"size":"1","dir":"d"},{}])"));
  ASSERT_TRUE(parsed.accepted) << parsed.reason;
  EXPECT_EQ(1u, parsed.record().entries_.size());
}

TEST(restore_job_source_parser, item_of_an_unknown_key_is_no_entry) {
  const Source parsed(with(R"("later":[{"dir":"d"}])"));
  ASSERT_TRUE(parsed.accepted);
  EXPECT_TRUE(parsed.record().entries_.empty());
}

TEST(restore_job_source_parser, key_or_end_without_an_open_container_is_error_3) {
  expect_error_3_without_an_open_container<OBS_Restore_Job_Source_Parser>();
}

TEST(restore_job_source_parser, what_was_written_is_read_back) {
  const std::string text =
      R"({"id":"i","name":"n","catalog_id":"c","backup_minor_resource_id":"r",)"
      R"("backup_host_id":"h","pool_uuid":"p","seq":-9,"entries":[{"dir":"/b/"},{"file":"/b/k"}]})";
  const Source parsed(text);
  ASSERT_TRUE(parsed.accepted) << parsed.reason;
  EXPECT_EQ(text, yajl_generate(parsed.record()));
}

} // namespace
