// What the makers of catalog blocks log, and what becomes of them without memory.

#include "obs/agent/job/catalog_blocks.h"

#include "testing/module/failing_allocator.h"
#include "testing/module/log_sink.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(catalog_block_reports, every_sequence_number_is_written) {
  for (const unsigned short seq : {0, 1, 255, 256, 65535}) {
    EXPECT_EQ(seq, catalog_blocks::make_vol(seq)->hdr().seq());
    EXPECT_EQ(seq, catalog_blocks::make_dir(seq, "b/")->hdr().seq());
    EXPECT_EQ(seq, catalog_blocks::make_file(seq, "k", 0, 0)->hdr().seq());
  }
}

TEST(catalog_block_reports, folder_whose_name_does_not_fit_is_named) {
  module_testing::Log_Sink log;
  EXPECT_FALSE(catalog_blocks::make_dir(1, std::string(65536, 'n')));
  EXPECT_EQ(1u, log.count(LM_ERROR, "Failed to make dir block for 'nnn"));
}

TEST(catalog_block_reports, debug_lines_tell_what_was_made) {
  module_testing::Log_Sink log;
  catalog_blocks::make_vol(1);
  catalog_blocks::make_dir(1, "bkt/a/");
  catalog_blocks::make_fend();
  ASSERT_EQ(3u, log.lines().size());
  for (const module_testing::Log_Line& line : log.lines())
    EXPECT_EQ(LM_DEBUG, line.priority);
  EXPECT_EQ("OBS-Lister|VOL|/.\n", log.lines()[0].text);
  EXPECT_EQ("OBS-Lister|DIR|bkt/a/.\n", log.lines()[1].text);
  EXPECT_EQ("OBS-Lister|FEND|.\n", log.lines()[2].text);
}

TEST(catalog_block_reports, nothing_is_told_while_debugging_is_off) {
  module_testing::Log_Sink log;
  const unsigned long mask = ACE_LOG_MSG->priority_mask(ACE_Log_Msg::PROCESS);
  ACE_LOG_MSG->priority_mask(mask & ~static_cast<unsigned long>(LM_DEBUG), ACE_Log_Msg::PROCESS);
  catalog_blocks::make_vol(1);
  catalog_blocks::make_dir(1, "b/");
  catalog_blocks::make_fend();
  ACE_LOG_MSG->priority_mask(mask, ACE_Log_Msg::PROCESS);
  EXPECT_TRUE(log.empty());
}

/// The lines that `make` writes while its `nth` allocation fails; "made" when it made a block.
template <typename MAKE>
std::string starve(int nth, MAKE make) {
  module_testing::Log_Sink log;
  bool made = false;
  {
    const module_testing::Short_Memory short_memory(nth);
    made = make() != nullptr;
  }
  if (made)
    return "made";
  std::string text;
  for (const module_testing::Log_Line& line : log.lines())
    text += (line.priority == LM_ERROR ? "error: " : "other: ") + line.text;
  return text;
}

TEST(catalog_block_reports, short_memory_gives_no_block_and_names_it) {
  // The block, then its buffer.
  for (int nth = 1; nth <= 2; ++nth) {
    EXPECT_EQ("error: Failed to alloc buffer for VOL block.\n",
              starve(nth, [] { return catalog_blocks::make_vol(1); }));
    EXPECT_EQ("error: Failed to alloc buffer for FEND block.\n",
              starve(nth, [] { return catalog_blocks::make_fend(); }));
    EXPECT_EQ("error: Failed to make dir block for 'b/'.\n",
              starve(nth, [] { return catalog_blocks::make_dir(1, "b/"); }));
    EXPECT_EQ("", starve(nth, [] { return catalog_blocks::make_file(1, "k", 0, 0); }));
  }
  EXPECT_EQ("made", starve(3, [] { return catalog_blocks::make_file(1, "k", 0, 0); }));
  EXPECT_EQ("made", starve(3, [] { return catalog_blocks::make_fend(); }));
}

} // namespace
