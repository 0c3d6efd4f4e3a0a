#include "sdk/mtf/client_io.h"

#include "sdk/job/job_definition.h"
#include "sdk/mtf/event_handler.h"

#include <gtest/gtest.h>

namespace {

Client_IO_Base::Options options_for(ACE_UINT64 rate_limit, unsigned channels) {
  Job_Definition::Settings settings;
  settings.max_seconds_retry = -1;
  settings.resumption_buffer_size = 4096;
  settings.rate_limit = rate_limit;
  settings.server_side_dedup = true;
  settings.readers = 9;
  Client_IO_Base::Options options;
  set_options_by_job_def(options, Job_Definition(settings), channels);
  return options;
}

TEST(Client_Io, definition_is_copied) {
  const Client_IO_Base::Options options = options_for(0, 4);
  EXPECT_EQ(-1, options.max_seconds_retry);
  EXPECT_EQ(4096u, options.resumption_buffer_size);
  EXPECT_TRUE(options.server_side_dedup);
  EXPECT_EQ(9u, options.readers);
  EXPECT_EQ(0u, options.channel_rate_limit);
}

TEST(Client_Io, rate_limit_is_shared_out_over_the_channels) {
  EXPECT_EQ(250u, options_for(1000, 4).channel_rate_limit);
  EXPECT_EQ(1000u, options_for(1000, 1).channel_rate_limit);
  EXPECT_EQ(1000u, options_for(1000, 0).channel_rate_limit);
}

TEST(Client_Io, share_of_a_tiny_limit_is_not_no_limit) {
  EXPECT_EQ(1u, options_for(3, 4).channel_rate_limit);
}

TEST(Client_Io, host_key_replaces_what_was_there) {
  Client_IO_Base::Options options;
  options.access_key = "old";
  set_options_by_host(options);
  EXPECT_EQ("", options.access_key);
}

TEST(Engine_Events, base_never_asks_to_stop_and_counts_what_is_skipped) {
  MTF::Event_Handler handler(0);
  EXPECT_EQ(0, handler.mode());
  EXPECT_FALSE(handler.is_canceling());
  EXPECT_FALSE(handler.pausing());
  EXPECT_EQ(0, handler.notify_event(MTF::EVENT_ITEM_ERROR, {}));
  EXPECT_EQ(0, handler.handle_progress(1, 2, 3, 4));
  handler.add_skipped_files(2);
  handler.add_skipped_files(3);
  handler.add_skipped_dirs(1);
  EXPECT_EQ(5u, handler.skipped_files());
  EXPECT_EQ(1u, handler.skipped_dirs());
}

} // namespace
