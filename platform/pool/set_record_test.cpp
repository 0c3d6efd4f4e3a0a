#include "platform/pool/set_record.h"

#include <gtest/gtest.h>

namespace {

/// The account of a run, in JSON.
std::optional<unsigned long long> missing(const char* figures, bool encrypted = false) {
  json_spirit::Value value;
  EXPECT_TRUE(json_spirit::read(figures, value)) << figures;
  Set_Record record;
  record.figures = value.get_obj();
  record.data_key = encrypted ? "key" : "";
  EXPECT_EQ(record.missing() == 0ull, record.whole()) << figures;
  return record.missing();
}

TEST(set_record, what_is_missing_is_what_the_run_counted) {
  EXPECT_EQ(0ull, missing(R"({"missing":0,"skipped":5})"));
  EXPECT_EQ(3ull, missing(R"({"missing":3,"skipped":0,"failed":0,"rebuilt":"media"})"));
}

TEST(set_record, older_records_give_what_their_run_skipped_failed_and_could_not_list) {
  EXPECT_EQ(0ull, missing(R"({"skipped":0,"failed":0,"errors":[]})"));
  EXPECT_EQ(7ull, missing(R"({"skipped":5,"failed":2,"errors":[{"type":"file","name":"/b/k","message":"x"}]})"));
  // Named twice, it is one prefix; what is said of the run as a whole is none.
  EXPECT_EQ(2ull, missing(R"({"skipped":1,"failed":0,"errors":[
      {"type":"directory","name":"/b/p/","message":"Access Denied"},
      {"type":"directory","name":"/b/p/","message":"Forbidden"},
      {"type":"directory","name":"/","message":"4 objects have tags that were not saved (--tags)."},
      {"type":"directory","name":"/","message":"1 listed objects were not handed out."},
      "no object", {"name":"/b/q/"}]})"));
  EXPECT_EQ(1ull, missing(R"({"skipped":0,"failed":0,"errors":[{"type":"directory","name":"/","message":"gone"}]})"));
}

TEST(set_record, what_cannot_be_known_is_not_taken_for_whole) {
  EXPECT_EQ(std::nullopt, missing("{}"));
  EXPECT_EQ(std::nullopt, missing(R"({"skipped":0})"));
  EXPECT_EQ(std::nullopt, missing(R"({"missing":-1})"));
  EXPECT_EQ(std::nullopt, missing(R"({"missing":"0"})"));
  EXPECT_EQ(std::nullopt, missing(R"({"skipped":0,"failed":0,"rebuilt":"media"})"));
  EXPECT_EQ(0ull, missing(R"({"skipped":0,"failed":0,"rebuilt":"copy","errors":[]})"));
}

TEST(set_record, the_names_of_an_encrypted_record_may_be_out_of_reach) {
  EXPECT_EQ(std::nullopt, missing(R"({"skipped":0,"failed":0})", true));
  EXPECT_EQ(4ull, missing(R"({"skipped":4,"failed":0})", true));
  EXPECT_EQ(0ull, missing(R"({"skipped":0,"failed":0,"errors":[]})", true));
  EXPECT_EQ(0ull, missing(R"({"missing":0})", true));
}

} // namespace
