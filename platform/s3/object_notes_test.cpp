#include "platform/s3/object_notes.h"

#include <gtest/gtest.h>

namespace {

S3_Error error(const std::string& code) {
  return S3_Error(EIO, 500, code, "", false);
}

TEST(object_notes, policies_go_by_their_names) {
  EXPECT_EQ(Archived_Policy::SKIP, archived_policy_from_string("skip"));
  EXPECT_EQ(Archived_Policy::FAIL, archived_policy_from_string("fail"));
  EXPECT_EQ(Archived_Policy::REQUEST, archived_policy_from_string("request"));
  EXPECT_FALSE(archived_policy_from_string("Skip"));
  EXPECT_FALSE(archived_policy_from_string(""));
}

TEST(object_notes, reason_is_the_last_one_and_is_taken_once) {
  Object_Notes notes;
  EXPECT_FALSE(notes.take_refusal("/b/a"));
  notes.refused("/b/a", error("First"));
  notes.refused("/b/a", error("Second"));
  notes.refused("/b/c", error("Third"));
  notes.granted("/b/c");
  EXPECT_FALSE(notes.take_refusal("/b/c"));
  EXPECT_EQ("Second", notes.take_refusal("/b/a")->code());
  EXPECT_FALSE(notes.take_refusal("/b/a"));
}

TEST(object_notes, reasons_that_nobody_takes_do_not_pile_up) {
  Object_Notes notes;
  const size_t count = 3 * Object_Notes::MAX_REFUSALS;
  for (size_t i = 0; i < count; ++i)
    notes.refused("/b/" + std::to_string(i), error("Code"));
  size_t kept = 0;
  for (size_t i = 0; i < count; ++i)
    kept += notes.take_refusal("/b/" + std::to_string(i)).has_value();
  EXPECT_EQ(Object_Notes::MAX_REFUSALS, kept);
}

TEST(object_notes, archived_object_is_told_once_with_its_class) {
  Object_Notes notes;
  EXPECT_EQ("", notes.take_archived("/b/a"));
  notes.archived("/b/a", "GLACIER");
  notes.archived("/b/b", "DEEP_ARCHIVE");
  EXPECT_EQ("", notes.take_archived("/b/c"));
  EXPECT_EQ("DEEP_ARCHIVE", notes.take_archived("/b/b"));
  EXPECT_EQ("GLACIER", notes.take_archived("/b/a"));
  EXPECT_EQ("", notes.take_archived("/b/a"));
}

TEST(object_notes, oldest_archived_objects_are_forgotten_first) {
  Object_Notes notes;
  const size_t count = 2 * Object_Notes::MAX_ARCHIVED + 1;
  for (size_t i = 0; i < count; ++i)
    notes.archived("/b/" + std::to_string(i), "GLACIER");
  EXPECT_EQ("", notes.take_archived("/b/0"));
  for (size_t i = Object_Notes::MAX_ARCHIVED; i < count; ++i)
    ASSERT_EQ("GLACIER", notes.take_archived("/b/" + std::to_string(i))) << i;
}

TEST(object_notes, more_class_names_than_there_is_room_for_are_left_to_the_service) {
  Object_Notes notes;
  for (int i = 0; i < 100; ++i)
    notes.archived("/b/" + std::to_string(i), "CLASS" + std::to_string(i));
  EXPECT_EQ("CLASS0", notes.take_archived("/b/0"));
  EXPECT_EQ("", notes.take_archived("/b/99"));
}

} // namespace
