#include "agent/run_errors.h"

#include "agent/agent_log.h"
#include "platform/mtf/engine_log.h"

#include <ace/Log_Msg.h>

#include <gtest/gtest.h>

#include <thread>

namespace {

using json_spirit::Object;
using json_spirit::Value;
typedef std::vector<std::string> Texts;

Object entry(const std::string& type, const std::string& name, const std::string& message) {
  return Object{{"type", type}, {"name", name}, {"errno", Value()}, {"message", message}};
}

Texts messages(const Object& figures) {
  Texts texts;
  for (const Value& error : json_spirit::find(figures, "errors")->get_array())
    texts.push_back(json_spirit::optional_str(error.get_obj(), "message"));
  return texts;
}

TEST(run_errors, line_that_the_account_does_not_explain_becomes_a_problem_of_the_job) {
  Object figures{{"problems", 2}};
  EXPECT_EQ(1u, name_uncovered_errors(figures, "nightly", {"The pool is odd."}));
  EXPECT_EQ(R"([{"errno":null,"message":"The pool is odd.","name":"nightly","type":"job"}])",
            json_spirit::write(*json_spirit::find(figures, "errors")));
  EXPECT_EQ(3, json_spirit::find(figures, "problems")->get_int());
}

TEST(run_errors, line_about_what_the_account_names_is_no_problem_of_its_own) {
  Object figures;
  figures["errors"] =
      json_spirit::Array{entry("directory", "/b/p/", "AccessDenied: no"), entry("file", "/b/x/", "has data")};
  const Texts lines = {"Failed to list all objects in b/p/, last error: other.", "Failed: AccessDenied: no.",
                       "The key 'x/' ending with / is not supported, size: 3."};
  EXPECT_EQ(0u, name_uncovered_errors(figures, "nightly", lines));
  EXPECT_EQ((Texts{"AccessDenied: no", "has data"}), messages(figures));
}

TEST(run_errors, entry_without_name_and_message_explains_nothing) {
  Object figures;
  figures["errors"] = json_spirit::Array{entry("directory", "/", ""), entry("file", "", ""), Value(5)};
  EXPECT_EQ(1u, name_uncovered_errors(figures, "nightly", {"Something else."}));
}

TEST(run_errors, same_line_twice_is_one_problem_and_what_it_names_explains_no_other) {
  Object figures;
  EXPECT_EQ(2u, name_uncovered_errors(figures, "n", {"A.", "A.", "Not A."}));
  EXPECT_EQ((Texts{"A.", "Not A."}), messages(figures));
}

TEST(run_errors, account_that_is_cut_off_gets_no_more) {
  Object figures{{"problems", 3000}};
  json_spirit::Array errors;
  while (errors.size() < 999)
    errors.push_back(entry("file", "/b/" + std::to_string(errors.size()), "m" + std::to_string(errors.size())));
  figures["errors"] = errors;
  EXPECT_EQ(1u, name_uncovered_errors(figures, "n", {"A.", "A."}));
  EXPECT_EQ(0u, name_uncovered_errors(figures, "n", {"B."}));
  EXPECT_EQ(3001, json_spirit::find(figures, "problems")->get_int());
  EXPECT_EQ("A.", messages(figures).back());
}

struct agent_log : testing::Test {
  void SetUp() override { ASSERT_TRUE(log.start("", Agent_Log::QUIET, error)) << error; }
  std::string error;
  Agent_Log log;
};

TEST_F(agent_log, attempt_that_is_repeated_is_no_error) {
  ACE_ERROR((LM_ERROR, "Failed to list.\n"));
  ACE_DEBUG((LM_INFO, "Retry(1) %N:%l at 1 second(s) later.\n"));
  EXPECT_TRUE(log.errors().empty());
  EXPECT_EQ("", log.first_error());
  EXPECT_EQ("Failed to list.", log.last_error());
  ACE_ERROR((LM_ERROR, "Failed to list again.\n"));
  EXPECT_EQ((Texts{"Failed to list again."}), log.errors());
  ACE_ERROR((LM_ERROR, "Given up.\n"));
  EXPECT_EQ((Texts{"Failed to list again.", "Given up."}), log.errors());
  log.clear_errors();
  EXPECT_TRUE(log.errors().empty());
}

TEST_F(agent_log, repetition_of_something_else_leaves_the_error) {
  ACE_ERROR((LM_ERROR, "Failed for good.\n"));
  ACE_DEBUG((LM_INFO, "Something in between.\n"));
  ACE_DEBUG((LM_INFO, "Retry(1) %N:%l at 1 second(s) later.\n"));
  EXPECT_EQ((Texts{"Failed for good."}), log.errors());
  ACE_ERROR((LM_ERROR, "Failed here.\n"));
  std::thread([] {
    ACE_DEBUG((LM_INFO, "Retry(1) %N:%l at 1 second(s) later.\n"));
    ACE_ERROR((LM_ERROR, "Failed there.\n"));
  }).join();
  EXPECT_EQ((Texts{"Failed for good.", "Failed here.", "Failed there."}), log.errors());
  ACE_LOG_MSG->conditional_set("another/file.cpp", 1, 0, 0);
  ACE_LOG_MSG->log(LM_INFO, "Retry(1) %N:%l at 1 second(s) later.\n");
  EXPECT_EQ(3u, log.errors().size());
}

TEST_F(agent_log, what_is_tried_again_after_an_outage_leaves_no_error_of_any_thread) {
  ACE_ERROR((LM_ERROR, "Failed to store object 'd/k' in bucket 'b'.\n"));
  ACE_ERROR((LM_ERROR, "Failed to store object 'd/other' in bucket 'b'.\n"));
  std::thread([] { ACE_ERROR((LM_ERROR, "Failed to upload a part of b/d/k.\n")); }).join();
  std::thread([] { ACE_ERROR((LM_ERROR, "The pool is odd.\n")); }).join();
  log_again("/b/d/k");
  EXPECT_EQ((Texts{"Failed to store object 'd/other' in bucket 'b'.", "The pool is odd."}), log.errors());
  ACE_ERROR((LM_ERROR, "Failed to store object 'd/k' in bucket 'b' for good.\n"));
  EXPECT_EQ(3u, log.errors().size());
}

} // namespace
