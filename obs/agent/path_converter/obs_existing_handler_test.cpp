#include "obs/agent/path_converter/obs_existing_handler.h"

#include "testing/module/failing_allocator.h"
#include "testing/module/fake_s3.h"
#include "testing/module/fake_s3_service.h"
#include "testing/module/gate.h"
#include "testing/module/log_sink.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

MODULE_TESTING_DEFINE_FAILING_ALLOCATOR()
MODULE_TESTING_DEFINE_SERVICE_HOOK()

using namespace module_testing;

namespace {

constexpr time_t TIME = 1700000000;

struct Fixed_Converter : MTF_FS::IPath_Converter {
  explicit Fixed_Converter(MTF::Error_Code result) : result(result) {}
  MTF::Error_Code convert(std::string& path, time_t, bool) const override {
    path += "2";
    return result;
  }
  MTF::Error_Code result;
};

struct existing_handler : testing::Test {
  existing_handler() { store.put("b", "k", 1, TIME); }

  MTF::Error_Code convert(OBS_PATH_CONVERTER_TYPE type, std::string path, time_t mtime = TIME, bool is_dir = false,
                          const MTF_FS::IPath_Converter_var& pre = MTF_FS::IPath_Converter_var()) {
    const OBS_Existing_Handler handler(pre, entry, mapper, type);
    const std::string before = path;
    const MTF::Error_Code result = handler.convert(path, mtime, is_dir);
    if (pre.null()) {
      EXPECT_EQ(before, path);
    }
    return result;
  }

  Log_Sink log;
  Fake_Store store;
  std::shared_ptr<Fake_Store_Service> service = std::make_shared<Fake_Store_Service>(store);
  Service_Hook hook{service};
  Buckets_Mapper mapper;
  json_spirit::Object entry{{"access_key", "a"}, {"secret_key", "s"}, {"scheme", "http"}, {"endpoint", "h"}};
};

TEST_F(existing_handler, policies_without_protection_ask_nothing) {
  EXPECT_EQ(MTF::E_OK, convert(OBS_PCT_NONE, "/b/k"));
  EXPECT_EQ(MTF::E_OK, convert(OBS_PCT_EXISTING_OVERWRITE, "/b/k"));
  EXPECT_EQ(MTF::E_OK, convert(OBS_PCT_EXISTING_OVERWRITE, "/"));
  EXPECT_TRUE(service->heads.empty());
}

TEST_F(existing_handler, folders_pass_under_every_policy) {
  for (OBS_PATH_CONVERTER_TYPE type :
       {OBS_PCT_NONE, OBS_PCT_EXISTING_OVERWRITE, OBS_PCT_EXISTING_SKIP, OBS_PCT_EXISTING_NEWEST})
    EXPECT_EQ(MTF::E_OK, convert(type, "/b/k", TIME, true));
  EXPECT_TRUE(service->heads.empty());
}

TEST_F(existing_handler, skip_leaves_out_what_is_there_only) {
  EXPECT_EQ(MTF::E_SKIP, convert(OBS_PCT_EXISTING_SKIP, "/b/k", TIME + 1));
  EXPECT_EQ(MTF::E_OK, convert(OBS_PCT_EXISTING_SKIP, "/b/other"));
  EXPECT_EQ((std::vector<std::string>{"b|k", "b|other"}), service->heads);
}

TEST_F(existing_handler, newest_wants_a_strictly_newer_file) {
  EXPECT_EQ(MTF::E_SKIP, convert(OBS_PCT_EXISTING_NEWEST, "/b/k", TIME - 1));
  EXPECT_EQ(MTF::E_SKIP, convert(OBS_PCT_EXISTING_NEWEST, "/b/k", TIME));
  EXPECT_EQ(MTF::E_OK, convert(OBS_PCT_EXISTING_NEWEST, "/b/k", TIME + 1));
  EXPECT_EQ(MTF::E_OK, convert(OBS_PCT_EXISTING_NEWEST, "/b/other", 0));
}

TEST_F(existing_handler, negative_time_counts_as_newer_than_any_object) {
  EXPECT_EQ(MTF::E_OK, convert(OBS_PCT_EXISTING_NEWEST, "/b/k", -1));
}

TEST_F(existing_handler, path_that_names_no_bucket_is_left_out) {
  EXPECT_EQ(MTF::E_SKIP, convert(OBS_PCT_EXISTING_SKIP, "/"));
  EXPECT_EQ(MTF::E_SKIP, convert(OBS_PCT_EXISTING_NEWEST, ""));
}

TEST_F(existing_handler, object_that_cannot_be_asked_for_counts_as_missing) {
  store.on_head = [](const std::string&, const std::string&) { return final_failure(); };
  EXPECT_EQ(MTF::E_OK, convert(OBS_PCT_EXISTING_SKIP, "/b/k"));
  EXPECT_TRUE(log.empty());
}

TEST_F(existing_handler, mapped_object_is_the_one_that_counts) {
  mapper.default_mapper().bucket = "t";
  mapper.default_mapper().prefix = "p";
  mapper.default_mapper().add_bucket_prefix = true;
  EXPECT_EQ(MTF::E_OK, convert(OBS_PCT_EXISTING_SKIP, "/b/k"));
  store.put("t", "p/b/k");
  EXPECT_EQ(MTF::E_SKIP, convert(OBS_PCT_EXISTING_SKIP, "/b/k"));
  EXPECT_EQ((std::vector<std::string>{"t|p/b/k", "t|p/b/k"}), service->heads);
}

TEST_F(existing_handler, same_is_what_has_size_and_etag_of_the_file_at_its_mapped_place) {
  mapper.default_mapper().bucket = "t";
  const OBS_Existing_Handler handler(MTF_FS::IPath_Converter_var(), entry, mapper, OBS_PCT_EXISTING_OVERWRITE);
  const MTF::File_Attributes attributes{"", R"({"etag":"0123"})"};
  EXPECT_FALSE(handler.is_same("/b/k", 5, attributes)) << "there is none";
  store.put("t", "k", 5, TIME);
  store.etag = "\"0123\"";
  EXPECT_TRUE(handler.is_same("/b/k", 5, attributes));
  EXPECT_FALSE(handler.is_same("/b/k", 4, attributes));
  EXPECT_FALSE(handler.is_same("/b/k", 5, {"", R"({"etag":"0124"})"}));
  EXPECT_EQ(std::vector<std::string>(4, "t|k"), service->heads);
  // What is not known is not asked about.
  EXPECT_FALSE(handler.is_same("/b/k", 5, {}));
  EXPECT_FALSE(handler.is_same("/b/k", 5, {"", "no JSON"}));
  EXPECT_FALSE(handler.is_same("/", 5, attributes));
  EXPECT_EQ(4u, service->heads.size());
}

TEST_F(existing_handler, threads_do_not_wait_for_one_another) {
  constexpr int THREADS = 4;
  service_maker() = [this](const S3_Service_Options&) { return std::make_shared<Fake_Store_Service>(store); };
  const OBS_Existing_Handler handler(MTF_FS::IPath_Converter_var(), entry, mapper, OBS_PCT_EXISTING_SKIP);
  std::mutex mutex;
  std::condition_variable all;
  int asking = 0;
  // Nobody gets an answer before all have asked.
  store.on_head = [&](const std::string&, const std::string&) {
    std::unique_lock<std::mutex> lock(mutex);
    if (++asking == THREADS)
      all.notify_all();
    EXPECT_TRUE(all.wait_for(lock, std::chrono::seconds(60), [&] { return asking >= THREADS; }));
    return S3_Error();
  };
  std::vector<std::thread> threads;
  for (int i = 0; i < THREADS; ++i)
    threads.emplace_back([&] {
      std::string path = "/b/k";
      EXPECT_EQ(MTF::E_SKIP, handler.convert(path, TIME, false));
    });
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(THREADS, asking);
}

/// Asks for an object from two threads, the second while the first has the only service, and lets the second one's
/// service be what `make` answers. Both have to come through with that one service.
void ask_twice(existing_handler& test, const std::function<std::shared_ptr<S3_Service_Base>()>& make) {
  const OBS_Existing_Handler handler(MTF_FS::IPath_Converter_var(), test.entry, test.mapper, OBS_PCT_EXISTING_SKIP);
  Gate gate;
  bool asking = false;
  bool tried = false;
  const auto wait = [&](const bool& condition) { EXPECT_TRUE(gate.wait([&] { return condition; })); };
  const auto tell = [&](bool& condition) { gate.change([&] { condition = true; }); };
  test.store.on_head = [&](const std::string&, const std::string&) {
    tell(asking);
    wait(tried);
    return S3_Error();
  };
  service_maker() = [&](const S3_Service_Options&) {
    tell(tried);
    return make();
  };
  const auto ask = [&] {
    std::string path = "/b/k";
    EXPECT_EQ(MTF::E_SKIP, handler.convert(path, TIME, false));
  };
  std::thread first(ask);
  wait(asking);
  std::thread second(ask);
  first.join();
  second.join();
  EXPECT_EQ(2u, test.service->heads.size());
}

TEST_F(existing_handler, thread_that_gets_no_service_of_its_own_waits_for_another_ones) {
  int made = 0;
  ask_twice(*this, [&] {
    ++made;
    return nullptr;
  });
  EXPECT_EQ(1, made);
}

TEST_F(existing_handler, service_that_there_is_no_room_for_is_dropped_and_another_ones_waited_for) {
  const auto dropped = std::make_shared<Fake_Store_Service>(store);
  ask_twice(*this, [&] {
    allocations_left = 0;
    return dropped;
  });
  EXPECT_TRUE(dropped->heads.empty());
  EXPECT_EQ(1, dropped.use_count());
}

TEST_F(existing_handler, short_memory_fails_the_file_and_throws_nothing) {
  mapper.default_mapper().bucket = "t";
  mapper.default_mapper().prefix = "a_prefix_that_is_longer_than_a_short_string";
  store.put("t", mapper.default_mapper().prefix + "/k");
  const OBS_Existing_Handler handler(MTF_FS::IPath_Converter_var(), entry, mapper, OBS_PCT_EXISTING_SKIP);
  std::string path = "/b/k";
  for (int nth = 1; nth < 1000; ++nth) {
    errno = 0;
    MTF::Error_Code result = MTF::E_OK;
    bool failed = false;
    int error = 0;
    try {
      const Short_Memory short_memory(nth);
      result = handler.convert_i(path, TIME, false);
      error = errno;
      failed = allocations_left < 0;
    } catch (const std::bad_alloc&) {
      FAIL() << "thrown at allocation " << nth;
    }
    if (!failed) {
      EXPECT_EQ(MTF::E_SKIP, result);
      EXPECT_GT(nth, 3);
      EXPECT_TRUE(log.empty());
      return;
    }
    EXPECT_EQ(MTF::E_FAILED, result) << nth;
    EXPECT_EQ(ENOMEM, error) << nth;
  }
  FAIL() << "there is no end of allocations";
}

TEST_F(existing_handler, without_a_service_every_file_passes) {
  entry.erase("endpoint");
  EXPECT_EQ(MTF::E_OK, convert(OBS_PCT_EXISTING_SKIP, "/b/k"));
  EXPECT_EQ(MTF::E_OK, convert(OBS_PCT_EXISTING_NEWEST, "/", 0));
}

TEST_F(existing_handler, converter_before_it_is_asked_first_and_its_refusal_stands) {
  const MTF_FS::IPath_Converter_var refusing(new Fixed_Converter(MTF::E_SKIP));
  EXPECT_EQ(MTF::E_SKIP, convert(OBS_PCT_EXISTING_SKIP, "/b/other", TIME, false, refusing));
  EXPECT_TRUE(service->heads.empty());
  const MTF_FS::IPath_Converter_var passing(new Fixed_Converter(MTF::E_OK));
  EXPECT_EQ(MTF::E_OK, convert(OBS_PCT_EXISTING_SKIP, "/b/k", TIME, false, passing));
  EXPECT_EQ((std::vector<std::string>{"b|k2"}), service->heads);
}

} // namespace
