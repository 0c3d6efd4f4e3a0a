#include "tests/transfer/transfer_fixture.h"

#include "obs/agent/path_converter/obs_existing_handler.h"

#include <cerrno>

namespace {

using s3_testing::Fault;

constexpr int OBJECTS = 8;

/// Restores into a bucket whose objects are newer than the set, or whose service refuses.
class Occupied_Target : public Transfer_Test {
protected:
  explicit Occupied_Target(const std::string& etag = {}) {
    for (int i = 0; i < OBJECTS; ++i) {
      s3_testing::Object object = s3_testing::make_object("old " + std::to_string(i));
      object.etag = etag;
      server.put("bucket", key(i), object);
    }
    EXPECT_TRUE(backup()) << failure;
    for (int i = 0; i < OBJECTS; ++i)
      server.put("bucket", key(i), "new " + std::to_string(i));
    mapper_.default_mapper().bucket = "bucket";
    new_job();
  }

  static std::string key(int i) { return "d/key " + std::to_string(i); }
  static std::string path(int i) { return "/bucket/" + key(i); }

  bool restore_with(OBS_PATH_CONVERTER_TYPE policy) {
    const json_spirit::Object entry{
        {"access_key", access}, {"secret_key", secret}, {"scheme", "http"}, {"endpoint", server.endpoint()}};
    converter =
        MTF_FS::IPath_Converter_var(new OBS_Existing_Handler(MTF_FS::IPath_Converter_var(), entry, mapper_, policy));
    return restore(mapper_);
  }

  bool is_new(int i) { return server.get("bucket", key(i)) == "new " + std::to_string(i); }
  int new_objects() {
    int count = 0;
    for (int i = 0; i < OBJECTS; ++i)
      count += is_new(i);
    return count;
  }
  /// Nothing was sent that changes a bucket.
  void expect_untouched() {
    EXPECT_EQ(OBJECTS, new_objects());
    EXPECT_EQ(0u, server.count("DeleteObject"));
    EXPECT_EQ(0u, server.count("PutObject"));
    EXPECT_EQ(0u, server.count("CreateMultipartUpload"));
  }

  Buckets_Mapper mapper_;
};

class Unseen_Target : public Occupied_Target, public testing::WithParamInterface<OBS_PATH_CONVERTER_TYPE> {};

TEST_P(Unseen_Target, busy_service_overwrites_nothing) {
  server.add_fault(Fault::error(503, "SlowDown").on("HeadObject"));
  EXPECT_FALSE(restore_with(GetParam()));
  expect_untouched();
  EXPECT_EQ(unsigned(OBJECTS), figure("failed"));
  EXPECT_EQ(0u, figure("saved"));
  EXPECT_EQ(0u, figure("unchanged"));
  for (int i = 0; i < OBJECTS; ++i)
    EXPECT_NE(std::string::npos, reason(path(i)).find("ServiceUnavailable: ")) << reason(path(i));
}

TEST_P(Unseen_Target, look_is_repeated_within_the_jobs_bound) {
  new_job("skip", 60);
  server.add_fault(Fault::error(503, "SlowDown").on("HeadObject").times(3));
  EXPECT_TRUE(restore_with(GetParam())) << failure;
  expect_untouched();
  EXPECT_EQ(unsigned(OBJECTS), figure("unchanged"));
  EXPECT_EQ(OBJECTS + 3u, server.count("HeadObject"));
  EXPECT_LE(3u, clock.slept());
}

TEST_P(Unseen_Target, service_that_stays_busy_is_waited_for_no_longer_than_the_bound) {
  new_job("skip", 10);
  server.add_fault(Fault::error(503, "SlowDown").on("HeadObject").key(key(0)));
  EXPECT_TRUE(restore_with(GetParam())) << failure;
  expect_untouched();
  EXPECT_EQ(1u, figure("failed"));
  EXPECT_EQ(OBJECTS - 1u, figure("unchanged"));
  EXPECT_LE(10u, clock.slept());
  EXPECT_GT(40u, clock.slept());
}

TEST_P(Unseen_Target, object_that_may_not_be_looked_at_is_named_and_left_alone) {
  server.add_fault(Fault::error(403, "AccessDenied").on("HeadObject").key(key(3)));
  EXPECT_TRUE(restore_with(GetParam())) << failure;
  expect_untouched();
  EXPECT_EQ(1u, figure("failed"));
  EXPECT_EQ(OBJECTS - 1u, figure("unchanged"));
  EXPECT_NE(std::string::npos, reason(path(3)).find("left as it is")) << reason(path(3));
  EXPECT_NE(std::string::npos, reason(path(3)).find("AccessDenied: ")) << reason(path(3));
  EXPECT_EQ(MTF::E_END_WITH_SKIPPED_FILES, code);
}

TEST_P(Unseen_Target, one_that_is_seen_to_be_missing_is_written) {
  server.remove("bucket", key(5));
  EXPECT_TRUE(restore_with(GetParam())) << failure;
  EXPECT_EQ(1u, figure("saved"));
  EXPECT_EQ(OBJECTS - 1u, figure("unchanged"));
  EXPECT_EQ("old 5", server.get("bucket", key(5)));
}

INSTANTIATE_TEST_SUITE_P(policies, Unseen_Target, testing::Values(OBS_PCT_EXISTING_SKIP, OBS_PCT_EXISTING_NEWEST),
                         [](const testing::TestParamInfo<OBS_PATH_CONVERTER_TYPE>& info) {
                           return std::string(info.param == OBS_PCT_EXISTING_SKIP ? "skip" : "newest");
                         });

/// How a target refuses to be written: what it says is the reason in the outcome.
struct Refusal {
  const char* name;
  const char* operation;
  int status;
  const char* code;
  const char* told; ///< in the outcome
};

void PrintTo(const Refusal& refusal, std::ostream* out) {
  *out << refusal.name;
}

class Refusing_Target : public Occupied_Target, public testing::WithParamInterface<Refusal> {
protected:
  // Whose ETag is no digest is stored in parts, if it is larger than one.
  Refusing_Target() : Occupied_Target("made-up") {}
};

TEST_P(Refusing_Target, reason_is_in_the_outcome) {
  const Refusal& refusal = GetParam();
  settings.part_size = 4;
  server.configure([](s3_testing::S3_Server_Settings& s) { s.min_part_size = 1; });
  server.add_fault(Fault::error(refusal.status, refusal.code).on(refusal.operation).key(key(2)));
  EXPECT_TRUE(restore_with(OBS_PCT_EXISTING_OVERWRITE)) << failure;
  EXPECT_EQ(OBJECTS - 1u, figure("saved"));
  EXPECT_EQ(1u, figure("skipped"));
  EXPECT_LE(OBJECTS - 1u, server.count("CreateMultipartUpload"));
  EXPECT_EQ(0u, server.open_uploads());
  const std::string said = reason(path(2));
  EXPECT_NE(std::string::npos, said.find(std::string(refusal.told) + ": ")) << said;
  EXPECT_NE(std::string::npos, said.find("HTTP " + std::to_string(refusal.status))) << said;
  EXPECT_EQ(1u, said.find("he object could")) << said;
  // A reason is nobody else's.
  for (int i = 0; i < OBJECTS; ++i)
    EXPECT_EQ(i == 2, !reason(path(i)).empty()) << reason(path(i));
}

INSTANTIATE_TEST_SUITE_P(
    each, Refusing_Target,
    testing::Values(Refusal{"begin_denied", "CreateMultipartUpload", 403, "AccessDenied", "AccessDenied"},
                    Refusal{"part_over_quota", "UploadPart", 403, "QuotaExceeded", "QuotaExceeded"},
                    Refusal{"part_without_room", "UploadPart", 507, "", "InsufficientStorage"},
                    Refusal{"end_over_quota", "CompleteMultipartUpload", 403, "QuotaExceeded", "QuotaExceeded"}),
    [](const testing::TestParamInfo<Refusal>& info) { return info.param.name; });

TEST_F(Occupied_Target, who_may_write_and_not_delete_can_restore) {
  server.add_fault(Fault::error(403, "AccessDenied").on("DeleteObject"));
  EXPECT_TRUE(restore(mapper_)) << failure;
  EXPECT_EQ(OBJECTS + 0u, figure("saved"));
  for (int i = 0; i < OBJECTS; ++i)
    EXPECT_EQ("", reason(path(i)));
}

TEST_F(Occupied_Target, object_stored_at_once_is_refused_with_the_reason) {
  server.add_fault(Fault::error(403, "QuotaExceeded").on("PutObject").key(key(1)));
  server.add_fault(Fault::error(507, "").on("PutObject").key(key(6)));
  EXPECT_TRUE(restore(mapper_)) << failure;
  EXPECT_EQ(OBJECTS - 2u, figure("saved"));
  EXPECT_EQ(2u, figure("skipped"));
  EXPECT_NE(std::string::npos, reason(path(1)).find("QuotaExceeded: ")) << reason(path(1));
  EXPECT_NE(std::string::npos, reason(path(6)).find("InsufficientStorage: ")) << reason(path(6));
}

} // namespace
