// What the four parsers of definitions have from their common base.

#include "obs/agent/job/definition_parser_t.h"

#include "obs/agent/job/backup_job_options_parser.h"
#include "obs/agent/job/backup_job_source_parser.h"
#include "obs/agent/job/definition_parser_testing.h"
#include "obs/agent/job/restore_job_options_parser.h"
#include "obs/agent/job/restore_job_source_parser.h"
#include "testing/module/failing_allocator.h"

#include <functional>
#include <vector>

using namespace definition_testing;

namespace {

/// A parser for whose record, or its pointer, there was no memory.
template <typename PARSER>
std::unique_ptr<PARSER> parser_without_record() {
  for (int nth = 1; nth < 20; ++nth) {
    errno = 0;
    std::unique_ptr<PARSER> parser;
    {
      const module_testing::Short_Memory short_memory(nth);
      parser.reset(make_without_throwing<PARSER>());
    }
    if (parser && !parser->result().get()) {
      EXPECT_EQ(ENOMEM, errno);
      return parser;
    }
  }
  ADD_FAILURE() << "no parser was left without its record";
  return nullptr;
}

/// One value of every kind.
bool accepts_every_value(YAJL_Handler& parser) {
  const bool texts = string(parser, "text") && string(parser, "");
  const bool numbers = number(parser, "1") && parser.handle_integer_i(1) && parser.handle_double_i(1.5);
  const bool others = parser.handle_boolean_i(true) && parser.handle_null_i();
  return texts && numbers && others;
}

/// Gives every value for each of the keys, in objects and in arrays, down to a level that no parser reads.
template <typename PARSER>
void expect_every_value_to_be_ignored_without_a_record() {
  const std::unique_ptr<PARSER> parser = parser_without_record<PARSER>();
  ASSERT_NE(nullptr, parser);
  EXPECT_TRUE(accepts_every_value(*parser)) << "with nothing open";
  for (const bool in_array : {false, true}) {
    for (int level = 1; level <= 5; ++level) {
      EXPECT_TRUE(level % 2 == 0 && in_array ? parser->handle_start_array_i() : parser->handle_start_map_i());
      for (const char* name :
           {"id", "name", "channels", "seq", "source", "dir", "unknown", "bucket_maps", "entries", "exclusion"}) {
        if (level % 2 != 0 || !in_array) {
          EXPECT_TRUE(key(*parser, name));
        }
        EXPECT_TRUE(accepts_every_value(*parser)) << name << " at level " << level;
      }
    }
    for (int level = 5; level > 1; --level)
      EXPECT_TRUE(level % 2 == 0 && in_array ? parser->handle_end_array_i() : parser->handle_end_map_i());
    // The end of a source asks for its keys.
    parser->handle_end_array_i();
  }
  EXPECT_EQ(0, parser->err());
  EXPECT_EQ(nullptr, parser->result().get());
}

TEST(definition_parser, every_value_is_ignored_without_a_record) {
  expect_every_value_to_be_ignored_without_a_record<OBS_Backup_Job_Options_Parser>();
  expect_every_value_to_be_ignored_without_a_record<OBS_Backup_Job_Source_Parser>();
  expect_every_value_to_be_ignored_without_a_record<OBS_Restore_Job_Options_Parser>();
  expect_every_value_to_be_ignored_without_a_record<OBS_Restore_Job_Source_Parser>();
}

TEST(definition_parser, keys_of_a_backup_source_count_as_given_without_a_record) {
  const std::unique_ptr<OBS_Backup_Job_Source_Parser> parser = parser_without_record<OBS_Backup_Job_Source_Parser>();
  ASSERT_NE(nullptr, parser);
  std::string reason;
  EXPECT_TRUE(yajl_parse(R"({"id":"x","minor_resource_id":"r","minor_resource_name":"n"})", *parser, reason)) << reason;
  EXPECT_EQ(0, parser->err());
}

TEST(definition_parser, numbers_of_a_restore_source_count_as_given_without_a_record) {
  const std::unique_ptr<OBS_Restore_Job_Source_Parser> parser = parser_without_record<OBS_Restore_Job_Source_Parser>();
  ASSERT_NE(nullptr, parser);
  std::string reason;
  EXPECT_TRUE(
      yajl_parse(R"({"id":1,"backup_host_id":2,"backup_minor_resource_id":3,"seq":4,"pool_uuid":5})", *parser, reason))
      << reason;
  EXPECT_EQ(0, parser->err());
}

TEST(definition_parser, code_of_the_first_refusal_stays) {
  OBS_Backup_Job_Options_Parser wrong_value;
  wrong_value.handle_start_map_i();
  key(wrong_value, "exclusion");
  wrong_value.handle_start_map_i();
  EXPECT_FALSE(number(wrong_value, "1"));
  EXPECT_EQ(9, wrong_value.err());
  EXPECT_TRUE(wrong_value.handle_end_map_i());
  EXPECT_TRUE(wrong_value.handle_end_map_i());
  EXPECT_FALSE(wrong_value.handle_end_map_i());
  EXPECT_EQ(9, wrong_value.err());

  OBS_Restore_Job_Options_Parser not_open;
  EXPECT_FALSE(key(not_open, "channels"));
  EXPECT_FALSE(number(not_open, "1"));
  EXPECT_EQ(3, not_open.err());

  module_testing::Log_Sink log;
  OBS_Backup_Job_Source_Parser lack_of_key;
  lack_of_key.handle_start_map_i();
  EXPECT_FALSE(lack_of_key.handle_end_map_i());
  lack_of_key.handle_start_array_i();
  EXPECT_FALSE(string(lack_of_key, "x"));
  EXPECT_EQ(7, lack_of_key.err());
}

TEST(definition_parser, definition_behind_an_accepted_one_is_read_too) {
  OBS_Backup_Job_Options_Parser parser;
  std::string reason;
  EXPECT_TRUE(yajl_parse(R"({"channels":2,"exclusion":["a"]})", parser, reason)) << reason;
  EXPECT_TRUE(yajl_parse(R"({"channels":3})", parser, reason)) << reason;
  EXPECT_EQ(0, parser.err());
  EXPECT_EQ(3u, static_cast<OBS_Backup_Job_Options&>(*parser.result()).channels_);
  EXPECT_FALSE(yajl_parse(R"({"channels":"4"})", parser, reason));
  EXPECT_EQ(9, parser.err());
}

/// Gives `parser` the events of a definition with each of its allocations failing in turn: that event is refused with
/// ENOMEM, and nothing is thrown. Returns how many allocations there were.
template <typename PARSER>
int fail_each_allocation(const std::vector<std::function<bool(YAJL_Handler&)>>& events) {
  for (int nth = 1; nth < 1000; ++nth) {
    PARSER parser;
    bool accepted = true;
    bool failed = false;
    int error = 0;
    errno = 0;
    {
      const module_testing::Short_Memory short_memory(nth);
      for (size_t at = 0; accepted && at < events.size(); ++at)
        accepted = events[at](parser);
      error = errno;
      failed = module_testing::allocations_left < 0;
    }
    if (!failed) {
      EXPECT_TRUE(accepted);
      return nth - 1;
    }
    EXPECT_FALSE(accepted) << nth;
    EXPECT_EQ(ENOMEM, error) << nth;
    EXPECT_EQ(0, parser.err()) << nth;
  }
  ADD_FAILURE() << "there is no end of allocations";
  return 0;
}

TEST(definition_parser, event_without_memory_is_refused_and_throws_nothing) {
  typedef std::function<bool(YAJL_Handler&)> Event;
  const Event open = [](YAJL_Handler& parser) { return parser.handle_start_map_i(); };
  const Event close = [](YAJL_Handler& parser) { return parser.handle_end_map_i(); };
  const Event open_list = [](YAJL_Handler& parser) { return parser.handle_start_array_i(); };
  const Event close_list = [](YAJL_Handler& parser) { return parser.handle_end_array_i(); };
  const auto named = [](const char* name) { return [name](YAJL_Handler& parser) { return key(parser, name); }; };
  const Event text = [](YAJL_Handler& parser) {
    return string(parser, "a text that is longer than what a string keeps inside itself");
  };
  const Event one = [](YAJL_Handler& parser) { return number(parser, "1"); };

  EXPECT_GE(fail_each_allocation<OBS_Backup_Job_Options_Parser>({open, named("cache_dir"), text, named("exclusion"),
                                                                 open_list, text, text, close_list, close}),
            5);
  EXPECT_GE(fail_each_allocation<OBS_Backup_Job_Source_Parser>(
                {open, named("id"), text, named("minor_resource_id"), text, named("minor_resource_name"), text, close}),
            4);
  EXPECT_GE(fail_each_allocation<OBS_Restore_Job_Options_Parser>(
                {open, named("cache_dir"), text, named("bucket_maps"), open_list, open, named("source"), text,
                 named("target"), text, named("prefix"), text, close, close_list, close}),
            9);
  EXPECT_GE(fail_each_allocation<OBS_Restore_Job_Source_Parser>(
                {open, named("id"), text, named("backup_host_id"), text, named("backup_minor_resource_id"), text,
                 named("seq"), one, named("pool_uuid"), text, named("entries"), open_list, open, named("dir"), text,
                 close, close_list, close}),
            9);
}

} // namespace
