#include "obs/agent/job/restore_job_options_parser.h"

#include "obs/agent/job/definition_parser_testing.h"

using namespace definition_testing;

namespace {

typedef Parsed<OBS_Restore_Job_Options_Parser, OBS_Restore_Job_Options> Restore_Options;

void expect_error_9(const std::string& text) {
  Restore_Options parsed(text);
  EXPECT_FALSE(parsed.accepted) << text;
  EXPECT_EQ(9, parsed.parser.err()) << text;
}

/// The options with these items of "bucket_maps".
struct Maps : Restore_Options {
  explicit Maps(const std::string& items) : Restore_Options("{\"bucket_maps\":[" + items + "]}") {
    EXPECT_TRUE(accepted) << reason;
  }
};

TEST(restore_job_options_parser, empty_object_keeps_all_defaults) {
  Restore_Options parsed("{}");
  ASSERT_TRUE(parsed.accepted);
  EXPECT_EQ(0u, parsed.record().channels_);
  EXPECT_FALSE(parsed.record().standalone_);
  EXPECT_EQ(OBS_PCT_NONE, parsed.record().existing_);
  EXPECT_EQ("", parsed.record().cache_dir_);
  EXPECT_TRUE(parsed.record().mapper_.mappers().empty());
}

TEST(restore_job_options_parser, every_option_reaches_its_field) {
  Restore_Options parsed(R"({"channels":4,"standalone":true,"existing":"skip","cache_dir":"/c",
    "bucket_maps":[{"source":"a","target":"b","prefix":"p/q"},{"target":"all","source":"*"}]})");
  ASSERT_TRUE(parsed.accepted) << parsed.reason;
  OBS_Restore_Job_Options& options = parsed.record();
  EXPECT_EQ(4u, options.channels_);
  EXPECT_TRUE(options.standalone_);
  EXPECT_EQ(OBS_PCT_EXISTING_SKIP, options.existing_);
  EXPECT_EQ("/c", options.cache_dir_);
  ASSERT_EQ(1u, options.mapper_.mappers().size());
  EXPECT_EQ("b", options.mapper_.mapper("a").bucket);
  EXPECT_EQ("p/q", options.mapper_.mapper("a").prefix);
  EXPECT_FALSE(options.mapper_.mapper("a").add_bucket_prefix);
  EXPECT_EQ("all", options.mapper_.default_mapper().bucket);
  EXPECT_EQ("", options.mapper_.default_mapper().prefix);
  EXPECT_TRUE(options.mapper_.default_mapper().add_bucket_prefix);
}

TEST(restore_job_options_parser, unrecognised_policy_overwrites) {
  EXPECT_EQ(OBS_PCT_EXISTING_OVERWRITE, Restore_Options(R"({"existing":"SKIP"})").record().existing_);
  EXPECT_EQ(OBS_PCT_EXISTING_OVERWRITE, Restore_Options(R"({"existing":"rename"})").record().existing_);
  EXPECT_EQ(OBS_PCT_EXISTING_OVERWRITE, Restore_Options(R"({"existing":""})").record().existing_);
}

TEST(restore_job_options_parser, one_slash_is_cut_at_each_end_of_a_name) {
  Maps maps(R"({"source":"/a/","target":"/t/","prefix":"//p//"})");
  ASSERT_EQ(1u, maps.record().mapper_.mappers().count("a"));
  EXPECT_EQ("t", maps.record().mapper_.mapper("a").bucket);
  EXPECT_EQ("/p/", maps.record().mapper_.mapper("a").prefix);
}

TEST(restore_job_options_parser, item_without_a_source_is_dropped) {
  EXPECT_TRUE(Maps(R"({"target":"t"})").record().mapper_.mappers().empty());
  EXPECT_TRUE(Maps(R"({"source":"","target":"t"})").record().mapper_.mappers().empty());
  EXPECT_TRUE(Maps(R"({"source":"/","target":"t"})").record().mapper_.mappers().empty());
  EXPECT_TRUE(Maps(R"({"source":"//","target":"t"})").record().mapper_.mappers().empty());
  EXPECT_TRUE(Maps("{}").record().mapper_.mappers().empty());
}

TEST(restore_job_options_parser, each_item_starts_empty) {
  Maps maps(R"({"source":"a","target":"t","prefix":"p"},{"source":"b"},{"target":"u"})");
  EXPECT_EQ(2u, maps.record().mapper_.mappers().size());
  EXPECT_EQ("", maps.record().mapper_.mapper("b").bucket);
  EXPECT_EQ("", maps.record().mapper_.mapper("b").prefix);
}

TEST(restore_job_options_parser, later_item_of_a_source_replaces_the_earlier) {
  Maps maps(R"({"source":"a","target":"t","prefix":"p"},{"source":"/a","target":"u"},
               {"source":"*","target":"one"},{"source":"*","target":"two"})");
  EXPECT_EQ("u", maps.record().mapper_.mapper("a").bucket);
  EXPECT_EQ("", maps.record().mapper_.mapper("a").prefix);
  EXPECT_EQ("two", maps.record().mapper_.default_mapper().bucket);
}

TEST(restore_job_options_parser, explicit_item_behind_the_wildcard_gets_no_bucket_prefix) {
  Maps maps(R"({"source":"*","target":"all"},{"source":"a","target":"t"})");
  EXPECT_TRUE(maps.record().mapper_.default_mapper().add_bucket_prefix);
  EXPECT_FALSE(maps.record().mapper_.mapper("a").add_bucket_prefix);
}

TEST(restore_job_options_parser, wildcard_without_a_target_is_an_empty_default_that_is_not_written) {
  Maps maps(R"({"source":"*","prefix":"p"})");
  EXPECT_EQ("", maps.record().mapper_.default_mapper().bucket);
  const std::string written = yajl_generate(maps.record());
  EXPECT_EQ(R"({"standalone":false,"bucket_maps":[]})", written);
  Restore_Options again(written);
  ASSERT_TRUE(again.accepted) << again.reason;
  EXPECT_EQ("", again.record().mapper_.default_mapper().bucket);
  EXPECT_EQ("", again.record().mapper_.default_mapper().prefix);
  EXPECT_EQ("", again.record().mapper_.mapper("any").bucket);
  EXPECT_TRUE(again.record().mapper_.mappers().empty());
}

TEST(restore_job_options_parser, text_of_another_kind_is_accepted_and_not_stored) {
  Restore_Options parsed(R"({"channels":"4","standalone":"true","bucket_maps":"x"})");
  ASSERT_TRUE(parsed.accepted);
  EXPECT_EQ(0u, parsed.record().channels_);
  EXPECT_FALSE(parsed.record().standalone_);
}

TEST(restore_job_options_parser, value_of_another_kind_is_accepted_and_keeps_the_default) {
  for (const char* text : {R"({"channels":true,"bucket_maps":false,"existing":true,"cache_dir":false})",
                           R"({"bucket_maps":7,"standalone":1,"existing":2,"cache_dir":3})",
                           R"({"channels":null,"bucket_maps":null,"standalone":null,"existing":null,"cache_dir":null})",
                           R"({"no_acl":"true","drop_tags":1,"storage_class":true})",
                           R"({"no_acl":1,"drop_tags":"true","storage_class":5})",
                           R"({"no_acl":["x"],"drop_tags":{"a":"b"},"storage_class":[{"source":"a","target":"t"}]})"}) {
    Restore_Options parsed(text);
    EXPECT_TRUE(parsed.accepted) << text << ": " << parsed.reason;
    EXPECT_EQ(0, parsed.parser.err()) << text;
    const OBS_Restore_Job_Options& options = parsed.record();
    EXPECT_EQ(0u, options.channels_) << text;
    EXPECT_FALSE(options.standalone_) << text;
    EXPECT_EQ(OBS_PCT_NONE, options.existing_) << text;
    EXPECT_EQ("", options.cache_dir_) << text;
    EXPECT_FALSE(options.no_acl_ || options.drop_tags_) << text;
    EXPECT_EQ("", options.storage_class_) << text;
    EXPECT_EQ(R"({"standalone":false,"bucket_maps":[]})", yajl_generate(parsed.record())) << text;
  }
}

TEST(restore_job_options_parser, bare_text_in_the_maps_is_ignored) {
  EXPECT_TRUE(Maps(R"("x",{"source":"a","target":"t"})").record().mapper_.mappers().count("a"));
}

TEST(restore_job_options_parser, boolean_or_number_below_the_options_object_is_error_9) {
  expect_error_9(R"({"bucket_maps":[{"source":true}]})");
  expect_error_9(R"({"bucket_maps":[{"source":1}]})");
  expect_error_9(R"({"bucket_maps":[1]})");
  expect_error_9(R"({"bucket_maps":[true]})");
  expect_error_9(R"({"unknown":[true]})");
  expect_error_9("true");
  expect_error_9("1");
}

TEST(restore_job_options_parser, text_four_levels_deep_is_error_9) {
  expect_error_9(R"({"bucket_maps":[{"source":["a"]}]})");
  expect_error_9(R"("x")");
}

TEST(restore_job_options_parser, object_inside_an_item_leaves_the_mapping_alone) {
  for (const char* item : {R"({"source":"a","target":"t","later":{},"prefix":"p"})",
                           R"({"source":"a","later":{"source":{"target":{}}},"target":"t","prefix":"p"})",
                           R"({"source":"a","target":"t","prefix":"p","later":{"target":null}})"}) {
    Maps maps(item);
    ASSERT_EQ(1u, maps.record().mapper_.mappers().size()) << item;
    EXPECT_EQ("t", maps.record().mapper_.mapper("a").bucket) << item;
    EXPECT_EQ("p", maps.record().mapper_.mapper("a").prefix) << item;
  }
  expect_error_9(R"({"bucket_maps":[{"source":"a","later":{"target":"t"}}]})");
}

TEST(restore_job_options_parser, objects_by_name_are_mappings_as_well_as_in_an_array) {
  Restore_Options parsed(R"({"bucket_maps":{"one":{"source":"a","target":"t"},"two":{"source":"b","target":"u"}}})");
  ASSERT_TRUE(parsed.accepted) << parsed.reason;
  EXPECT_EQ(2u, parsed.record().mapper_.mappers().size());
  EXPECT_EQ("u", parsed.record().mapper_.mapper("b").bucket);
}

TEST(restore_job_options_parser, item_of_an_unknown_key_is_no_mapping) {
  Restore_Options parsed(R"({"later":[{"source":"a","target":"t"}],"bucket_maps":[{"source":"b","target":"u"}]})");
  ASSERT_TRUE(parsed.accepted);
  EXPECT_EQ(1u, parsed.record().mapper_.mappers().size());
  EXPECT_EQ(1u, parsed.record().mapper_.mappers().count("b"));
}

TEST(restore_job_options_parser, unknown_keys_are_skipped) {
  Restore_Options parsed(
      R"({"x":1,"y":"z","b":false,"n":null,"bucket_maps":[{"other":"q","source":"a","target":"t"}]})");
  ASSERT_TRUE(parsed.accepted) << parsed.reason;
  EXPECT_EQ("t", parsed.record().mapper_.mapper("a").bucket);
}

TEST(restore_job_options_parser, channels_are_an_unsigned_32_bit_number) {
  EXPECT_EQ(4294967295u, Restore_Options(R"({"channels":4294967296})").record().channels_);
  EXPECT_EQ(3000000000u, Restore_Options(R"({"channels":3000000000})").record().channels_);
  EXPECT_EQ(4294967294u, Restore_Options(R"({"channels":-2})").record().channels_);
  EXPECT_EQ(4294967295u, Restore_Options(R"({"channels":-4294967296})").record().channels_);
}

TEST(restore_job_options_parser, key_or_end_without_an_open_container_is_error_3) {
  expect_error_3_without_an_open_container<OBS_Restore_Job_Options_Parser>();
}

TEST(restore_job_options_parser, what_was_written_is_read_back) {
  const std::string text = R"({"channels":2,"existing":"newest","standalone":true,"bucket_maps":[)"
                           R"({"source":"*","target":"all","prefix":"p"},{"source":"a","target":"t","prefix":""}],)"
                           R"("cache_dir":"/c"})";
  Restore_Options parsed(text);
  ASSERT_TRUE(parsed.accepted);
  EXPECT_EQ(text, yajl_generate(parsed.record()));
}

} // namespace
