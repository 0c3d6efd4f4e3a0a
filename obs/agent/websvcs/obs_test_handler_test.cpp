#include "obs/agent/websvcs/obs_test_handler.h"

#include "obs/agent/websvcs/reply_channel.h"
#include "testing/module/failing_allocator.h"
#include "testing/module/fake_s3_service.h"
#include "testing/module/log_sink.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <set>

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;
using module_testing::bucket;
using web_testing::Reply_Channel;

namespace {

struct connection_test : testing::Test {
  std::string answer(const Value& params) {
    channel = std::make_shared<Reply_Channel>();
    const int result =
        JSON_RPC_OBS_Test_Handler().handle_object_i(channel, JSON_RPC_Object_var(new JSON_RPC_Request("m", params, 9)));
    EXPECT_EQ(Reply_Channel::SENT, result);
    EXPECT_EQ(1, channel->sent);
    EXPECT_EQ(Value(9), channel->id);
    return channel->text;
  }
  std::string test() { return answer(params); }

  Object params{{"access_key", "a"}, {"secret_key", "plain"}, {"scheme", "http"}, {"endpoint", "s3.test"}};
  module_testing::Log_Sink log;
  std::shared_ptr<module_testing::Fake_S3_Service> service = std::make_shared<module_testing::Fake_S3_Service>();
  module_testing::Service_Hook hook{service};
  std::shared_ptr<Reply_Channel> channel;
};

TEST_F(connection_test, message_that_is_no_request_is_logged_and_not_answered) {
  channel = std::make_shared<Reply_Channel>();
  JSON_RPC_OBS_Test_Handler handler;
  EXPECT_EQ(-1, handler.handle_object_i(channel, JSON_RPC_Object_var(new JSON_RPC_Response(Value(1), Value()))));
  EXPECT_EQ(0, channel->sent);
  EXPECT_EQ(1u, log.count(LM_EMERGENCY, "Unexpected error in obs/agent/websvcs/obs_test_handler.cpp:"));
  EXPECT_EQ(1u, log.count(", obj is not JSON-RPC request!"));
}

TEST_F(connection_test, params_that_are_no_object_are_refused) {
  EXPECT_EQ("-32602 Params is not Object", answer("text"));
}

TEST_F(connection_test, attributes_that_make_no_client_are_refused) {
  params.erase("access_key");
  EXPECT_EQ("-32602 Missing required attributes", test());
}

TEST_F(connection_test, secret_key_is_used_as_it_stands) {
  service->add_service_page({});
  test();
  EXPECT_EQ("plain", hook.options.secret_key);
}

TEST_F(connection_test, named_buckets_that_exist_are_available_without_a_list) {
  params["buckets"] = Array{"a", 5, "b"};
  service->buckets = {"a", "b"};
  EXPECT_EQ(R"({"available":true})", test());
  EXPECT_EQ((std::vector<std::string>{"a", "b"}), service->asked_buckets);
  EXPECT_TRUE(service->service_markers.empty());
}

TEST_F(connection_test, first_named_bucket_that_is_missing_ends_the_test) {
  params["buckets"] = Array{"a", "gone", "b"};
  service->buckets = {"a", "b"};
  EXPECT_EQ(R"({"available":false,"message":"NoSuchBucket: The bucket does not exist"})", test());
  EXPECT_EQ((std::vector<std::string>{"a", "gone"}), service->asked_buckets);
}

TEST_F(connection_test, names_that_are_no_texts_are_available_without_a_request) {
  params["buckets"] = Array{1, true, Value()};
  EXPECT_EQ(R"({"available":true})", test());
  EXPECT_TRUE(service->asked_buckets.empty());
  EXPECT_TRUE(service->service_markers.empty());
}

TEST_F(connection_test, empty_names_list_the_buckets) {
  params["buckets"] = Array{};
  service->add_service_page({});
  EXPECT_EQ(R"({"available":true,"buckets":[]})", test());
}

TEST_F(connection_test, buckets_are_described_with_local_times_and_their_owner) {
  const char* const zone = std::getenv("TZ");
  const std::string before = zone ? zone : "";
  ::setenv("TZ", "XYZ-02:30", 1);
  ::tzset();
  service->add_service_page({bucket("a", "loc", "reg", 86400), bucket("b", "", "reg", 0)}, "", "me");
  EXPECT_EQ(R"({"available":true,"buckets":[)"
            R"({"ctime":"1970-01-02 02:30:00","location":"loc","name":"a","owner":"me"},)"
            R"({"ctime":"1970-01-01 02:30:00","location":"reg","name":"b","owner":"me"}]})",
            test());
  if (zone)
    ::setenv("TZ", before.c_str(), 1);
  else
    ::unsetenv("TZ");
  ::tzset();
}

TEST_F(connection_test, region_decides_which_buckets_are_listed) {
  params["region"] = "r";
  service->add_service_page({bucket("by_location", "r", ""), bucket("by_region", "q", "r"), bucket("other", "q", ""),
                             bucket("asked"), bucket("asked_other"), bucket("unknown")});
  service->locations = {{"asked", "r"}, {"asked_other", "q"}};
  test();
  std::string names;
  for (const Value& item : channel->result.get_obj().at("buckets").get_array())
    names += item.get_obj().at("name").get_str() + "@" + item.get_obj().at("location").get_str() + " ";
  EXPECT_EQ("by_location@r by_region@q asked@r unknown@ ", names);
}

TEST_F(connection_test, empty_region_lists_every_bucket) {
  params["region"] = "";
  service->add_service_page({bucket("a", "x", ""), bucket("b")});
  test();
  EXPECT_EQ(2u, channel->result.get_obj().at("buckets").get_array().size());
  EXPECT_TRUE(service->asked_locations.empty());
}

TEST_F(connection_test, only_the_last_page_is_returned) {
  service->add_service_page({bucket("a")}, "m1");
  service->add_service_page({bucket("b")});
  test();
  const Array& buckets = channel->result.get_obj().at("buckets").get_array();
  ASSERT_EQ(1u, buckets.size());
  EXPECT_EQ("b", buckets[0].get_obj().at("name").get_str());
  EXPECT_EQ((std::vector<std::string>{"", "m1"}), service->service_markers);
}

TEST_F(connection_test, page_is_followed_by_another_when_it_is_truncated_and_says_where_it_begins) {
  service->add_service_page({bucket("a")});
  service->service_pages.back().content.truncated = true;
  test();
  EXPECT_EQ(1u, channel->result.get_obj().at("buckets").get_array().size());
  service->add_service_page({bucket("b")}, "m1");
  service->service_pages.back().content.truncated = false;
  test();
  EXPECT_EQ((std::vector<std::string>{"", ""}), service->service_markers);
}

TEST_F(connection_test, failure_behind_the_first_page_keeps_the_last_good_one) {
  service->add_service_page({bucket("a")}, "m1");
  service->add_service_failure(S3_Error(5, 500, "InternalError", "x", true));
  test();
  EXPECT_TRUE(channel->result.get_obj().at("available").get_bool());
  EXPECT_EQ(0u, channel->result.get_obj().count("message"));
  EXPECT_EQ(1u, channel->result.get_obj().at("buckets").get_array().size());
}

TEST_F(connection_test, failure_of_the_first_page_is_a_result_and_no_error) {
  service->add_service_failure(S3_Error(13, 403, "AccessDenied", "not you", false));
  EXPECT_EQ(R"({"available":false,"message":"AccessDenied: not you"})", test());
}

/// Has memory again as soon as the answer is on its way: what keeps it is the test's own.
class Relieved_Channel : public Reply_Channel {
public:
  int send(JSON_RPC_Object_var object) override {
    module_testing::allocations_left = -1;
    return Reply_Channel::send(object);
  }
};

TEST_F(connection_test, short_memory_is_answered_wherever_it_strikes) {
  params["buckets"] = Array{"a_bucket_with_a_name_that_is_longer_than_a_short_string"};
  params["access_key"] = "a key that is longer than a short string";
  const JSON_RPC_Object_var request(new JSON_RPC_Request("m", params, 9));
  std::set<std::string> seen;
  for (int nth = 1; nth < 2000; ++nth) {
    channel = std::make_shared<Relieved_Channel>();
    JSON_RPC_OBS_Test_Handler handler;
    {
      const module_testing::Short_Memory short_memory(nth);
      handler.handle_object_i(channel, request);
    }
    ASSERT_EQ(1, channel->sent) << nth;
    if (channel->text.compare(0, 1, "{") == 0)
      break;
    EXPECT_TRUE(channel->text == "-32603 Internal error, out of memory." ||
                channel->text == "-32602 Missing required attributes")
        << nth << ": " << channel->text;
    EXPECT_EQ(Value(9), channel->id) << nth;
    seen.insert(channel->text);
  }
  EXPECT_EQ(2u, seen.size());
  EXPECT_EQ("{", channel->text.substr(0, 1));
}

} // namespace
