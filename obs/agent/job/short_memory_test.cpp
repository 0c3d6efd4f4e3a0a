// What is made for the engines and the host, with each of its allocations failing in turn.

#include "obs/agent/job/async_obs_object_lister.h"
#include "obs/agent/job/async_obs_source_lister.h"
#include "obs/agent/job/catalog_blocks.h"
#include "obs/agent/job/obs_backup_callback.h"
#include "obs/agent/job/obs_backup_util.h"
#include "obs/agent/job/obs_job_creator.h"
#include "obs/agent/job/obs_restore_callback.h"
#include "obs/agent/job/obs_source_lister.h"
#include "testing/module/failing_allocator.h"
#include "testing/module/fake_client.h"
#include "testing/module/fake_clock.h"
#include "testing/module/log_sink.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <functional>

MODULE_TESTING_DEFINE_FAILING_ALLOCATOR()

namespace {

/// Calls `make` with its first, second, ... allocation failing, until there is none left to fail. Each time the
/// answer is empty and `errno` is ENOMEM, and nothing is thrown or logged; the last time it is not empty. Returns how
/// many allocations there were.
template <typename MAKE>
int fail_each_allocation(MAKE make) {
  module_testing::Log_Sink log;
  module_testing::reset_fake_client();
  for (int nth = 1; nth < 2000; ++nth) {
    errno = 0;
    bool made = false;
    bool failed = false;
    int error = 0;
    try {
      const module_testing::Short_Memory short_memory(nth);
      made = make();
      error = errno;
      failed = module_testing::allocations_left < 0;
    } catch (const std::bad_alloc&) {
      ADD_FAILURE() << "thrown at allocation " << nth;
      return nth;
    }
    if (!failed) {
      EXPECT_TRUE(made);
      EXPECT_TRUE(log.empty()) << log.lines().front().text;
      return nth - 1;
    }
    EXPECT_FALSE(made) << nth;
    EXPECT_EQ(ENOMEM, error) << nth;
  }
  ADD_FAILURE() << "there is no end of allocations";
  return 0;
}

const char* const LONG_TEXT = "a text that is longer than what a string keeps inside itself";

S3_Client_Options client_options() {
  return S3_Client_Options(LONG_TEXT, LONG_TEXT, 0);
}

TEST(short_memory, job_creator_answers_no_job) {
  OBS_Job_Creator creator;
  for (const Job_Definition_Type type : {JOB_DEFINITION_BACKUP, JOB_DEFINITION_RESTORE}) {
    Job_Definition::Settings settings;
    settings.type = type;
    const Job_Definition_var definition(new Job_Definition(settings));
    EXPECT_GT(fail_each_allocation([&] { return creator.create(definition).get() != nullptr; }), 0);
  }
}

TEST(short_memory, action_handler_is_empty) {
  Job_Definition::Settings settings;
  settings.pre_action = settings.post_action = LONG_TEXT;
  const Job_Definition definition(settings);
  const std::shared_ptr<ACE_Log_Msg_Callback> log;
  // The handler, its pointer, and the two scripts.
  EXPECT_GE(fail_each_allocation([&] { return !make_action_handler(definition, log).null(); }), 4);
}

TEST(short_memory, backup_factory_makes_no_callback) {
  OBS_Backup_Callback_Factory factory("http://127.0.0.1:1", client_options(), 0);
  factory.buckets({LONG_TEXT});
  EXPECT_GE(fail_each_allocation([&] { return !factory.make().null(); }), 3);
}

TEST(short_memory, backup_callback_makes_neither_reader_nor_lister) {
  OBS_Backup_Callback_Factory factory("http://127.0.0.1:1", client_options(), 0);
  const MTF::IBackup_Callback_var callback = factory.make();
  ASSERT_FALSE(callback.null());
  EXPECT_GE(fail_each_allocation([&] { return !callback->make_file_reader().null(); }), 2);
  const std::list<std::string> sources{std::string("/") + LONG_TEXT + "/"};
  EXPECT_GE(
      fail_each_allocation([&] { return !callback->make_source_lister(&sources, 1, nullptr, nullptr, 1).null(); }), 3);
}

TEST(short_memory, status_of_a_path_is_not_told) {
  OBS_Backup_Callback callback({}, 0);
  MTF::Callback_Stat stat;
  EXPECT_GT(fail_each_allocation([&] { return callback.lstat(LONG_TEXT, stat); }), 0);
}

TEST(short_memory, restore_factory_makes_no_callback) {
  const Buckets_Mapper mapper;
  OBS_Restore_Callback_Factory factory("http://127.0.0.1:1", client_options(), mapper);
  EXPECT_GE(fail_each_allocation([&] { return !factory.make().null(); }), 2);
}

TEST(short_memory, restore_callback_makes_no_writer) {
  const Buckets_Mapper mapper;
  OBS_Restore_Callback callback(mapper);
  EXPECT_EQ(2, fail_each_allocation([&] { return !callback.make_file_writer().null(); }));
}

TEST(short_memory, object_in_the_way_is_not_removed) {
  const Buckets_Mapper mapper;
  OBS_Restore_Callback callback(mapper);
  const std::string path = std::string("/") + LONG_TEXT + "/" + LONG_TEXT;
  EXPECT_GT(fail_each_allocation([&] { return callback.unlink(path.c_str()); }), 0);
}

TEST(short_memory, reader_that_cannot_open_is_not_open) {
  module_testing::Log_Sink log;
  OBS_File_Reader reader{nullptr};
  for (int nth = 1; nth <= 2; ++nth) {
    errno = 0;
    const std::string path = std::string("/b/") + LONG_TEXT;
    int opened = 0;
    {
      const module_testing::Short_Memory short_memory(nth);
      opened = reader.open(path.c_str());
    }
    EXPECT_EQ(1, opened);
    EXPECT_EQ(ENOMEM, errno);
    EXPECT_FALSE(reader.is_open());
  }
}

TEST(short_memory, writer_that_cannot_open_skips_its_file) {
  const Buckets_Mapper mapper;
  S3_Client client;
  OBS_File_Writer writer(client, mapper);
  const std::string path = std::string("/") + LONG_TEXT + "/key";
  errno = 0;
  MTF::Error_Code opened = MTF::E_OK;
  {
    const module_testing::Short_Memory short_memory(1);
    opened = writer.open(path.c_str(), 1);
  }
  EXPECT_EQ(MTF::E_SKIP, opened);
  EXPECT_EQ(ENOMEM, errno);
  EXPECT_FALSE(writer.is_open());
}

/// Opens an object and calls `step` of its writer with each allocation failing in turn: a skip with ENOMEM, nothing
/// thrown or logged. Returns how many allocations there were.
template <typename PREPARE, typename STEP>
int fail_each_allocation_of_a_writer(PREPARE prepare, STEP step) {
  module_testing::reset_fake_client();
  module_testing::Log_Sink log;
  const Buckets_Mapper mapper;
  OBS_Restore_Callback callback(mapper);
  for (int nth = 1; nth < 2000; ++nth) {
    const MTF::IFile_Writer_var writer = callback.make_file_writer();
    EXPECT_EQ(MTF::E_OK, writer->open("/b/k", strlen(LONG_TEXT)));
    prepare(*writer);
    errno = 0;
    MTF::Error_Code result = MTF::E_OK;
    bool failed = false;
    int error = 0;
    try {
      const module_testing::Short_Memory short_memory(nth);
      result = step(*writer);
      error = errno;
      failed = module_testing::allocations_left < 0;
    } catch (const std::bad_alloc&) {
      ADD_FAILURE() << "thrown at allocation " << nth;
      return nth;
    }
    EXPECT_TRUE(log.empty());
    if (!failed) {
      EXPECT_EQ(MTF::E_OK, result);
      return nth - 1;
    }
    EXPECT_EQ(MTF::E_SKIP, result) << nth;
    EXPECT_EQ(ENOMEM, error) << nth;
  }
  ADD_FAILURE() << "there is no end of allocations";
  return 0;
}

TEST(short_memory, writer_that_cannot_write_skips_its_file) {
  EXPECT_GT(fail_each_allocation_of_a_writer(
                [](MTF::IFile_Writer&) {},
                [](MTF::IFile_Writer& writer) { return writer.write(LONG_TEXT, strlen(LONG_TEXT)); }),
            0);
}

TEST(short_memory, writer_that_cannot_close_skips_its_file_and_is_not_open) {
  EXPECT_GT(fail_each_allocation_of_a_writer(
                [](MTF::IFile_Writer& writer) { EXPECT_EQ(MTF::E_OK, writer.write(LONG_TEXT, strlen(LONG_TEXT))); },
                [](MTF::IFile_Writer& writer) {
                  const MTF::Error_Code result = writer.close();
                  EXPECT_FALSE(writer.is_open());
                  return result;
                }),
            0);
}

/// Lists sources to the end with each allocation of this thread failing in turn: nothing is thrown, no line names an
/// exception, and a list that ends early without a line of its own has ENOMEM. Returns how many ended so.
int fail_each_allocation_of_a_lister(const std::function<bool(module_testing::Fake_Store& store, int nth)>& list) {
  int quiet = 0;
  for (int nth = 1; nth < 5000; ++nth) {
    module_testing::Log_Sink log;
    module_testing::Fake_Clock clock;
    module_testing::Fake_Store store;
    store.put("bucket-with-a-name-too-long-for-a-short-string", std::string(LONG_TEXT) + "/k");
    store.put("bucket-with-a-name-too-long-for-a-short-string", LONG_TEXT);
    errno = 0;
    bool failed = false;
    try {
      const bool done = list(store, nth);
      const int error = errno;
      failed = module_testing::allocations_left < 0;
      module_testing::allocations_left = -1;
      if (!failed) {
        EXPECT_TRUE(done);
        return quiet;
      }
      if (!done && log.count(LM_ERROR, "Failed to ") == 0) {
        EXPECT_EQ(ENOMEM, error) << nth;
        ++quiet;
      }
    } catch (const std::bad_alloc&) {
      module_testing::allocations_left = -1;
      ADD_FAILURE() << "thrown at allocation " << nth;
      return 0;
    }
    EXPECT_EQ(0u, log.count("bad_alloc"));
  }
  ADD_FAILURE() << "there is no end of allocations";
  return 0;
}

const char* const LONG_BUCKET = "/bucket-with-a-name-too-long-for-a-short-string/";

TEST(short_memory, walk_ends_quietly) {
  EXPECT_GT(fail_each_allocation_of_a_lister([](module_testing::Fake_Store& store, int nth) {
              OBS_Source_Lister lister(std::make_shared<module_testing::Fake_Store_Service>(store), 1, {LONG_BUCKET},
                                       nullptr, nullptr);
              MTF::Cat_Blk blk;
              bool ended = false;
              module_testing::allocations_left = nth - 1;
              while (lister.next(blk))
                ended = blk.hdr().type() == MTF_CAT_FEND_BLK;
              return ended;
            }),
            3);
}

TEST(short_memory, pushed_catalog_ends_quietly) {
  EXPECT_GT(fail_each_allocation_of_a_lister([](module_testing::Fake_Store& store, int nth) {
              module_testing::Fake_Store_Client client(store);
              const std::string object = std::string(LONG_BUCKET) + LONG_TEXT;
              Async_OBS_Source_Lister lister(client, 1, {object}, nullptr, nullptr, 1, 10);
              const Async_OBS_Source_Lister::Handler take = [](std::unique_ptr<MTF::Cat_Blk>) { return true; };
              module_testing::allocations_left = nth - 1;
              return lister.generate(take) == 0;
            }),
            3);
}

TEST(short_memory, object_lister_without_its_first_prefix_is_not_begun) {
  module_testing::Fake_Store store;
  module_testing::Fake_Store_Client client(store);
  Async_OBS_Object_Lister lister(client, 1, 300, 10, nullptr);
  bool begun = true;
  for (int nth = 1; begun && nth < 100; ++nth) {
    errno = 0;
    const module_testing::Short_Memory short_memory(nth);
    try {
      begun = lister.init("b", "p/");
    } catch (const std::bad_alloc&) {
      // What throws is the caller's to catch.
    }
  }
  EXPECT_FALSE(begun);
  EXPECT_EQ(ENOMEM, errno);
  store.put("b", "p/k");
  ASSERT_TRUE(lister.init("b", "p/"));
  Object_Entry object;
  EXPECT_TRUE(lister.next(object));
  EXPECT_EQ("p/k", object.key);
}

// A folder that cannot be made is named, and what is in it is walked all the same.
TEST(short_memory, folder_without_memory_is_named_and_the_walk_goes_on) {
  int named = 0;
  for (int nth = 1; nth < 5000; ++nth) {
    module_testing::Log_Sink log;
    module_testing::Fake_Store store;
    store.put("bucket-with-a-name-too-long-for-a-short-string", std::string(LONG_TEXT) + "/k");
    OBS_Source_Lister lister(std::make_shared<module_testing::Fake_Store_Service>(store), 1, {LONG_BUCKET}, nullptr,
                             nullptr);
    MTF::Cat_Blk blk;
    std::string types;
    module_testing::allocations_left = nth - 1;
    while (lister.next(blk))
      types += blk.hdr().type() == MTF_CAT_DIRB_BLK ? 'D' : blk.hdr().type() == MTF_CAT_FEND_BLK ? '.' : 'o';
    const bool failed = module_testing::allocations_left < 0;
    module_testing::allocations_left = -1;
    if (!failed) {
      EXPECT_EQ("oDDo.", types);
      EXPECT_GE(named, 6);
      return;
    }
    if (log.count(LM_ERROR, "Failed to make dir block for 'bucket-with-a-name-too-long-for-a-short-string/") > 0) {
      ++named;
      EXPECT_EQ("oDo.", types) << nth;
    }
  }
  FAIL() << "there is no end of allocations";
}

TEST(short_memory, folder_block_without_memory_is_logged_wherever_it_strikes) {
  module_testing::Log_Sink log;
  const std::string path = LONG_TEXT;
  size_t lost = 0;
  for (int nth = 1; nth < 100; ++nth) {
    bool made = false;
    bool failed = false;
    {
      const module_testing::Short_Memory short_memory(nth);
      made = catalog_blocks::make_dir(1, path) != nullptr;
      failed = module_testing::allocations_left < 0;
    }
    if (!failed) {
      EXPECT_TRUE(made);
      EXPECT_GE(lost, 2u);
      return;
    }
    lost += !made;
    EXPECT_EQ(lost, log.count(LM_ERROR, "Failed to make dir block for '"));
  }
  FAIL() << "there is no end of allocations";
}

// What a worker has lost would count as deleted in an incremental backup, were the catalog taken for whole.
TEST(short_memory, worker_without_memory_never_makes_part_of_a_catalog_the_whole) {
  module_testing::Fake_Store store;
  const std::string folder = std::string(LONG_TEXT) + "/";
  for (const char* key : {"1/k", "2/3/k", "k"})
    store.put("b", folder + key);
  int whole = 0;
  int broken = 0;
  for (int nth = 0; whole < 50 && nth < 5000; ++nth) {
    module_testing::Log_Sink log;
    store.on_service = [&] {
      log.attach();
      module_testing::allocations_left = nth;
      return true;
    };
    module_testing::Fake_Store_Client client(store);
    Async_OBS_Source_Lister lister(client, 1, {"/b/"}, nullptr, nullptr, 1, 100);
    size_t blocks = 0;
    const int result = lister.generate([&](std::unique_ptr<MTF::Cat_Blk>) { return ++blocks > 0; });
    if (result == 0) {
      // VOL, "b/", the folder, "1/", "2/", "3/", three objects, FEND.
      ASSERT_EQ(10u, blocks) << nth;
      ++whole;
    } else {
      whole = 0;
      ++broken;
      EXPECT_EQ(1u, log.count(LM_ERROR, "The listing of 'b/' broke off.")) << nth;
    }
  }
  EXPECT_EQ(50, whole);
  EXPECT_GT(broken, 20);
}

} // namespace
