#include "obs/agent/job/async_obs_source_lister.h"

#include "testing/module/fake_clock.h"
#include "testing/module/fake_event_handler.h"
#include "testing/module/fake_s3.h"
#include "testing/module/log_sink.h"

#include <gtest/gtest.h>

using namespace module_testing;

namespace {

typedef std::vector<std::string> Texts;

struct async_source_lister : testing::Test {
  async_source_lister() {
    store.on_service = [this] {
      log.attach();
      return service;
    };
  }

  int generate(std::list<std::string> srcs, int threads = 4) {
    Async_OBS_Source_Lister lister(client, 7, std::move(srcs), &events, filter, threads, 1000);
    return lister.generate([this](std::unique_ptr<MTF::Cat_Blk> blk) {
      EXPECT_TRUE(blk->valid());
      if (block_text(*blk) == refused)
        return false;
      blocks.push_back(block_text(*blk));
      return true;
    });
  }

  Log_Sink log;
  Fake_Clock clock;
  Fake_Store store;
  Fake_Store_Client client{store};
  Fake_Event_Handler events;
  const MTF::IFilter* filter = nullptr;
  bool service = true;
  std::string refused; ///< the handler's answer to this block is false
  Texts blocks;
};

TEST_F(async_source_lister, bucket_and_single_object_come_in_order_with_their_folders) {
  store.put("b1", "a.txt");
  store.put("b1", "d/e.txt");
  store.put("b2", "x/y.txt");
  EXPECT_EQ(0, generate({"/b1/", "/b2/x/y.txt"}));
  EXPECT_EQ(
      (Texts{"VOL", "DIR b1/", "FILE a.txt", "DIR b1/d/", "FILE e.txt", "DIR b2/", "DIR b2/x/", "FILE y.txt", "FEND"}),
      blocks);
  EXPECT_TRUE(events.errors.empty());
}

TEST_F(async_source_lister, file_carries_sequence_size_and_time_of_its_object) {
  store.put("b", "d/1", 123, 852062850);
  store.put("c", "x", 7, 1700000000);
  Texts files;
  Async_OBS_Source_Lister lister(client, 9, {"/b/", "/c/x"}, nullptr, nullptr, 2, 1000);
  EXPECT_EQ(0, lister.generate([&](std::unique_ptr<MTF::Cat_Blk> blk) {
    if (blk->hdr().type() == MTF_CAT_FILE_BLK)
      files.push_back(blk->name() + " " + std::to_string(blk->hdr().seq()) + " " + std::to_string(blk->hdr().size()) +
                      " " + std::to_string(blk->mtime()));
    return true;
  }));
  EXPECT_EQ((Texts{"1 9 123 852062850", "x 9 7 1700000000"}), files);
}

TEST_F(async_source_lister, sibling_folder_gets_the_levels_below_the_common_one_only) {
  for (const char* key : {"a/b/1", "a/b/2", "a/c/d/3", "a2/4"})
    store.put("b", key);
  EXPECT_EQ(0, generate({"/b/"}));
  EXPECT_EQ((Texts{"VOL", "DIR b/", "DIR b/a/", "DIR b/a/b/", "FILE 1", "FILE 2", "DIR b/a/c/", "DIR b/a/c/d/",
                   "FILE 3", "DIR b/a2/", "FILE 4", "FEND"}),
            blocks);
}

TEST_F(async_source_lister, keys_are_bytes_and_empty_components_are_folders) {
  for (const char* key : {"/x", "p//y", "p/../z"})
    store.put("b", key);
  EXPECT_EQ(0, generate({"/b/"}));
  EXPECT_EQ(
      (Texts{"VOL", "DIR b/", "DIR b//", "FILE x", "DIR b/p/", "DIR b/p//", "FILE y", "DIR b/p/../", "FILE z", "FEND"}),
      blocks);
}

TEST_F(async_source_lister, consecutive_entries_in_one_folder_repeat_no_folder) {
  for (const char* key : {"a/1", "a/2"})
    store.put("b", key);
  EXPECT_EQ(0, generate({"/b/a/1", "/b/a/2"}));
  EXPECT_EQ((Texts{"VOL", "DIR b/", "DIR b/a/", "FILE 1", "FILE 2", "FEND"}), blocks);
}

TEST_F(async_source_lister, empty_bucket_has_no_folder) {
  store.make_bucket("b");
  EXPECT_EQ(0, generate({"/b/"}));
  EXPECT_EQ((Texts{"VOL", "FEND"}), blocks);
}

TEST_F(async_source_lister, entries_that_make_no_sense_are_named_and_left_out) {
  EXPECT_EQ(0, generate({"", "/"}));
  EXPECT_EQ((Texts{"VOL", "FEND"}), blocks);
  EXPECT_EQ(1u, log.count(LM_ERROR, "Invalid obs entry: .\n"));
  EXPECT_EQ(1u, log.count(LM_ERROR, "Invalid obs entry: /.\n"));
}

TEST_F(async_source_lister, no_entries_fail) {
  EXPECT_EQ(-1, generate({}));
  EXPECT_EQ(1u, log.count(LM_ERROR, "No backup source entries to list.\n"));
  EXPECT_TRUE(blocks.empty());
}

TEST_F(async_source_lister, missing_handler_fails) {
  Async_OBS_Source_Lister lister(client, 7, {"/b/"}, nullptr, nullptr, 1, 10);
  EXPECT_EQ(-1, lister.generate(nullptr));
  EXPECT_EQ(1u, log.count("handler is NULL:\n"));
  EXPECT_EQ(1u, log.count(LM_EMERGENCY, "Unexpected error in obs/agent/job/async_obs_source_lister.cpp:"));
}

TEST_F(async_source_lister, it_only_pushes) {
  Async_OBS_Source_Lister lister(client, 7, {"/b/"}, nullptr, nullptr, 1, 10);
  MTF::Cat_Blk blk;
  EXPECT_FALSE(lister.next(blk));
}

TEST_F(async_source_lister, refused_volume_fails_before_any_listing) {
  store.put("b", "1");
  bool listed = false;
  store.on_list = [&](const std::string&, const std::string&, const std::string&) {
    listed = true;
    return S3_Error();
  };
  refused = "VOL";
  EXPECT_EQ(-1, generate({"/b/"}));
  EXPECT_FALSE(listed);
  EXPECT_EQ(1u, log.count(LM_ERROR, "Failed to make vol block while generating obs backup list.\n"));
}

TEST_F(async_source_lister, refused_file_is_a_skipped_one_and_ends_the_catalog) {
  store.put("b", "p/1");
  store.put("b", "p/2");
  refused = "FILE 1";
  EXPECT_EQ(-1, generate({"/b/"}));
  EXPECT_EQ(1u, events.skipped_files());
  EXPECT_EQ((Texts{"{\"errno\":null,\"message\":\"Make MTF description block failed.\",\"name\":\"/b/p/1\","
                   "\"type\":\"file\"}"}),
            events.errors);
  EXPECT_EQ(1u, log.count(LM_ERROR, "Failed to add 'p/1' in bucket 'b' to backup list.\n"));
}

TEST_F(async_source_lister, refused_single_object_ends_the_catalog) {
  store.put("b", "1");
  refused = "DIR b/";
  EXPECT_EQ(-1, generate({"/b/1"}));
  EXPECT_EQ(1u, events.skipped_files());
  EXPECT_EQ(1u, log.count(LM_ERROR, "Failed to add source entry '/b/1' to backup list.\n"));
}

TEST_F(async_source_lister, refused_end_fails) {
  store.put("b", "1");
  refused = "FEND";
  EXPECT_EQ(-1, generate({"/b/"}));
}

TEST_F(async_source_lister, single_object_that_is_not_there_is_reported) {
  store.make_bucket("b");
  EXPECT_EQ(0, generate({"/b/gone"}));
  EXPECT_EQ((Texts{"VOL", "FEND"}), blocks);
  EXPECT_EQ(1u, events.skipped_files());
  EXPECT_EQ((Texts{"{\"errno\":2,\"message\":\"NoSuchKey: no such key\",\"name\":\"/b/gone\",\"type\":\"file\"}"}), events.errors);
}

TEST_F(async_source_lister, single_object_that_cannot_be_asked_for_is_reported_with_the_reason) {
  store.on_head = [](const std::string&, const std::string&) { return final_failure(); };
  EXPECT_EQ(0, generate({"/b/p/k"}));
  EXPECT_EQ((Texts{"{\"errno\":13,\"message\":\"AccessDenied: no\",\"name\":\"/b/p/k\",\"type\":\"file\"}"}),
            events.errors);
}

TEST_F(async_source_lister, single_object_without_service_is_reported) {
  service = false;
  EXPECT_EQ(0, generate({"/b/k"}));
  EXPECT_EQ((Texts{"{\"errno\":null,\"message\":\"Failed to make obs client\",\"name\":\"/b/k\",\"type\":\"file\"}"}),
            events.errors);
}

TEST_F(async_source_lister, prefix_that_nobody_can_list_makes_no_complete_catalog) {
  service = false;
  EXPECT_EQ(-1, generate({"/b/"}));
  EXPECT_EQ((Texts{"VOL"}), blocks);
}

TEST_F(async_source_lister, prefix_whose_listing_fails_is_not_reported_and_the_rest_goes_on) {
  store.put("b", "p/1");
  store.put("c", "2");
  store.on_list = [](const std::string& bucket, const std::string&, const std::string&) {
    return bucket == "b" ? final_failure() : S3_Error();
  };
  EXPECT_EQ(0, generate({"/b/", "/c/"}));
  EXPECT_EQ((Texts{"VOL", "DIR c/", "FILE 2", "FEND"}), blocks);
  EXPECT_TRUE(events.errors.empty());
}

TEST_F(async_source_lister, cancel_is_seen_after_each_object) {
  for (int i = 0; i < 9; ++i)
    store.put("b", std::to_string(i));
  events.cancel_after = 3;
  const size_t errors = log.count(LM_ERROR, "");
  EXPECT_EQ(-1, generate({"/b/"}));
  EXPECT_EQ((Texts{"VOL", "DIR b/", "FILE 0", "FILE 1", "FILE 2", "FILE 3"}), blocks);
  EXPECT_EQ(errors, log.count(LM_ERROR, ""));
}

TEST_F(async_source_lister, cancel_is_seen_after_an_entry_without_objects) {
  store.make_bucket("b");
  events.cancel_after = 0;
  EXPECT_EQ(-1, generate({"/b/", "/b/"}));
  EXPECT_EQ((Texts{"VOL"}), blocks);
  EXPECT_EQ(1, events.asked);
}

} // namespace
