#include "obs/agent/job/obs_backup_util.h"

#include "sdk/job/job_definition.h"
#include "testing/module/fake_s3_service.h"
#include "testing/module/log_sink.h"
#include "testing/s3_server/s3_server.h"

#include <gtest/gtest.h>

#include <algorithm>

MODULE_TESTING_DEFINE_SERVICE_HOOK()

using json_spirit::Array;
using json_spirit::Object;
using module_testing::bucket;

namespace {

typedef std::unordered_set<std::string> Names;

struct connection : testing::Test {
  bool connect() { return try_connect(entry, buckets, error); }
  /// Confines the account to these buckets.
  void confine(const Array& names) { entry["extended_attrs"] = Object{{"buckets", names}}; }

  Object entry{{"access_key", "a"}, {"secret_key", "s"}, {"scheme", "http"}, {"endpoint", "s3.test"}};
  Names buckets;
  std::string error;
  module_testing::Log_Sink log;
  std::shared_ptr<module_testing::Fake_S3_Service> service = std::make_shared<module_testing::Fake_S3_Service>();
  module_testing::Service_Hook hook{service};
};

TEST_F(connection, record_that_makes_no_client_fails) {
  entry.erase("endpoint");
  EXPECT_FALSE(connect());
  EXPECT_EQ("Failed to create s3 client from obs entry.", error);
}

TEST_F(connection, client_is_made_before_the_buckets_are_checked) {
  entry.erase("endpoint");
  buckets = {"a"};
  confine({"b"});
  EXPECT_FALSE(connect());
  EXPECT_EQ("Failed to create s3 client from obs entry.", error);
}

TEST_F(connection, one_bucket_of_the_job_that_answers_is_enough) {
  buckets = {"gone", "there"};
  service->buckets = {"there"};
  EXPECT_TRUE(connect());
  EXPECT_EQ("there", service->asked_buckets.back());
  EXPECT_TRUE(service->service_markers.empty());
  EXPECT_TRUE(log.empty());
}

TEST_F(connection, no_bucket_of_the_job_that_answers_fails_with_the_last_code) {
  buckets = {"a", "b"};
  EXPECT_FALSE(connect());
  EXPECT_EQ("Failed to get all buckets, errcode: NoSuchBucket.", error);
  EXPECT_EQ(2u, service->asked_buckets.size());
  EXPECT_TRUE(log.empty());
}

TEST_F(connection, bucket_outside_the_accounts_list_is_refused_before_any_request) {
  buckets = {"a"};
  confine({"b"});
  EXPECT_FALSE(connect());
  EXPECT_EQ("Job bucket \"a\" doesn't belong to the given entry", error);
  EXPECT_TRUE(service->asked_buckets.empty());
  EXPECT_TRUE(service->service_markers.empty());
}

TEST_F(connection, buckets_inside_the_accounts_list_are_asked_for) {
  buckets = {"a"};
  confine({"a", "b"});
  service->buckets = {"a"};
  EXPECT_TRUE(connect());
  EXPECT_EQ((std::vector<std::string>{"a"}), service->asked_buckets);
  EXPECT_EQ((Names{"a"}), buckets);
}

TEST_F(connection, job_without_buckets_gets_the_texts_of_the_accounts_list) {
  confine({"a", 5, "b"});
  service->buckets = {"a", "b"};
  EXPECT_TRUE(connect());
  EXPECT_EQ((Names{"a", "b"}), buckets);
  EXPECT_EQ(1u, service->asked_buckets.size());
}

TEST_F(connection, empty_list_of_the_account_counts_as_none) {
  confine({});
  service->add_service_page({bucket("x"), bucket("y")});
  service->buckets = {"y"};
  EXPECT_TRUE(connect());
  EXPECT_TRUE(buckets.empty());
  EXPECT_EQ((std::vector<std::string>{"x", "y"}), service->asked_buckets);
}

TEST_F(connection, list_without_a_text_leaves_the_listing_to_decide) {
  confine({5});
  service->add_service_page({bucket("x")});
  service->buckets = {"x"};
  EXPECT_TRUE(connect());
}

TEST_F(connection, listing_that_fails_is_reported_with_its_code) {
  service->add_service_failure(S3_Error(13, 403, "AccessDenied", "no", false));
  EXPECT_FALSE(connect());
  EXPECT_EQ("Failed to list buckets, code: AccessDenied.", error);
}

TEST_F(connection, empty_listing_fails) {
  service->add_service_page({});
  EXPECT_FALSE(connect());
  EXPECT_EQ("Failed to get all buckets, errcode: .", error);
}

TEST_F(connection, listing_of_buckets_that_do_not_answer_fails_with_the_last_code) {
  service->add_service_page({bucket("x")});
  EXPECT_FALSE(connect());
  EXPECT_EQ("Failed to get all buckets, errcode: NoSuchBucket.", error);
}

/// The same against a server that speaks the protocol.
struct real_connection : testing::Test {
  real_connection() {
    const s3_testing::S3_Server_Options options;
    entry = Object{{"scheme", "http"},
                   {"endpoint", s3.endpoint()},
                   {"access_key", options.access_key},
                   {"secret_key", options.secret_key},
                   {"region", options.region}};
    s3.create_bucket("there");
  }
  s3_testing::S3_Server s3;
  Object entry;
  Names buckets;
  std::string error;
};

TEST_F(real_connection, job_bucket_that_is_there_connects) {
  buckets = {"there"};
  EXPECT_TRUE(try_connect(entry, buckets, error)) << error;
  EXPECT_EQ(1u, s3.count());
}

TEST_F(real_connection, account_with_a_bucket_connects) {
  EXPECT_TRUE(try_connect(entry, buckets, error)) << error;
  EXPECT_TRUE(buckets.empty());
}

TEST_F(real_connection, wrong_key_is_told_by_its_code) {
  entry["secret_key"] = "wrong";
  EXPECT_FALSE(try_connect(entry, buckets, error));
  EXPECT_EQ("Failed to list buckets, code: SignatureDoesNotMatch.", error);
}

TEST_F(real_connection, missing_bucket_fails) {
  buckets = {"gone"};
  EXPECT_FALSE(try_connect(entry, buckets, error));
  EXPECT_EQ("Failed to get all buckets, errcode: ", error.substr(0, 36));
}

/// The handler that is made of these settings.
struct actions : testing::Test {
  const Redirect_Script_Handler& make() {
    handler = make_action_handler(Job_Definition(settings), nullptr);
    return dynamic_cast<Redirect_Script_Handler&>(*handler);
  }
  void set_all_flags() {
    settings.redirect_pre_action_stdout = settings.ignore_pre_action_failure = true;
    settings.redirect_post_action_stdin = settings.ignore_post_action_failure = true;
    settings.run_post_action_always = true;
  }
  Job_Definition::Settings settings;
  Action_Handler_var handler;
};

TEST_F(actions, without_scripts_flags_keep_their_defaults) {
  set_all_flags();
  const Redirect_Script_Handler& made = make();
  EXPECT_EQ("", made.pre_action_script());
  EXPECT_EQ("", made.post_action_script());
  EXPECT_FALSE(made.redirect_pre_action_stdout());
  EXPECT_FALSE(made.ignore_pre_action_failure());
  EXPECT_FALSE(made.redirect_post_action_stdin());
  EXPECT_FALSE(made.ignore_post_action_failure());
  EXPECT_FALSE(made.run_post_action_always());
}

TEST_F(actions, pre_action_takes_its_own_flags_along) {
  set_all_flags();
  settings.pre_action = "before";
  const Redirect_Script_Handler& made = make();
  EXPECT_EQ("before", made.pre_action_script());
  EXPECT_EQ("", made.post_action_script());
  EXPECT_TRUE(made.redirect_pre_action_stdout());
  EXPECT_TRUE(made.ignore_pre_action_failure());
  EXPECT_FALSE(made.redirect_post_action_stdin());
  EXPECT_FALSE(made.ignore_post_action_failure());
  EXPECT_FALSE(made.run_post_action_always());
}

TEST_F(actions, post_action_takes_its_own_flags_along) {
  set_all_flags();
  settings.post_action = "after";
  const Redirect_Script_Handler& made = make();
  EXPECT_EQ("", made.pre_action_script());
  EXPECT_EQ("after", made.post_action_script());
  EXPECT_FALSE(made.redirect_pre_action_stdout());
  EXPECT_FALSE(made.ignore_pre_action_failure());
  EXPECT_TRUE(made.redirect_post_action_stdin());
  EXPECT_TRUE(made.ignore_post_action_failure());
  EXPECT_TRUE(made.run_post_action_always());
}

TEST_F(actions, each_flag_is_its_own) {
  settings.pre_action = "before";
  settings.post_action = "after";
  for (int flag = 0; flag < 5; ++flag) {
    settings.redirect_pre_action_stdout = flag == 0;
    settings.ignore_pre_action_failure = flag == 1;
    settings.redirect_post_action_stdin = flag == 2;
    settings.ignore_post_action_failure = flag == 3;
    settings.run_post_action_always = flag == 4;
    const Redirect_Script_Handler& made = make();
    EXPECT_EQ(flag == 0, made.redirect_pre_action_stdout());
    EXPECT_EQ(flag == 1, made.ignore_pre_action_failure());
    EXPECT_EQ(flag == 2, made.redirect_post_action_stdin());
    EXPECT_EQ(flag == 3, made.ignore_post_action_failure());
    EXPECT_EQ(flag == 4, made.run_post_action_always());
  }
}

struct Line_Log : ACE_Log_Msg_Callback {
  void log(ACE_Log_Record& record) override { lines.push_back(record.msg_data()); }
  std::vector<std::string> lines;
};

TEST_F(actions, scripts_write_to_the_given_log) {
  const std::shared_ptr<Line_Log> log = std::make_shared<Line_Log>();
  settings.pre_action = "echo before";
  settings.post_action = "echo after";
  Action_Handler_var made = make_action_handler(Job_Definition(settings), log);
  EXPECT_TRUE(made->execute_pre_action());
  EXPECT_TRUE(made->execute_post_action(true, ""));
  EXPECT_EQ((std::vector<std::string>{"before", "after"}), log->lines);
}

} // namespace
