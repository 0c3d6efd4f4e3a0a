#include "sdk/job/compression.h"
#include "sdk/job/host_manager.h"
#include "sdk/job/job_definition.h"

#include <gtest/gtest.h>

#include <cstring>
#include <set>

namespace {

TEST(Names, subtypes_come_back_from_their_text) {
  for (const Job_Definition_Subtype type :
       {JOB_DEFINITION_SUBTYPE_FULL, JOB_DEFINITION_SUBTYPE_INCREMENTAL, JOB_DEFINITION_SUBTYPE_CUMULATIVE,
        JOB_DEFINITION_SUBTYPE_MERGE, JOB_DEFINITION_SUBTYPE_ONDEMAND, JOB_DEFINITION_SUBTYPE_DR_TEST})
    EXPECT_EQ(type, job_def_subtype_from_string(job_def_subtype_to_string(type)));
  EXPECT_STREQ("", job_def_subtype_to_string(JOB_DEFINITION_SUBTYPE_NONE));
  EXPECT_STREQ("", job_def_subtype_to_string(static_cast<Job_Definition_Subtype>(99)));
  EXPECT_EQ(JOB_DEFINITION_SUBTYPE_NONE, job_def_subtype_from_string("Full"));
  EXPECT_EQ(JOB_DEFINITION_SUBTYPE_NONE, job_def_subtype_from_string(""));
}

TEST(Names, every_state_has_a_text_of_its_own) {
  std::set<std::string> texts;
  for (int state = JOB_STATE_NONE; state <= JOB_STATE_OPENING; ++state)
    texts.insert(job_state_to_string(static_cast<Job_State>(state)));
  EXPECT_EQ(26u, texts.size());
  EXPECT_EQ(0u, texts.count(""));
  EXPECT_STREQ("completed_with_errors", job_state_to_string(JOB_STATE_COMPLETED_WITH_ERRORS));
  EXPECT_STREQ("", job_state_to_string(static_cast<Job_State>(99)));
}

TEST(Names, compression_is_read_by_exact_bytes) {
  EXPECT_EQ(COMPR_ZSTD, compression_name_to_value("zstd", 4));
  EXPECT_EQ(COMPR_LZOP, compression_name_to_value("lzop rest", 4));
  EXPECT_EQ(COMPR_AUTO, compression_name_to_value("auto", 4));
  EXPECT_EQ(COMPR_NONE, compression_name_to_value("none", 4));
  EXPECT_EQ(COMPR_NONE, compression_name_to_value("ZSTD", 4));
  EXPECT_EQ(COMPR_NONE, compression_name_to_value("zstd", 3));
  EXPECT_EQ(COMPR_NONE, compression_name_to_value("zstd", -1));
  EXPECT_EQ(COMPR_NONE, compression_name_to_value(nullptr, 4));
  EXPECT_STREQ("auto", compression_value_to_name(COMPR_AUTO));
  EXPECT_EQ(nullptr, compression_value_to_name(COMPR_MAX));
}

TEST(Names, encryption_may_leave_none_without_a_name) {
  EXPECT_STREQ("none", encryption_value_to_name(ENCRYPTION_NONE, false));
  EXPECT_EQ(nullptr, encryption_value_to_name(ENCRYPTION_NONE, true));
  EXPECT_STREQ("aes-256-gcm", encryption_value_to_name(ENCRYPTION_AES_256_GCM, true));
  EXPECT_EQ(nullptr, encryption_value_to_name(static_cast<Encryption_Algorithm>(9), false));
}

TEST(Uuid, text_becomes_its_16_bytes) {
  unsigned char bytes[16];
  ASSERT_TRUE(uuid_string_to_binary("00112233-4455-6677-8899-AABBccddeeff", bytes));
  for (unsigned i = 0; i < 16; ++i)
    EXPECT_EQ(i * 0x11, bytes[i]);
}

TEST(Uuid, text_that_is_none_gives_zeros) {
  const unsigned char zeros[16] = {};
  for (const char* text : {"", "00112233-4455-6677-8899-aabbccddeef", "00112233-4455-6677-8899-aabbccddeeff0",
                           "00112233x4455-6677-8899-aabbccddeeff", "0011223g-4455-6677-8899-aabbccddeeff",
                           "{0112233-4455-6677-8899-aabbccddeef}", "001122334455-6677-8899-aabbccddeeff--"}) {
    unsigned char bytes[16];
    std::memset(bytes, 0xEE, sizeof bytes);
    EXPECT_FALSE(uuid_string_to_binary(text, bytes)) << text;
    EXPECT_EQ(0, std::memcmp(zeros, bytes, sizeof bytes)) << text;
  }
}

TEST(Uuid, new_ones_are_valid_and_differ) {
  std::set<std::string> all;
  for (int i = 0; i < 1000; ++i) {
    const std::string uuid = make_uuid();
    unsigned char bytes[16];
    ASSERT_TRUE(uuid_string_to_binary(uuid, bytes)) << uuid;
    ASSERT_EQ(0x40, bytes[6] & 0xF0);
    ASSERT_EQ(0x80, bytes[8] & 0xC0);
    all.insert(uuid);
  }
  EXPECT_EQ(1000u, all.size());
}

TEST(Host, has_a_name) {
  EXPECT_FALSE(Host_Manager::instance()->name().empty());
}

} // namespace
