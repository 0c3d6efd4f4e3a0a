#include "tests/transfer/transfer_fixture.h"

namespace {

class Archived_Objects : public Transfer_Test {
protected:
  void put(const std::string& key, const std::string& storage_class, const std::string& bytes = "cold") {
    s3_testing::Object object = s3_testing::make_object(bytes);
    object.storage_class = storage_class;
    ASSERT_TRUE(server.put("bucket", key, object));
  }

  /// The answer of a service whose listing tells nothing.
  void freeze_unlisted(const std::string& key) {
    server.put("bucket", key, "cold");
    server.add_fault(s3_testing::Fault::error(403, "InvalidObjectState").on("GetObject").key(key));
  }

  unsigned requests(const std::string& key, const std::string& operation) {
    unsigned count = 0;
    for (const s3_testing::Request_Info& request : server.log())
      count += request.key == key && request.operation == operation;
    return count;
  }
};

TEST_F(Archived_Objects, object_that_is_listed_in_an_archive_is_skipped_without_a_request) {
  put("a", "GLACIER");
  put("d/b", "DEEP_ARCHIVE");
  put("c", "STANDARD_IA", "warm");
  server.keep_log(true);
  ASSERT_TRUE(backup()) << failure;
  EXPECT_EQ(1u, figure("saved"));
  EXPECT_EQ(2u, figure("skipped"));
  EXPECT_NE(std::string::npos, reason("/bucket/a").find("archive (GLACIER)")) << reason("/bucket/a");
  EXPECT_NE(std::string::npos, reason("/bucket/d/b").find("archive (DEEP_ARCHIVE)"));
  EXPECT_EQ(1u, server.count("GetObject"));
  EXPECT_EQ(0u, server.count("RestoreObject"));
  EXPECT_EQ(MTF::E_END_WITH_SKIPPED_FILES, code);
}

TEST_F(Archived_Objects, what_no_listing_tells_costs_one_request_and_is_skipped_with_the_reason) {
  for (int i = 0; i < 20; ++i)
    freeze_unlisted("frozen " + std::to_string(i));
  server.put("bucket", "warm", "warm");
  server.keep_log(true);
  ASSERT_TRUE(backup()) << failure;
  EXPECT_EQ(1u, figure("saved"));
  EXPECT_EQ(20u, figure("skipped"));
  for (int i = 0; i < 20; ++i) {
    const std::string key = "frozen " + std::to_string(i);
    EXPECT_EQ(1u, requests(key, "GetObject"));
    EXPECT_NE(std::string::npos, reason("/bucket/" + key).find("archive")) << reason("/bucket/" + key);
  }
  EXPECT_EQ(0u, clock.sleeps());
}

TEST_F(Archived_Objects, they_count_as_failed_where_the_job_says_so) {
  new_job("fail");
  put("a", "GLACIER");
  freeze_unlisted("b");
  server.put("bucket", "warm", "warm");
  ASSERT_TRUE(backup()) << failure;
  EXPECT_EQ(1u, figure("saved"));
  EXPECT_EQ(0u, figure("skipped"));
  EXPECT_EQ(2u, figure("failed"));
  EXPECT_NE(std::string::npos, reason("/bucket/a").find("archive (GLACIER)"));
}

TEST_F(Archived_Objects, service_is_asked_once_to_thaw_them_and_what_is_thawed_is_read) {
  new_job("request");
  put("a", "GLACIER");
  put("refused", "GLACIER");
  server.put("bucket", "warm", "warm");
  server.add_fault(s3_testing::Fault::error(503, "SlowDown").on("RestoreObject").key("refused"));
  server.keep_log(true);
  ASSERT_TRUE(backup()) << failure;
  EXPECT_EQ(1u, figure("saved"));
  EXPECT_EQ(2u, figure("skipped"));
  EXPECT_EQ(1u, requests("a", "GetObject"));
  EXPECT_EQ(1u, requests("a", "RestoreObject"));
  EXPECT_EQ(1u, requests("refused", "RestoreObject"));
  EXPECT_NE(std::string::npos, reason("/bucket/a").find("was asked to thaw"));
  EXPECT_NE(std::string::npos, reason("/bucket/refused").find("refuses to thaw it: SlowDown"));
  EXPECT_EQ(1u, ledger->thaw_requests);

  // The next run finds the service at it already.
  new_job("request");
  server.clear_faults();
  ASSERT_TRUE(backup()) << failure;
  EXPECT_EQ(2u, figure("skipped"));
  EXPECT_NE(std::string::npos, reason("/bucket/a").find("was asked to thaw"));

  s3_testing::Object thawed = *server.object("bucket", "a");
  thawed.headers["x-amz-restore"] = "ongoing-request=\"false\", expiry-date=\"Fri, 21 Dec 2029 00:00:00 GMT\"";
  server.put("bucket", "a", thawed);
  new_job("request");
  ASSERT_TRUE(backup()) << failure;
  EXPECT_EQ(2u, figure("saved"));
  EXPECT_EQ("cold", content(catalog()["bucket/a"]));
}

TEST_F(Archived_Objects, object_that_is_asked_for_by_name_is_seen_from_its_head) {
  put("a", "GLACIER");
  put("b", "GLACIER");
  s3_testing::Object thawed = *server.object("bucket", "b");
  thawed.headers["x-amz-restore"] = "ongoing-request=\"false\", expiry-date=\"Fri, 21 Dec 2029 00:00:00 GMT\"";
  server.put("bucket", "b", thawed);
  order.sources = {"/bucket/a", "/bucket/b"};
  server.keep_log(true);
  ASSERT_TRUE(backup()) << failure;
  EXPECT_EQ(1u, figure("saved"));
  EXPECT_EQ(1u, figure("skipped"));
  EXPECT_EQ(0u, requests("a", "GetObject"));
  EXPECT_NE(std::string::npos, reason("/bucket/a").find("archive (GLACIER)"));
  EXPECT_EQ("cold", content(catalog()["bucket/b"]));
}

TEST_F(Archived_Objects, unchanged_ones_are_not_read_and_not_skipped) {
  // What was written just before it is read would be read again.
  server.configure([](s3_testing::S3_Server_Settings& settings) { settings.date_ahead = 10; });
  put("a", "STANDARD");
  order.base_seq = 0;
  ASSERT_TRUE(backup()) << failure;
  // A life-cycle rule moves the object to the archive: content and date stay.
  s3_testing::Object moved = *server.object("bucket", "a");
  moved.storage_class = "GLACIER";
  server.put("bucket", "a", moved);
  new_job();
  order.base_seq = 1;
  order.incremental = true;
  ASSERT_TRUE(backup()) << failure;
  EXPECT_EQ(1u, figure("unchanged"));
  EXPECT_EQ(0u, figure("skipped"));
}

} // namespace
