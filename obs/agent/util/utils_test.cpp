#include "obs/agent/util/utils.h"

#include "platform/crypto/master_key.h"
#include "platform/crypto/secret.h"
#include "sdk/base/exponential_backoff.h"
#include "sdk/base/uri.h"
#include "sdk/job/job.h"
#include "sdk/rpc/json_rpc.h"
#include "testing/module/fake_clock.h"
#include "testing/module/fake_s3_service.h"
#include "testing/module/log_sink.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <numeric>

MODULE_TESTING_DEFINE_SERVICE_HOOK()

using json_spirit::Object;

namespace {

/// The server's end of a channel: answers each request as the test says.
class Server : public JSON_RPC_Channel {
public:
  int send(JSON_RPC_Object_var) override { return -1; }
  int request(const JSON_RPC_Request& request, JSON_RPC_Object_var& reply) override {
    ++requests;
    method = request.method();
    params = json_spirit::write(request.params());
    return answer ? answer(request, reply) : -1;
  }

  /// Answers every request with this result.
  void result(const json_spirit::Value& value) {
    answer = [value](const JSON_RPC_Request& request, JSON_RPC_Object_var& reply) {
      reply = JSON_RPC_Object_var(new JSON_RPC_Response(request.id(), value));
      return 0;
    };
  }
  void error() {
    answer = [](const JSON_RPC_Request& request, JSON_RPC_Object_var& reply) {
      reply = JSON_RPC_Object_var(new JSON_RPC_Error_Response(request.id(), -32000, "no", json_spirit::Value()));
      return 0;
    };
  }

  std::function<int(const JSON_RPC_Request&, JSON_RPC_Object_var&)> answer;
  int requests = 0;
  std::string method;
  std::string params;
};

/// A folder with a master key of its own.
class Key_Folder {
public:
  Key_Folder() : before_(key_folder()) {
    char name[] = "/tmp/obs_utils_test_XXXXXX";
    path_ = ::mkdtemp(name);
    set_key_folder(path_);
  }
  ~Key_Folder() {
    set_key_folder(before_);
    std::filesystem::remove_all(path_);
  }
  std::string seal(const std::string& plain) const {
    std::string sealed;
    std::string error;
    EXPECT_TRUE(seal_secret(plain, sealed, error)) << error;
    return sealed;
  }

private:
  std::string before_;
  std::string path_;
};

struct entry_info : testing::Test {
  entry_info() { Global_JSON_RPC_Channel::instance(server); }
  ~entry_info() override { Global_JSON_RPC_Channel::instance(JSON_RPC_Channel_var()); }

  bool get(int max_wait_seconds) { return get_entry_info("u-1", entry, max_wait_seconds); }
  unsigned slept() const {
    const std::vector<unsigned> sleeps = clock.sleeps();
    return std::accumulate(sleeps.begin(), sleeps.end(), 0u);
  }

  Key_Folder keys;
  module_testing::Log_Sink log;
  module_testing::Fake_Clock clock;
  std::shared_ptr<Server> server = std::make_shared<Server>();
  Object entry;
};

TEST_F(entry_info, record_comes_with_the_plain_secret_key) {
  server->result(Object{{"secret_key", keys.seal("plain")}, {"access_key", "a"}, {"other", 5}});
  ASSERT_TRUE(get(0));
  EXPECT_EQ("obs.query", server->method);
  EXPECT_EQ(R"({"uuid":"u-1"})", server->params);
  EXPECT_EQ("plain", json_spirit::require_str(entry, "secret_key"));
  EXPECT_EQ("a", json_spirit::require_str(entry, "access_key"));
  EXPECT_EQ(5, entry["other"].get_int());
  EXPECT_TRUE(log.empty());
}

TEST_F(entry_info, wait_of_0_is_one_request_and_no_sleep) {
  EXPECT_FALSE(get(0));
  EXPECT_EQ(1, server->requests);
  EXPECT_TRUE(clock.sleeps().empty());
  ASSERT_EQ(1u, log.lines().size());
  EXPECT_EQ(LM_ERROR, log.lines()[0].priority);
  EXPECT_EQ("Failed to request 'obs.query'.\n", log.lines()[0].text);
}

TEST_F(entry_info, error_reply_is_a_failed_attempt) {
  server->error();
  EXPECT_FALSE(get(0));
  EXPECT_EQ(1u, log.count(LM_ERROR, "Failed to request 'obs.query'."));
}

TEST_F(entry_info, missing_channel_is_a_failed_attempt) {
  Global_JSON_RPC_Channel::instance(JSON_RPC_Channel_var());
  EXPECT_FALSE(get(0));
  EXPECT_EQ(0, server->requests);
  EXPECT_EQ(1u, log.count(LM_ERROR, "Failed to request 'obs.query'."));
}

TEST_F(entry_info, retries_are_numbered_and_announced_with_their_waits) {
  server->answer = [this](const JSON_RPC_Request& request, JSON_RPC_Object_var& reply) {
    if (server->requests < 4)
      return -1;
    reply = JSON_RPC_Object_var(new JSON_RPC_Response(request.id(), Object{{"secret_key", keys.seal("s")}}));
    return 0;
  };
  ASSERT_TRUE(get(300));
  const std::vector<unsigned> sleeps = clock.sleeps();
  const std::vector<module_testing::Log_Line> lines = log.lines();
  ASSERT_EQ(3u, sleeps.size());
  ASSERT_EQ(3u, lines.size());
  for (size_t i = 0; i < lines.size(); ++i) {
    EXPECT_EQ(LM_INFO, lines[i].priority);
    const std::string begin = "Retry(" + std::to_string(i + 1) + ") obs/agent/util/utils.cpp:";
    const std::string end = " at " + std::to_string(sleeps[i]) + " second(s) later.\n";
    EXPECT_EQ(begin, lines[i].text.substr(0, begin.size()));
    EXPECT_EQ(end, lines[i].text.substr(lines[i].text.size() - end.size()));
  }
}

TEST_F(entry_info, waits_up_to_the_bound_and_no_further) {
  EXPECT_FALSE(get(100));
  EXPECT_GE(slept(), 100u);
  EXPECT_LE(slept() - clock.sleeps().back(), 100u);
  EXPECT_EQ(server->requests, static_cast<int>(clock.sleeps().size()) + 1);
  EXPECT_EQ(1u, log.count(LM_ERROR, "Failed to request 'obs.query'.\n"));
}

TEST_F(entry_info, wait_without_a_bound_goes_on_with_at_most_60_seconds_each) {
  server->answer = [this](const JSON_RPC_Request& request, JSON_RPC_Object_var& reply) {
    if (server->requests < 200)
      return -1;
    reply = JSON_RPC_Object_var(new JSON_RPC_Response(request.id(), Object{{"secret_key", keys.seal("s")}}));
    return 0;
  };
  EXPECT_TRUE(get(-1));
  ASSERT_EQ(199u, clock.sleeps().size());
  for (const unsigned wait : clock.sleeps()) {
    EXPECT_GE(wait, 1u);
    EXPECT_LE(wait, 60u);
  }
  EXPECT_GT(clock.sleeps().back(), 29u);
}

/// Makes every jitter the shortest or the longest there is.
struct Jitter {
  explicit Jitter(bool longest) {
    set_backoff_random(longest ? [](unsigned n) { return n - 1; } : [](unsigned) { return 0u; });
  }
  ~Jitter() { set_backoff_random(nullptr); }
};

TEST_F(entry_info, waits_double_from_1_second_to_60_and_half_of_each_is_jitter) {
  server->answer = [this](const JSON_RPC_Request& request, JSON_RPC_Object_var& reply) {
    if (server->requests < 10)
      return -1;
    reply = JSON_RPC_Object_var(new JSON_RPC_Response(request.id(), Object{{"secret_key", keys.seal("s")}}));
    return 0;
  };
  {
    const Jitter longest(true);
    EXPECT_TRUE(get(-1));
  }
  EXPECT_EQ((std::vector<unsigned>{1, 2, 4, 8, 16, 32, 60, 60, 60}), clock.sleeps());

  server->requests = 0;
  module_testing::Fake_Clock other_clock;
  {
    const Jitter shortest(false);
    EXPECT_TRUE(get(-1));
  }
  EXPECT_EQ((std::vector<unsigned>{1, 1, 2, 4, 8, 16, 30, 30, 30}), other_clock.sleeps());
}

TEST_F(entry_info, cancelled_job_is_not_kept_waiting) {
  Job job(Job_Definition_var(new Job_Definition));
  job.state(JOB_STATE_RUNNING);
  Job::current(&job);
  clock.on_sleep([&](unsigned) {
    if (clock.sleeps().size() == 3)
      job.state(JOB_STATE_CANCELING);
  });
  EXPECT_FALSE(get(-1));
  EXPECT_EQ(3u, clock.sleeps().size());
  Job::current(nullptr);
}

TEST_F(entry_info, result_that_is_no_object_is_an_emergency) {
  for (const json_spirit::Value& value :
       {json_spirit::Value(), json_spirit::Value("text"), json_spirit::Value(json_spirit::Array())}) {
    log.clear();
    server->result(value);
    EXPECT_FALSE(get(-1));
    ASSERT_EQ(1u, log.lines().size());
    EXPECT_EQ(LM_EMERGENCY, log.lines()[0].priority);
    const std::string begin = "Unexpected error in obs/agent/util/utils:";
    const std::string end = ", result is not object!\n";
    const std::string text = log.lines()[0].text;
    EXPECT_EQ(begin, text.substr(0, begin.size()));
    EXPECT_EQ(end, text.substr(text.size() - end.size()));
    EXPECT_GT(std::atoi(text.c_str() + begin.size()), 0);
  }
}

TEST_F(entry_info, record_without_a_secret_key_is_invalid_and_shown) {
  server->result(Object{{"access_key", "a"}});
  EXPECT_FALSE(get(-1));
  ASSERT_EQ(1u, log.lines().size());
  EXPECT_EQ(LM_ERROR, log.lines()[0].priority);
  EXPECT_EQ("Invalid entry info '{\"access_key\":\"a\"}'.\n", log.lines()[0].text);
}

TEST_F(entry_info, empty_or_wrong_secret_key_is_invalid) {
  server->result(Object{{"secret_key", ""}});
  EXPECT_FALSE(get(0));
  EXPECT_EQ(1u, log.count(LM_ERROR, "Invalid entry info '{\"secret_key\":\"\"}'."));
  server->result(Object{{"secret_key", 5}});
  EXPECT_FALSE(get(0));
  EXPECT_EQ(1u, log.count(LM_ERROR, "Invalid entry info '{\"secret_key\":5}'."));
}

TEST_F(entry_info, secret_key_that_cannot_be_opened_fails) {
  server->result(Object{{"secret_key", "not sealed"}});
  EXPECT_FALSE(get(-1));
  EXPECT_EQ(1u, log.count(LM_ERROR, "Failed to decrypt obs secret key.\n"));
}

struct client : testing::Test {
  Object entry{{"access_key", "a"}, {"secret_key", "s"}, {"scheme", "https"}, {"endpoint", "s3.test:8443"}};
  module_testing::Log_Sink log;
  std::shared_ptr<module_testing::Fake_S3_Service> service = std::make_shared<module_testing::Fake_S3_Service>();
  module_testing::Service_Hook hook{service};
};

TEST_F(client, service_is_made_from_the_record) {
  entry["region"] = "r-1";
  entry["vendor"] = "v";
  entry["sign_method"] = "v2";
  EXPECT_EQ(service, make_client(entry));
  EXPECT_EQ("https", hook.options.type);
  EXPECT_EQ("s3.test", hook.options.host);
  EXPECT_EQ(8443, hook.options.port);
  EXPECT_TRUE(hook.options.ssl);
  EXPECT_EQ("a", hook.options.access_key);
  EXPECT_EQ("s", hook.options.secret_key);
  EXPECT_EQ("r-1", hook.options.region);
  EXPECT_EQ("v", hook.options.vendor);
  EXPECT_EQ("v2", hook.options.sign_method);
}

TEST_F(client, optional_members_are_empty_when_absent_and_the_port_is_the_schemes) {
  entry["scheme"] = "http";
  entry["endpoint"] = "[::1]";
  EXPECT_EQ(service, make_client(entry));
  EXPECT_EQ("::1", hook.options.host);
  EXPECT_EQ(80, hook.options.port);
  EXPECT_FALSE(hook.options.ssl);
  EXPECT_EQ("", hook.options.region + hook.options.vendor + hook.options.sign_method);
  EXPECT_EQ(0, hook.options.max_retry_seconds);
  EXPECT_FALSE(hook.options.sts_credential);
}

TEST_F(client, missing_or_wrong_member_is_named) {
  for (const char* key : {"access_key", "secret_key", "scheme", "endpoint"}) {
    for (const bool missing : {true, false}) {
      Object bad = entry;
      if (missing)
        bad.erase(key);
      else
        bad[key] = 5;
      log.clear();
      EXPECT_FALSE(make_client(bad)) << key;
      ASSERT_EQ(1u, log.count(LM_ERROR, "Invalid entry info: ")) << key;
      EXPECT_EQ(1u, log.count(key));
    }
  }
  EXPECT_EQ(0, hook.made);
}

TEST_F(client, optional_member_of_another_kind_is_refused) {
  for (const char* key : {"region", "vendor", "sign_method"}) {
    Object bad = entry;
    bad[key] = 5;
    EXPECT_FALSE(make_client(bad)) << key;
  }
  EXPECT_EQ(3u, log.count(LM_ERROR, "Invalid entry info: "));
}

TEST_F(client, endpoint_that_makes_no_uri_is_shown) {
  entry["endpoint"] = "bad host";
  EXPECT_FALSE(make_client(entry));
  EXPECT_EQ(1u, log.count(LM_ERROR, "Invalid obs endpoint 'https://bad host' in entry object\n"));
  EXPECT_EQ(0, hook.made);
}

TEST_F(client, endpoint_with_a_scheme_is_joined_as_it_is) {
  entry["endpoint"] = "https://s3.test";
  URI uri;
  EXPECT_EQ(URI_Parser::parse("https://https://s3.test", uri), make_client(entry) != nullptr);
}

TEST_F(client, text_longer_than_the_buffer_is_cut_and_not_overrun) {
  entry["endpoint"] = std::string(5000, 'a');
  const std::shared_ptr<S3_Service_Base> made = make_client(entry);
  if (made)
    EXPECT_EQ(4095 - std::string("https://").size(), hook.options.host.size());
  else
    EXPECT_EQ(1u, log.count(LM_ERROR, "Invalid obs endpoint 'https://aaa"));
}

TEST_F(client, entry_of_a_client_is_cut_there_too) {
  entry["endpoint"] = std::string(5000, 'a');
  const Client_Entry cut = client_entry(entry, 0);
  EXPECT_EQ(4095u, cut.url.size());
  EXPECT_EQ("https://aaa", cut.url.substr(0, 11));
  entry["endpoint"] = std::string(4095 - 8, 'a');
  EXPECT_EQ("https://" + std::string(4095 - 8, 'a'), client_entry(entry, 0).url);
}

TEST_F(client, platform_that_makes_no_service_gives_none) {
  module_testing::Service_Hook none(nullptr);
  EXPECT_FALSE(make_client(entry));
}

TEST(configured_bucket_list, only_a_filled_array_counts) {
  using json_spirit::Array;
  EXPECT_EQ(nullptr, configured_buckets(Object{}));
  EXPECT_EQ(nullptr, configured_buckets(Object{{"extended_attrs", "x"}}));
  EXPECT_EQ(nullptr, configured_buckets(Object{{"extended_attrs", Object{}}}));
  EXPECT_EQ(nullptr, configured_buckets(Object{{"extended_attrs", Object{{"buckets", "a"}}}}));
  EXPECT_EQ(nullptr, configured_buckets(Object{{"extended_attrs", Object{{"buckets", Array{}}}}}));
  const Object entry{{"extended_attrs", Object{{"buckets", Array{"a", 5}}}}};
  ASSERT_NE(nullptr, configured_buckets(entry));
  EXPECT_EQ(2u, configured_buckets(entry)->size());
}

} // namespace
