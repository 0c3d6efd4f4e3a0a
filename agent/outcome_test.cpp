#include "agent/outcome.h"

#include <gtest/gtest.h>

TEST(outcome, json_of_a_run_that_never_began_has_every_member) {
  Outcome outcome;
  outcome.failure = "no such bucket";
  const json_spirit::Object json = outcome.to_json();
  EXPECT_EQ("failed", json.at("outcome").get_str());
  EXPECT_EQ("no such bucket", json.at("message").get_str());
  for (const char* name : {"listed", "saved", "unchanged", "excluded", "skipped", "failed", "deleted", "bytes_read",
                           "bytes_stored", "requests", "seconds"})
    EXPECT_EQ(0, json.at(name).get_int64()) << name;
  EXPECT_TRUE(json.at("errors").get_array().empty());
  EXPECT_EQ("", json.at("set").get_str());
}

TEST(outcome, names_follow_the_exit_code) {
  Outcome outcome;
  outcome.code = EXIT_COMPLETED;
  EXPECT_STREQ("completed", outcome.name());
  outcome.code = EXIT_COMPLETED_WITH_ERRORS;
  EXPECT_STREQ("completed with errors", outcome.name());
  outcome.code = EXIT_CANCELLED;
  EXPECT_STREQ("cancelled", outcome.name());
}

TEST(outcome, text_shows_the_equation_and_the_problems) {
  Outcome outcome;
  outcome.code = EXIT_COMPLETED_WITH_ERRORS;
  outcome.set = "abc";
  outcome.figures["listed"] = 3;
  outcome.figures["saved"] = 2;
  outcome.figures["skipped"] = 1;
  json_spirit::Object problem;
  problem["type"] = "file";
  problem["name"] = "b/k";
  problem["message"] = "gone";
  outcome.figures["errors"] = json_spirit::Array{problem};
  const std::string text = outcome.to_text().text();
  EXPECT_NE(std::string::npos, text.find("3 listed = 2 saved + 0 unchanged + 0 excluded + 1 skipped + 0 failed"));
  EXPECT_NE(std::string::npos, text.find("file 'b/k': gone"));
  EXPECT_NE(std::string::npos, text.find("set abc"));
}

TEST(outcome, long_lists_of_problems_are_cut_in_text_only) {
  Outcome outcome;
  json_spirit::Array errors;
  for (int i = 0; i < 50; ++i) {
    json_spirit::Object problem;
    problem["type"] = "file";
    problem["name"] = "b/" + std::to_string(i);
    errors.push_back(problem);
  }
  outcome.figures["errors"] = errors;
  EXPECT_NE(std::string::npos, outcome.to_text().text().find("and 30 more"));
  EXPECT_EQ(50u, outcome.to_json().at("errors").get_array().size());
}

TEST(human_bytes, steps_are_binary) {
  EXPECT_EQ("0 B", human_bytes(0));
  EXPECT_EQ("1023 B", human_bytes(1023));
  EXPECT_EQ("1.0 KiB", human_bytes(1024));
  EXPECT_EQ("64.0 MiB", human_bytes(64ull << 20));
  EXPECT_EQ("5.0 GiB", human_bytes(5ull << 30));
}
