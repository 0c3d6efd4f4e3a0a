#include "obs/agent/job/obs_source_lister.h"

#include "sdk/base/exponential_backoff.h"
#include "testing/module/fake_clock.h"
#include "testing/module/fake_event_handler.h"
#include "testing/module/fake_s3.h"
#include "testing/module/log_sink.h"
#include "testing/module/slash_filter.h"

#include <gtest/gtest.h>

using namespace module_testing;

namespace {

typedef std::vector<std::string> Texts;

struct source_lister : testing::Test {
  /// All blocks until the lister ends.
  Texts list(std::list<std::string> srcs) {
    OBS_Source_Lister lister(service, sequence, std::move(srcs), events, filter);
    Texts blocks;
    MTF::Cat_Blk blk;
    while (lister.next(blk)) {
      EXPECT_TRUE(blk.valid());
      blocks.push_back(block_text(blk));
      if (blocks.back() != "FEND") {
        EXPECT_EQ(sequence, blk.hdr().seq()) << blocks.back();
      }
      if (blk.hdr().type() == MTF_CAT_FILE_BLK)
        files.push_back(blk.name() + " " + std::to_string(blk.hdr().size()) + " " + std::to_string(blk.mtime()));
    }
    EXPECT_FALSE(lister.next(blk));
    return blocks;
  }

  Log_Sink log;
  Fake_Clock clock;
  Fake_Store store;
  std::shared_ptr<Fake_Store_Service> service = std::make_shared<Fake_Store_Service>(store);
  Fake_Event_Handler handler;
  unsigned short sequence = 7;
  Texts files; ///< "name size mtime" of each FILE block
  MTF::Event_Handler* events = &handler;
  const MTF::IFilter* filter = nullptr;
};

struct Without_D : MTF::IFilter {
  bool is_included(const char* path, bool is_dir) const override {
    asked.push_back(path);
    return !(is_dir && std::string(path) == "/b/d/");
  }
  mutable Texts asked;
};

TEST_F(source_lister, bucket_and_single_object_come_in_order_with_their_folders) {
  store.put("b1", "a.txt");
  store.put("b1", "d/e.txt");
  store.put("b2", "x/y.txt");
  EXPECT_EQ(
      (Texts{"VOL", "DIR b1/", "FILE a.txt", "DIR b1/d/", "FILE e.txt", "DIR b2/", "DIR b2/x/", "FILE y.txt", "FEND"}),
      list({"/b1/", "/b2/x/y.txt"}));
}

TEST_F(source_lister, file_carries_size_and_time_of_its_object) {
  store.put("b", "d/1", 123, 852062850);
  store.put("b", "2", 5000000000ull, 1700000000);
  store.put("c", "x", 7, 1);
  sequence = 65535;
  EXPECT_EQ((Texts{"VOL", "DIR b/", "FILE 2", "DIR b/d/", "FILE 1", "DIR c/", "FILE x", "FEND"}),
            list({"/b/", "/c/x"}));
  EXPECT_EQ((Texts{"2 5000000000 1700000000", "1 123 852062850", "x 7 1"}), files);
}

TEST_F(source_lister, first_set_of_a_chain_has_sequence_0_in_its_blocks) {
  store.put("b", "d/1");
  sequence = 0;
  EXPECT_EQ((Texts{"VOL", "DIR b/", "DIR b/d/", "FILE 1", "FEND"}), list({"/b/"}));
}

TEST_F(source_lister, same_folder_of_another_bucket_is_another_folder) {
  store.put("b", "p/1");
  store.put("c", "p/2");
  EXPECT_EQ((Texts{"VOL", "DIR b/", "DIR b/p/", "FILE 1", "DIR c/", "DIR c/p/", "FILE 2", "FEND"}),
            list({"/b/p/1", "/c/p/2"}));
  EXPECT_EQ((Texts{"VOL", "DIR b/", "DIR b/p/", "FILE 1", "DIR c/", "DIR c/p/", "FILE 2", "FEND"}),
            list({"/b/p/", "/c/p/"}));
}

TEST_F(source_lister, walk_is_depth_first_in_listing_order_over_pages) {
  for (const char* key : {"a!/1", "a/2", "a/b/3", "a/b/4", "c"})
    store.put("b", key);
  store.page_size = [](const std::string&, const std::string&) { return 1u; };
  EXPECT_EQ((Texts{"VOL", "DIR b/", "FILE c", "DIR b/a!/", "FILE 1", "DIR b/a/", "FILE 2", "DIR b/a/b/", "FILE 3",
                   "FILE 4", "FEND"}),
            list({"/b/"}));
}

TEST_F(source_lister, no_entries_give_a_volume_and_no_end) {
  EXPECT_EQ((Texts{"VOL"}), list({}));
  EXPECT_EQ(2u, log.count(LM_ERROR, "No source entries to list.\n"));
}

TEST_F(source_lister, missing_service_is_an_emergency) {
  service.reset();
  EXPECT_EQ(Texts(), list({"/b/"}));
  EXPECT_EQ(2u, log.count("svr_ is NULL:\n"));
  EXPECT_EQ(2u, log.count(LM_EMERGENCY, "Unexpected error in obs/agent/job/obs_source_lister.cpp:"));
}

TEST_F(source_lister, walked_entry_has_its_folders_even_when_empty) {
  store.make_bucket("b");
  EXPECT_EQ((Texts{"VOL", "DIR b/", "DIR b/p/", "DIR b/p/q/", "FEND"}), list({"/b/p/q/"}));
}

TEST_F(source_lister, entries_in_one_folder_repeat_no_folder) {
  store.put("b", "p/1");
  store.put("b", "p/2");
  EXPECT_EQ((Texts{"VOL", "DIR b/", "DIR b/p/", "FILE 1", "FILE 2", "FEND"}), list({"/b/p/1", "/b/p/2"}));
}

TEST_F(source_lister, entry_that_makes_no_sense_is_named_and_left_out) {
  store.put("b", "1");
  EXPECT_EQ((Texts{"VOL", "DIR b/", "FILE 1", "FEND"}), list({"/", "/b/1"}));
  EXPECT_EQ(1u, log.count(LM_ERROR, "Invalid source entry '/' to list.\n"));
}

TEST_F(source_lister, folder_object_is_left_out_and_named_when_it_has_content) {
  store.put("b", "p/", 0);
  store.put("b", "q/", 5);
  EXPECT_EQ((Texts{"VOL", "DIR b/", "DIR b/p/", "DIR b/q/", "FEND"}), list({"/b/p/", "/b/q/"}));
  EXPECT_EQ(1u, log.count(LM_ERROR, "The key 'q/' ending with / is not supported, size: 5.\n"));
  EXPECT_EQ(1u, log.count(LM_ERROR, ""));
}

TEST_F(source_lister, excluded_prefix_is_not_walked) {
  for (const char* key : {"d/1", "e/2"})
    store.put("b", key);
  Without_D without;
  filter = &without;
  EXPECT_EQ((Texts{"VOL", "DIR b/", "DIR b/e/", "FILE 2", "FEND"}), list({"/b/"}));
  EXPECT_EQ((Texts{"/b/d/", "/b/e/", "/b/e/2"}), without.asked);
}

TEST_F(source_lister, excluded_object_has_no_block_and_is_no_skipped_one) {
  struct Without_2 : MTF::IFilter {
    bool is_included(const char* path, bool) const override { return std::string(path) != "/b/e/2"; }
  } without;
  for (const char* key : {"e/1", "e/2", "e/3"})
    store.put("b", key);
  filter = &without;
  EXPECT_EQ((Texts{"VOL", "DIR b/", "DIR b/e/", "FILE 1", "FILE 3", "FEND"}), list({"/b/"}));
  EXPECT_EQ(0u, handler.skipped_files());
}

TEST_F(source_lister, final_failure_is_not_repeated_and_costs_the_prefix_only) {
  store.put("b", "p/1");
  store.put("c", "2");
  int requests = 0;
  store.on_list = [&](const std::string& bucket, const std::string&, const std::string&) {
    requests += bucket == "b";
    return bucket == "b" ? final_failure() : S3_Error();
  };
  EXPECT_EQ((Texts{"VOL", "DIR b/", "DIR b/p/", "DIR c/", "FILE 2", "FEND"}), list({"/b/p/", "/c/"}));
  EXPECT_EQ(1, requests);
  EXPECT_EQ(1u, handler.skipped_dirs());
  EXPECT_EQ((Texts{"{\"errno\":13,\"message\":\"AccessDenied: no\",\"name\":\"/b/p/\",\"type\":\"directory\"}"}),
            handler.errors);
  EXPECT_EQ(1u, log.count(LM_ERROR, "Failed to list object from 'b' with prefix 'p/', error: AccessDenied: no.\n"));
}

TEST_F(source_lister, retriable_failure_is_repeated_three_times) {
  store.make_bucket("b");
  int requests = 0;
  store.on_list = [&](const std::string&, const std::string&, const std::string&) {
    ++requests;
    return retriable_failure();
  };
  EXPECT_EQ((Texts{"VOL", "DIR b/", "FEND"}), list({"/b/"}));
  EXPECT_EQ(4, requests);
  EXPECT_EQ(3u, clock.sleeps().size());
  for (const char* attempt : {"Retry(1) ", "Retry(2) ", "Retry(3) "})
    EXPECT_EQ(1u, log.count(LM_INFO, std::string(attempt) + "obs/agent/job/obs_source_lister.cpp:"));
  EXPECT_EQ(1u, handler.skipped_dirs());
}

unsigned draw_largest(unsigned n) {
  return n - 1;
}

TEST_F(source_lister, waits_are_1_2_and_3_seconds_at_most_and_announced) {
  store.make_bucket("b");
  store.on_list = [](const std::string&, const std::string&, const std::string&) { return retriable_failure(); };
  set_backoff_random(&draw_largest);
  list({"/b/"});
  set_backoff_random(nullptr);
  EXPECT_EQ((std::vector<unsigned>{1, 2, 3}), clock.sleeps());
  Texts waits;
  for (const Log_Line& line : log.lines())
    if (line.priority == LM_INFO)
      waits.push_back(line.text.substr(0, 9) + line.text.substr(line.text.find(" at ")));
  EXPECT_EQ((Texts{"Retry(1) "
                   " at 1 second(s) later.\n",
                   "Retry(2) "
                   " at 2 second(s) later.\n",
                   "Retry(3) "
                   " at 3 second(s) later.\n"}),
            waits);
}

TEST_F(source_lister, half_of_each_wait_is_jitter) {
  store.make_bucket("b");
  store.on_list = [](const std::string&, const std::string&, const std::string&) { return retriable_failure(); };
  set_backoff_random([](unsigned) { return 0u; });
  list({"/b/"});
  set_backoff_random(nullptr);
  EXPECT_EQ((std::vector<unsigned>{1, 1, 2}), clock.sleeps());
}

/// Two pages of "p/": an object and a folder on each; the second one fails.
void second_page_fails(Fake_Store& store) {
  for (const char* key : {"p/1", "p/2/x", "p/3", "p/4/y"})
    store.put("b", key);
  store.page_size = [](const std::string& prefix, const std::string&) { return prefix == "p/" ? 2u : 1000u; };
  store.on_list = [](const std::string&, const std::string& prefix, const std::string& marker) {
    return prefix == "p/" && !marker.empty() ? final_failure() : S3_Error();
  };
}

TEST_F(source_lister, failure_of_a_later_page_keeps_the_files_and_the_folders_wait_for_the_next_prefix) {
  second_page_fails(store);
  store.put("c", "k");
  store.put("d", "l");
  EXPECT_EQ((Texts{"VOL", "DIR b/", "DIR b/p/", "FILE 1", "DIR c/", "FILE k", "DIR b/", "DIR b/p/", "DIR b/p/2/",
                   "FILE x", "DIR d/", "FILE l", "FEND"}),
            list({"/b/p/", "/c/", "/d/"}));
  EXPECT_EQ(1u, handler.skipped_dirs());
  EXPECT_EQ((Texts{"{\"errno\":13,\"message\":\"AccessDenied: no\",\"name\":\"/b/p/\",\"type\":\"directory\"}"}),
            handler.errors);
}

TEST_F(source_lister, folders_of_a_prefix_that_fails_later_are_lost_with_it_when_none_follows) {
  second_page_fails(store);
  EXPECT_EQ((Texts{"VOL", "DIR b/", "DIR b/p/", "FILE 1", "FEND"}), list({"/b/p/"}));
  EXPECT_EQ(1u, handler.skipped_dirs());
  EXPECT_EQ(1u, handler.errors.size());
}

TEST_F(source_lister, same_page_again_loses_the_rest_of_the_prefix_and_reports_it) {
  class Stuck : public Fake_Store_Service {
  public:
    using Fake_Store_Service::Fake_Store_Service;
    bool get_bucket(const char*, const Get_Bucket_Parameter&, Get_Bucket_Content& content) override {
      content = Get_Bucket_Content();
      if (++requests > 5)
        return true;
      S3_Object object;
      object.name = "k";
      content.objects = {object};
      content.truncated = true;
      content.next_marker = "k";
      return true;
    }
    int requests = 0;
  };
  const auto stuck = std::make_shared<Stuck>(store);
  service = stuck;
  EXPECT_EQ((Texts{"VOL", "DIR b/", "FILE k", "FEND"}), list({"/b/"}));
  EXPECT_EQ(2, stuck->requests);
  EXPECT_EQ(1u, handler.skipped_dirs());
  EXPECT_EQ((Texts{"{\"errno\":71,\"message\":\"the service sends the same page again\",\"name\":\"/b/\","
                   "\"type\":\"directory\"}"}),
            handler.errors);
  EXPECT_EQ(1u, log.count(LM_ERROR, "Failed to list object from 'b' with prefix '', error: the service sends the same "
                                    "page again.\n"));
}

TEST_F(source_lister, filter_is_told_folders_from_objects) {
  for (const char* key : {"p/", "p/1", "p/q/2"})
    store.put("b", key);
  const Slash_Filter by_slash;
  filter = &by_slash;
  EXPECT_EQ((Texts{"VOL", "DIR b/", "DIR b/p/", "FILE 1", "DIR b/p/q/", "FILE 2", "FEND"}), list({"/b/"}));
  EXPECT_EQ(4u, by_slash.asked);
}

TEST_F(source_lister, single_object_that_is_not_there_is_passed_over) {
  store.make_bucket("b");
  EXPECT_EQ((Texts{"VOL", "DIR b/", "FEND"}), list({"/b/gone"}));
  EXPECT_TRUE(handler.errors.empty());
  EXPECT_EQ(0u, handler.skipped_files());
}

TEST_F(source_lister, single_object_that_cannot_be_asked_for_is_reported) {
  store.on_head = [](const std::string&, const std::string&) { return final_failure(); };
  EXPECT_EQ((Texts{"VOL", "DIR b/", "FEND"}), list({"/b/k"}));
  EXPECT_EQ(1u, handler.skipped_files());
  EXPECT_EQ((Texts{"{\"errno\":13,\"message\":\"AccessDenied: no\",\"name\":\"/b/k\",\"type\":\"file\"}"}),
            handler.errors);
}

TEST_F(source_lister, what_is_skipped_is_counted_before_it_is_reported) {
  struct Counting : Fake_Event_Handler {
    int notify_event(unsigned code, const json_spirit::Object& options) override {
      counts.push_back(std::to_string(skipped_files()) + " " + std::to_string(skipped_dirs()));
      return Fake_Event_Handler::notify_event(code, options);
    }
    Texts counts;
  } counting;
  events = &counting;
  store.on_head = [](const std::string&, const std::string&) { return final_failure(); };
  store.on_list = [](const std::string&, const std::string&, const std::string&) { return final_failure(); };
  list({"/b/k", "/b/p/"});
  EXPECT_EQ((Texts{"1 0", "1 1"}), counting.counts);
}

TEST_F(source_lister, failures_need_no_event_handler) {
  events = nullptr;
  store.on_list = [](const std::string&, const std::string&, const std::string&) { return final_failure(); };
  store.on_head = [](const std::string&, const std::string&) { return final_failure(); };
  EXPECT_EQ((Texts{"VOL", "DIR b/", "FEND"}), list({"/b/", "/b/k"}));
}

TEST_F(source_lister, single_object_is_not_asked_of_the_filter) {
  store.put("b", "k");
  Without_D without;
  filter = &without;
  EXPECT_EQ((Texts{"VOL", "DIR b/", "FILE k", "FEND"}), list({"/b/k"}));
  EXPECT_TRUE(without.asked.empty());
}

} // namespace
