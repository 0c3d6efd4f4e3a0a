#include "sdk/error/error.h"

#include "sdk/job/job.h"

#include <gtest/gtest.h>

namespace {

Error error(ACE_UINT64 id, json_spirit::Array params = {}) {
  return Error(Error_ID(id), 0, std::move(params));
}

TEST(Error_Id, parts_are_read_from_their_bits) {
  const Error_ID id(0x70000031E0100001ull);
  EXPECT_EQ(1u, id.code());
  EXPECT_EQ(static_cast<unsigned>(LV_ERROR), id.level());
  EXPECT_EQ(static_cast<unsigned>(LV_WARNING), Error_ID(0x50000031E0100003ull).level());
}

TEST(Error_Text, parameter_is_put_in_its_place_once) {
  EXPECT_EQ("The object storage cannot be reached: no %1 route",
            error_text(error(0x70000031E0100001ull, {"no %1 route"})));
  EXPECT_EQ("The backup ended, but objects were skipped: 12.", error_text(error(0x50000031E0100003ull, {12ull})));
  EXPECT_EQ("The restore ended, but objects were skipped: 1.", error_text(error(0x50000031E0200005ull, {1})));
}

TEST(Error_Text, every_known_message_has_a_sentence_with_and_without_parameters) {
  for (const ACE_UINT64 id : {0x70000031E0100001ull, 0x70000031E0100002ull, 0x50000031E0100003ull,
                              0x70000031E0200004ull, 0x50000031E0200005ull, 0x700010000000002Dull,
                              0x7000100000000030ull, 0x7000100000000031ull, 0x7000000000000031ull}) {
    for (const json_spirit::Array& params : {json_spirit::Array{}, json_spirit::Array{""}, json_spirit::Array{"X"}}) {
      const std::string text = error_text(error(id, params));
      EXPECT_EQ(std::string::npos, text.find("Message 0x")) << text;
      EXPECT_EQ(std::string::npos, text.find('%')) << text;
    }
  }
}

TEST(Error_Text, unknown_id_is_shown_with_its_parameters) {
  EXPECT_EQ("Message 0x7000003210100001: a, 5", error_text(error(0x7000003210100001ull, {"a", 5})));
  EXPECT_EQ("Message 0x700000000000002E", error_text(error(0x700000000000002Eull)));
  // The code of a common message, but of a module of its own.
  EXPECT_EQ("Message 0x7000003210100030", error_text(error(0x7000003210100030ull)));
}

TEST(Job_Alerts, level_code_and_flags_make_the_id) {
  const Job_var job(new Job(Job_Definition_var(new Job_Definition)), false);
  write_job_alert(*job, LV_ERROR, COMMON_CODE_FAILED_TO_GET_POOL, MASK_FLAGS, {"pool-1"}, 1);
  write_job_alert(*job, LV_ERROR, COMMON_CODE_FAILED_TO_GET_INCARNATION, 0, {json_spirit::Value()}, 1);
  write_job_alert(*job, Error_ID(0x50000031E0100003ull), {7}, 2);
  const std::vector<Job_Alert> alerts = job->alerts();
  ASSERT_EQ(3u, alerts.size());
  EXPECT_EQ(0x7000100000000030ull, alerts[0].error.id.value());
  EXPECT_EQ("The storage pool 'pool-1' cannot be found or opened.", error_text(alerts[0].error));
  EXPECT_EQ(0x7000000000000031ull, alerts[1].error.id.value());
  EXPECT_EQ("The backup set to restore cannot be found in the pool.", error_text(alerts[1].error));
  EXPECT_EQ(2, alerts[2].count);
  EXPECT_GE(alerts[2].error.time, alerts[0].error.time);
  EXPECT_GT(alerts[0].error.time, 0);
}

} // namespace
