// What the listers do where a block or a thread cannot be had, and what they tell while debugging.

#include "obs/agent/job/async_obs_object_lister.h"
#include "obs/agent/job/async_obs_source_lister.h"
#include "obs/agent/job/obs_source_lister.h"
#include "obs/agent/job_frame/failing_spawn.h"
#include "testing/module/fake_clock.h"
#include "testing/module/fake_event_handler.h"
#include "testing/module/fake_s3.h"
#include "testing/module/gate.h"
#include "testing/module/log_sink.h"

#include <gtest/gtest.h>

#include <cerrno>

#include <dlfcn.h>
#include <pthread.h>

MODULE_TESTING_DEFINE_FAILING_SPAWN()

using namespace module_testing;

namespace {
thread_local bool waits_fail = false;
}

/// Takes the place of the C library's function in this program.
extern "C" int pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex) {
  if (waits_fail)
    return EINVAL;
  typedef int (*Wait)(pthread_cond_t*, pthread_mutex_t*);
#ifdef __SANITIZE_THREAD__
  static const Wait wait = reinterpret_cast<Wait>(dlsym(RTLD_NEXT, "pthread_cond_wait"));
#else
  // By the bare name alone the linker may find the one of another age, which knows another kind of condition.
  static const Wait wait = [] {
    void* const found = dlvsym(RTLD_NEXT, "pthread_cond_wait", "GLIBC_2.3.2");
    return reinterpret_cast<Wait>(found ? found : dlsym(RTLD_NEXT, "pthread_cond_wait"));
  }();
#endif
  return wait(condition, mutex);
}

namespace {

/// One byte longer than a block's name can be.
const std::string TOO_LONG(65536, 'n');

struct lister_limits : testing::Test {
  lister_limits() {
    store.on_service = [this] {
      log.attach();
      return true;
    };
  }

  /// The blocks of the synchronous lister up to its end.
  std::vector<std::string> walk(const std::list<std::string>& srcs) {
    OBS_Source_Lister lister(std::make_shared<Fake_Store_Service>(store), 1, srcs, &events, nullptr);
    std::vector<std::string> texts;
    for (MTF::Cat_Blk blk; lister.next(blk);)
      texts.push_back(block_text(blk));
    return texts;
  }
  int generate(const std::list<std::string>& srcs) {
    Async_OBS_Source_Lister lister(client, 1, srcs, &events, nullptr, 2, 1000);
    return lister.generate([this](std::unique_ptr<MTF::Cat_Blk> blk) {
      blocks.push_back(block_text(*blk));
      return blocks.back() != refused;
    });
  }

  Log_Sink log;
  Fake_Clock clock;
  Fake_Store store;
  Fake_Store_Client client{store};
  Fake_Event_Handler events;
  std::string refused;
  std::vector<std::string> blocks;
};

TEST_F(lister_limits, walked_object_without_a_block_ends_the_catalog) {
  store.put("b", TOO_LONG);
  EXPECT_EQ((std::vector<std::string>{"VOL", "DIR b/"}), walk({"/b/"}));
  EXPECT_EQ(1u, log.count(LM_ERROR, "Failed to alloc block buffer for file /b/nnn"));
  EXPECT_EQ(0u, log.count("OBS-Lister|FILE|")) << "no block, no line of one";
  EXPECT_EQ(1u, log.count(LM_ERROR, "Failed to list objects.\n"));
}

TEST_F(lister_limits, single_object_without_a_block_ends_the_catalog) {
  store.put("b", TOO_LONG);
  EXPECT_EQ((std::vector<std::string>{"VOL"}), walk({"/b/" + TOO_LONG}));
  EXPECT_EQ(1u, log.count(LM_ERROR, "Failed to alloc block buffer for file '/b/nnn"));
  EXPECT_EQ(1u, log.count(LM_ERROR, "Failed to list objects.\n"));
}

TEST_F(lister_limits, folder_without_a_block_is_named_and_the_walk_goes_on) {
  store.put("b", TOO_LONG + "/k");
  EXPECT_EQ((std::vector<std::string>{"VOL", "DIR b/", "FILE k", "FEND"}), walk({"/b/" + TOO_LONG + "/"}));
  EXPECT_EQ(1u, log.count(LM_ERROR, "Failed to make dir block for 'b/nnn"));
}

TEST_F(lister_limits, pushed_object_without_a_block_is_a_skipped_one_and_ends_the_catalog) {
  store.put("b", TOO_LONG);
  EXPECT_EQ(-1, generate({"/b/"}));
  EXPECT_EQ((std::vector<std::string>{"VOL", "DIR b/"}), blocks);
  EXPECT_EQ(1u, events.skipped_files());
  ASSERT_EQ(1u, events.errors.size());
  const std::string begin = "{\"errno\":null,\"message\":\"Make MTF description block failed.\",\"name\":\"/b/nnn";
  EXPECT_EQ(begin, events.errors[0].substr(0, begin.size()));
  EXPECT_EQ(1u, log.count(LM_ERROR, "Failed to add 'nnn"));
  EXPECT_EQ(0u, log.count("OBS-Lister|FILE|")) << "no block, no line of one";
}

TEST_F(lister_limits, refused_volume_is_named) {
  refused = "VOL";
  EXPECT_EQ(-1, generate({"/b/"}));
  EXPECT_EQ(1u, log.count(LM_ERROR, "Failed to make vol block while generating obs backup list.\n"));
}

TEST_F(lister_limits, debug_line_of_a_walked_file_carries_bucket_prefix_and_name) {
  store.put("b", "p/k");
  walk({"/b/p/"});
  EXPECT_EQ(1u, log.count(LM_DEBUG, "OBS-Lister|FILE|b/p/k.\n"));
}

TEST_F(lister_limits, debug_line_of_a_pushed_file_carries_its_name_only) {
  store.put("b", "p/k");
  EXPECT_EQ(0, generate({"/b/p/"}));
  EXPECT_EQ(1u, log.count(LM_DEBUG, "OBS-Lister|FILE|k.\n"));
}

TEST_F(lister_limits, listing_without_its_statistics_thread_does_not_start) {
  Async_OBS_Object_Lister lister(client, 3, 300, 1000, nullptr);
  {
    const Failing_Spawn failing;
    EXPECT_FALSE(lister.init("b", "p/"));
  }
  EXPECT_EQ(1u, log.count(LM_ERROR, "Failed to spawn stat thread for object iterator on b/p/,errno="));
  Object_Entry object;
  EXPECT_FALSE(lister.next(object));
}

TEST_F(lister_limits, listing_without_one_of_its_workers_does_not_start) {
  for (const int allowed : {1, 2, 3}) {
    log.clear();
    Async_OBS_Object_Lister lister(client, 3, 300, 1000, nullptr);
    {
      const Failing_Spawn failing(allowed);
      EXPECT_FALSE(lister.init("b", "p/"));
    }
    EXPECT_EQ(1u, log.count(LM_ERROR, "Failed to activate worker for object iterator on b/p/, errno="));
    Object_Entry object;
    EXPECT_FALSE(lister.next(object));
  }
}

TEST_F(lister_limits, lister_that_did_not_start_can_be_started_later) {
  store.put("b", "k");
  Async_OBS_Object_Lister lister(client, 2, 300, 1000, nullptr);
  {
    const Failing_Spawn failing(1);
    EXPECT_FALSE(lister.init("b", ""));
  }
  ASSERT_TRUE(lister.init("b", ""));
  Object_Entry object;
  EXPECT_TRUE(lister.next(object));
  EXPECT_EQ("k", object.key);
  EXPECT_FALSE(lister.next(object));
}

TEST_F(lister_limits, prefix_that_cannot_be_started_ends_the_catalog) {
  const Failing_Spawn failing;
  EXPECT_EQ(-1, generate({"/b/"}));
  EXPECT_EQ(1u, log.count(LM_ERROR, "Failed to init async object lister.\n"));
  EXPECT_EQ((std::vector<std::string>{"VOL"}), blocks);
}

TEST_F(lister_limits, wait_that_fails_makes_no_complete_catalog) {
  store.put("b", "p/k");
  Gate gate;
  bool over = false;
  store.on_list = [&](const std::string&, const std::string&, const std::string&) {
    gate.wait([&] { return over; }); // so that there is something to wait for
    return S3_Error();
  };
  Async_OBS_Object_Lister lister(client, 1, 300, 100, nullptr);
  ASSERT_TRUE(lister.init("b", ""));
  Object_Entry object;
  waits_fail = true;
  EXPECT_FALSE(lister.next(object));
  waits_fail = false;
  EXPECT_TRUE(lister.broken_off());
  gate.change([&] { over = true; });
}

TEST_F(lister_limits, largest_size_sequence_and_a_far_time_reach_the_block) {
  store.put("b", "k", ~0ull, 1ull << 33);
  Async_OBS_Source_Lister lister(client, 65535, {"/b/k"}, nullptr, nullptr, 1, 1000);
  ACE_UINT64 size = 0;
  long long mtime = 0;
  EXPECT_EQ(0, lister.generate([&](std::unique_ptr<MTF::Cat_Blk> blk) {
    if (block_text(*blk) == "FILE k") {
      size = blk->hdr().size();
      mtime = blk->mtime();
      EXPECT_EQ(65535u, blk->hdr().seq());
    }
    return true;
  }));
  EXPECT_EQ(~0ull, size);
  EXPECT_EQ(1ll << 33, mtime);
}

} // namespace
