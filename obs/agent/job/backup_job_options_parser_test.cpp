#include "obs/agent/job/backup_job_options_parser.h"

#include "obs/agent/job/definition_parser_testing.h"

using namespace definition_testing;

namespace {

typedef Parsed<OBS_Backup_Job_Options_Parser, OBS_Backup_Job_Options> Backup_Options;

void expect_error_9(const std::string& text) {
  Backup_Options parsed(text);
  EXPECT_FALSE(parsed.accepted) << text;
  EXPECT_EQ(9, parsed.parser.err()) << text;
}

TEST(backup_job_options_parser, empty_object_keeps_all_defaults) {
  const Backup_Options parsed("{}");
  ASSERT_TRUE(parsed.accepted);
  EXPECT_EQ(0, parsed.parser.err());
  const OBS_Backup_Job_Options& options = parsed.record();
  EXPECT_EQ(COMPR_NONE, options.compression_);
  EXPECT_EQ(1, options.compression_level_);
  EXPECT_EQ(0u, options.channels_);
  EXPECT_TRUE(options.exclusion_.empty());
  EXPECT_TRUE(options.inclusion_.empty());
  EXPECT_EQ("", options.cache_dir_);
  EXPECT_EQ(0u, options.scan_file_threads_);
  EXPECT_EQ(0u, options.list_cache_limits_);
}

TEST(backup_job_options_parser, every_option_reaches_its_field) {
  const Backup_Options parsed(R"({"compression":"zstd","compression_level":7,"channels":4,"exclusion":["*.tmp","/b/x/"],
    "inclusion":["*.doc"],"cache_dir":"/var/cache","scan_file_threads":16,"list_cache_limits":131072})");
  ASSERT_TRUE(parsed.accepted) << parsed.reason;
  const OBS_Backup_Job_Options& options = parsed.record();
  EXPECT_EQ(COMPR_ZSTD, options.compression_);
  EXPECT_EQ(7, options.compression_level_);
  EXPECT_EQ(4u, options.channels_);
  EXPECT_EQ((String_Array{"*.tmp", "/b/x/"}), options.exclusion_);
  EXPECT_EQ((String_Array{"*.doc"}), options.inclusion_);
  EXPECT_EQ("/var/cache", options.cache_dir_);
  EXPECT_EQ(16u, options.scan_file_threads_);
  EXPECT_EQ(131072u, options.list_cache_limits_);
}

TEST(backup_job_options_parser, level_as_text_and_as_number_are_the_same) {
  EXPECT_EQ(5, Backup_Options(R"({"compression_level":"5"})").record().compression_level_);
  EXPECT_EQ(5, Backup_Options(R"({"compression_level":5})").record().compression_level_);
  EXPECT_EQ(-3, Backup_Options(R"({"compression_level":-3})").record().compression_level_);
  EXPECT_EQ(0, Backup_Options(R"({"compression_level":"fast"})").record().compression_level_);
  EXPECT_EQ(9, Backup_Options(R"({"compression_level":"9 or so"})").record().compression_level_);
}

TEST(backup_job_options_parser, level_that_does_not_fit_is_the_largest_signed_one) {
  EXPECT_EQ(2147483647, Backup_Options(R"({"compression_level":4294967295})").record().compression_level_);
  EXPECT_EQ(2147483647, Backup_Options(R"({"compression_level":-4294967295})").record().compression_level_);
  EXPECT_EQ(2147483647, Backup_Options(R"({"compression_level":"4294967295"})").record().compression_level_);
}

TEST(backup_job_options_parser, key_with_more_bytes_than_a_known_one_is_unknown) {
  for (const char* text : {R"({"channelsx":4})", R"({"channels\u0000":4})", R"({"channel":4})"}) {
    const Backup_Options parsed(text);
    EXPECT_EQ(0u, parsed.record().channels_) << text;
  }
}

TEST(backup_job_options_parser, unknown_compression_is_none) {
  EXPECT_EQ(COMPR_NONE, Backup_Options(R"({"compression":"rar"})").record().compression_);
  EXPECT_EQ(COMPR_AUTO, Backup_Options(R"({"compression":"auto"})").record().compression_);
  EXPECT_EQ(COMPR_LZOP, Backup_Options(R"({"compression":"lzop"})").record().compression_);
}

TEST(backup_job_options_parser, rules_keep_their_order_and_duplicates) {
  const Backup_Options parsed(R"({"exclusion":["b","a","a"]})");
  ASSERT_TRUE(parsed.accepted);
  EXPECT_EQ((String_Array{"b", "a", "a"}), parsed.record().exclusion_);
  EXPECT_EQ((String_Array{"d", "c", "c"}), Backup_Options(R"({"inclusion":["d","c","c"]})").record().inclusion_);
}

TEST(backup_job_options_parser, list_cache_limits_is_a_signed_32_bit_number_widened_with_its_sign) {
  EXPECT_EQ(2147483647ull, Backup_Options(R"({"list_cache_limits":4294967296})").record().list_cache_limits_);
  EXPECT_EQ(2147483647ull, Backup_Options(R"({"list_cache_limits":2147483648})").record().list_cache_limits_);
  EXPECT_EQ(18446744073709551615ull, Backup_Options(R"({"list_cache_limits":-1})").record().list_cache_limits_);
  EXPECT_EQ(18446744073709551614ull, Backup_Options(R"({"list_cache_limits":-2})").record().list_cache_limits_);
  EXPECT_EQ(18446744071562067968ull,
            Backup_Options(R"({"list_cache_limits":-2147483648})").record().list_cache_limits_);
  EXPECT_EQ(2147483647ull, Backup_Options(R"({"list_cache_limits":-2147483649})").record().list_cache_limits_);
}

TEST(backup_job_options_parser, channels_and_threads_are_unsigned_32_bit_numbers) {
  const Backup_Options parsed(R"({"channels":4294967296,"scan_file_threads":18446744073709551616})");
  ASSERT_TRUE(parsed.accepted);
  EXPECT_EQ(4294967295u, parsed.record().channels_);
  EXPECT_EQ(4294967295u, parsed.record().scan_file_threads_);
  EXPECT_EQ(4294967295u, Backup_Options(R"({"channels":-1})").record().channels_);
  EXPECT_EQ(4294967294u, Backup_Options(R"({"channels":-2})").record().channels_);
  EXPECT_EQ(4294967294u, Backup_Options(R"({"scan_file_threads":-2})").record().scan_file_threads_);
  EXPECT_EQ(4294967295u, Backup_Options(R"({"channels":-4294967296})").record().channels_);
}

TEST(backup_job_options_parser, number_below_the_options_object_is_error_9) {
  expect_error_9(R"({"exclusion":[1]})");
  expect_error_9(R"({"inclusion":[1]})");
  expect_error_9(R"({"unknown":[1]})");
  expect_error_9(R"({"unknown":{"a":1}})");
  expect_error_9("1");
}

TEST(backup_job_options_parser, text_for_an_option_of_another_kind_is_error_9) {
  expect_error_9(R"({"channels":"4"})");
  expect_error_9(R"({"exclusion":"a"})");
  expect_error_9(R"({"inclusion":"a"})");
  expect_error_9(R"({"scan_file_threads":"4"})");
  expect_error_9(R"({"list_cache_limits":"4"})");
}

TEST(backup_job_options_parser, text_in_a_list_of_another_option_is_error_9) {
  expect_error_9(R"({"compression":["zstd"]})");
  expect_error_9(R"({"cache_dir":["/tmp"]})");
}

TEST(backup_job_options_parser, texts_of_an_object_belong_to_its_option) {
  const Backup_Options parsed(R"({"exclusion":{"x":"a","channels":"b"},"inclusion":{"y":"c"}})");
  ASSERT_TRUE(parsed.accepted) << parsed.reason;
  EXPECT_EQ((String_Array{"a", "b"}), parsed.record().exclusion_);
  EXPECT_EQ((String_Array{"c"}), parsed.record().inclusion_);
  expect_error_9(R"({"channels":{"x":"a"}})");
  expect_error_9(R"({"compression_level":{"exclusion":"a"}})");
}

TEST(backup_job_options_parser, text_for_tags_or_acl_is_skipped_as_for_an_unknown_key) {
  for (const char* name : {"unknown", "tags", "acl", "refresh_tags"}) {
    for (const char* value : {R"("x")", R"(["x"])", R"({"a":"b"})", "5", "null", R"(["x",true])"}) {
      const std::string option = "\"" + std::string(name) + "\":" + value;
      const Backup_Options parsed("{" + option + ",\"channels\":2}");
      EXPECT_TRUE(parsed.accepted) << option << ": " << parsed.reason;
      EXPECT_EQ(0, parsed.parser.err()) << option;
      EXPECT_FALSE(parsed.record().tags_ || parsed.record().acl_ || parsed.record().refresh_tags_) << option;
      EXPECT_EQ(2u, parsed.record().channels_) << option;
    }
    expect_error_9("{\"" + std::string(name) + "\":[1]}");
    expect_error_9("{\"" + std::string(name) + "\":[[\"x\"]]}");
  }
}

TEST(backup_job_options_parser, text_three_levels_deep_is_error_9) {
  expect_error_9(R"({"exclusion":[["a"]]})");
  expect_error_9(R"({"unknown":{"a":{"b":"c"}}})");
}

TEST(backup_job_options_parser, unknown_keys_are_skipped_with_what_is_in_them) {
  const Backup_Options parsed(
      R"({"later":"x","Channels":"x","a":["x","y"],"o":{"channels":"text","e":[],"n":null,"b":true},"channels":2})");
  ASSERT_TRUE(parsed.accepted) << parsed.reason;
  EXPECT_EQ(2u, parsed.record().channels_);
  EXPECT_TRUE(parsed.record().exclusion_.empty());
}

TEST(backup_job_options_parser, number_for_an_option_of_another_kind_is_ignored) {
  const Backup_Options parsed(R"({"compression":3,"cache_dir":5,"exclusion":7,"unknown":9})");
  ASSERT_TRUE(parsed.accepted);
  EXPECT_EQ(COMPR_NONE, parsed.record().compression_);
  EXPECT_EQ("", parsed.record().cache_dir_);
}

TEST(backup_job_options_parser, booleans_and_nulls_are_not_stored) {
  const Backup_Options parsed(R"({"channels":true,"compression_level":null,"exclusion":[true,null]})");
  ASSERT_TRUE(parsed.accepted);
  EXPECT_EQ(0u, parsed.record().channels_);
  EXPECT_EQ(1, parsed.record().compression_level_);
  EXPECT_TRUE(parsed.record().exclusion_.empty());
}

TEST(backup_job_options_parser, last_of_two_values_stays) {
  EXPECT_EQ(3u, Backup_Options(R"({"channels":9,"channels":3})").record().channels_);
}

TEST(backup_job_options_parser, what_was_stored_before_a_refusal_stays) {
  const Backup_Options parsed(R"({"channels":6,"exclusion":["a",1],"cache_dir":"/never"})");
  EXPECT_FALSE(parsed.accepted);
  EXPECT_EQ(6u, parsed.record().channels_);
  EXPECT_EQ((String_Array{"a"}), parsed.record().exclusion_);
  EXPECT_EQ("", parsed.record().cache_dir_);
}

TEST(backup_job_options_parser, key_or_end_without_an_open_container_is_error_3) {
  expect_error_3_without_an_open_container<OBS_Backup_Job_Options_Parser>();
}

TEST(backup_job_options_parser, values_in_a_top_level_array_are_ignored) {
  OBS_Backup_Job_Options_Parser parser;
  EXPECT_TRUE(parser.handle_start_array_i());
  EXPECT_TRUE(string(parser, "zstd"));
  EXPECT_TRUE(number(parser, "4"));
  EXPECT_TRUE(parser.handle_end_array_i());
}

TEST(backup_job_options_parser, key_matches_by_its_whole_length) {
  OBS_Backup_Job_Options_Parser parser;
  parser.handle_start_map_i();
  EXPECT_TRUE(parser.handle_map_key_i("channels_and_more", 8));
  EXPECT_TRUE(parser.handle_number_i("1234", 2));
  EXPECT_EQ(12u, static_cast<OBS_Backup_Job_Options&>(*parser.result()).channels_);
}

} // namespace
