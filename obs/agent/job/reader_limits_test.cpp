// What a reader and a writer answer to calls at their edges.

#include "obs/agent/job/buckets_mapper.h"
#include "obs/agent/job/obs_backup_callback.h"
#include "obs/agent/job/obs_restore_callback.h"
#include "testing/module/fake_s3.h"
#include "testing/module/log_sink.h"

#include <gtest/gtest.h>

using namespace module_testing;

namespace {

TEST(reader_limits, receive_that_fails_fails_the_read_and_counts_nothing) {
  Log_Sink log;
  Fake_Store store;
  store.put_data("b", "k", "0123");
  OBS_File_Reader reader(std::make_shared<Fake_Store_Service>(store));
  ASSERT_EQ(0, reader.open("/b/k"));
  MTF::Buffer nowhere(nullptr, 4);
  EXPECT_EQ(1, reader.read(nowhere));
  EXPECT_EQ(0u, nowhere.used());
  char memory[4];
  MTF::Buffer buffer(memory, sizeof(memory));
  EXPECT_EQ(0, reader.read(buffer));
  EXPECT_EQ("0123", std::string(memory, buffer.used()));
}

TEST(reader_limits, reader_without_a_service_is_an_emergency_and_opens_nothing) {
  Log_Sink log;
  OBS_File_Reader reader{nullptr};
  EXPECT_EQ(1, reader.open("/b/k"));
  EXPECT_EQ(1u, log.count(LM_EMERGENCY, "Unexpected error in obs/agent/job/obs_backup_callback.cpp:"));
  EXPECT_EQ(1u, log.count(", svr_ is NULL:\n"));
  EXPECT_FALSE(reader.is_open());
}

TEST(reader_limits, object_that_cannot_be_opened_leaves_none_from_before_open) {
  Log_Sink log;
  Fake_Store store;
  store.put_data("b", "k", "0123");
  OBS_File_Reader reader(std::make_shared<Fake_Store_Service>(store));
  ASSERT_EQ(0, reader.open("/b/k"));
  EXPECT_EQ(1, reader.open("/b/gone"));
  EXPECT_FALSE(reader.is_open());
}

TEST(reader_limits, write_without_a_length_says_so) {
  Log_Sink log;
  const Buckets_Mapper mapper;
  S3_Client client;
  OBS_File_Writer writer(client, mapper);
  EXPECT_EQ(MTF::E_SKIP, writer.write("0", 0));
  EXPECT_EQ(1u, log.count(LM_EMERGENCY, "Unexpected error in obs/agent/job/obs_restore_callback.cpp:"));
  EXPECT_EQ(1u, log.count(", size == 0:\n"));
}

} // namespace
