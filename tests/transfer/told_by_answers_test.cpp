#include "tests/transfer/transfer_fixture.h"

namespace {

/// What the answer to a GET tells beside the object, and what the outcome makes of it.
class Told_By_Answers : public Transfer_Test {
protected:
  void put_tagged(const std::string& key) {
    s3_testing::Object object = s3_testing::make_object("text");
    object.tags = {{"a", "1"}, {"b", "2"}};
    ASSERT_TRUE(server.put("bucket", key, object));
  }
};

TEST_F(Told_By_Answers, tags_that_were_not_asked_for_are_counted_in_one_line) {
  for (int i = 0; i < 5; ++i)
    put_tagged("tagged " + std::to_string(i));
  server.put("bucket", "plain", "text");
  ASSERT_TRUE(backup()) << failure;
  EXPECT_EQ(6u, figure("saved"));
  EXPECT_EQ(0u, figure("incomplete"));
  EXPECT_EQ("5 objects have tags that were not saved (--tags).", reason("/"));
  EXPECT_EQ(MTF::E_OK, code);
  EXPECT_EQ(0u, server.count("GetObjectTagging"));
}

TEST_F(Told_By_Answers, one_object_with_tags_is_one) {
  put_tagged("tagged");
  ASSERT_TRUE(backup()) << failure;
  EXPECT_EQ("1 object has tags that were not saved (--tags).", reason("/"));
}

TEST_F(Told_By_Answers, tags_of_an_object_that_was_not_saved_are_not_counted) {
  put_tagged("kept");
  put_tagged("lost");
  server.add_fault(s3_testing::Fault::wrong_length(5).on("GetObject").key("lost"));
  ASSERT_TRUE(backup()) << failure;
  EXPECT_EQ(1u, figure("saved"));
  EXPECT_EQ("1 object has tags that were not saved (--tags).", reason("/"));
}

TEST_F(Told_By_Answers, nothing_is_said_where_tags_were_asked_for_or_there_are_none) {
  server.put("bucket", "plain", "text");
  ASSERT_TRUE(backup()) << failure;
  EXPECT_EQ("", reason("/"));
  put_tagged("tagged");
  wishes.tags = true;
  new_job();
  ASSERT_TRUE(backup()) << failure;
  EXPECT_EQ(2u, figure("saved"));
  EXPECT_EQ("", reason("/"));
  // Those that were refused are named with their object, once.
  server.remove("bucket", "plain");
  new_job();
  server.configure([](s3_testing::S3_Server_Settings& s) { s.object_attributes = false; });
  ASSERT_TRUE(backup()) << failure;
  EXPECT_EQ(1u, figure("incomplete"));
  EXPECT_NE("", reason("/bucket/tagged"));
  EXPECT_EQ("", reason("/"));
}

/// An object that is written over with the same length in the second of its first date.
class Written_Twice : public Told_By_Answers {
protected:
  void save_and_write_again() {
    server.put("bucket", "key", "old");
    const std::int64_t written = server.object("bucket", "key")->mtime;
    ASSERT_TRUE(backup()) << failure;
    s3_testing::Object again = s3_testing::make_object("new");
    again.mtime = written;
    server.put("bucket", "key", again);
    order.incremental = true;
    order.base_seq = 1;
    new_job();
    ASSERT_TRUE(backup()) << failure;
  }
};

TEST_F(Written_Twice, answer_without_a_date_makes_the_object_one_that_is_read_again) {
  server.configure([](s3_testing::S3_Server_Settings& s) { s.dates = false; });
  save_and_write_again();
  EXPECT_EQ(1u, figure("saved"));
  EXPECT_EQ(0u, figure("unchanged"));
  EXPECT_EQ("new", content(catalog()["bucket/key"]));
}

TEST_F(Written_Twice, answer_that_dates_the_object_long_ago_is_believed) {
  server.configure([](s3_testing::S3_Server_Settings& s) { s.date_ahead = 100; });
  save_and_write_again();
  EXPECT_EQ(0u, figure("saved"));
  EXPECT_EQ(1u, figure("unchanged"));
}

} // namespace
