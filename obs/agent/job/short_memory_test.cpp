// What is made for the engines and the host, with each of its allocations failing in turn.

#include "obs/agent/job/obs_backup_callback.h"
#include "obs/agent/job/obs_backup_util.h"
#include "obs/agent/job/obs_job_creator.h"
#include "obs/agent/job/obs_restore_callback.h"
#include "testing/module/failing_allocator.h"
#include "testing/module/fake_client.h"
#include "testing/module/log_sink.h"

#include <gtest/gtest.h>

#include <cerrno>

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

S3_Client_Options client_options() { return S3_Client_Options(LONG_TEXT, LONG_TEXT, 0); }

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
  EXPECT_GE(fail_each_allocation([&] {
              return !callback->make_source_lister(&sources, 1, nullptr, nullptr, 1).null();
            }),
            3);
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

} // namespace
