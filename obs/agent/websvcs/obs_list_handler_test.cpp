#include "obs/agent/websvcs/obs_list_handler.h"

#include "obs/agent/websvcs/reply_channel.h"
#include "platform/crypto/master_key.h"
#include "platform/crypto/secret.h"
#include "testing/module/failing_allocator.h"
#include "testing/module/fake_s3_service.h"
#include "testing/module/log_sink.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <set>

MODULE_TESTING_DEFINE_FAILING_ALLOCATOR()
MODULE_TESTING_DEFINE_SERVICE_HOOK()

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;
using module_testing::bucket;
using web_testing::Reply_Channel;

namespace {

/// Answers "obs.query" with the test's record, its secret key sealed.
class Entry_Server : public JSON_RPC_Channel {
public:
  int send(JSON_RPC_Object_var) override { return -1; }
  int request(const JSON_RPC_Request& request, JSON_RPC_Object_var& reply) override {
    // The server has memory of its own.
    const int left = module_testing::allocations_left;
    module_testing::allocations_left = -1;
    asked = json_spirit::write(request.params());
    ++requests;
    if (entry.empty())
      return -1;
    reply = JSON_RPC_Object_var(new JSON_RPC_Response(request.id(), entry));
    module_testing::allocations_left = left;
    return 0;
  }
  Object entry;
  std::string asked;
  int requests = 0;
};

struct browse : testing::Test {
  browse() {
    char name[] = "/tmp/obs_browse_test_XXXXXX";
    folder = ::mkdtemp(name);
    set_key_folder(folder);
    std::string sealed;
    std::string error;
    EXPECT_TRUE(seal_secret("plain", sealed, error)) << error;
    server->entry = Object{{"access_key", "a"}, {"secret_key", sealed}, {"scheme", "http"}, {"endpoint", "s3.test"}};
    Global_JSON_RPC_Channel::instance(server);
  }
  ~browse() override {
    Global_JSON_RPC_Channel::instance(JSON_RPC_Channel_var());
    set_key_folder(std::string());
    std::filesystem::remove_all(folder);
  }

  /// The answer to a request with these params.
  std::string answer(const Value& params) {
    channel = std::make_shared<Reply_Channel>();
    const int result =
        JSON_RPC_OBS_List_Handler().handle_object_i(channel, JSON_RPC_Object_var(new JSON_RPC_Request("m", params, 9)));
    EXPECT_EQ(Reply_Channel::SENT, result);
    EXPECT_EQ(1, channel->sent);
    EXPECT_EQ(Value(9), channel->id);
    return channel->text;
  }
  std::string list(const std::string& path) { return answer(Object{{"uuid", "u"}, {"path", path}}); }
  void confine(const Array& names) { server->entry["extended_attrs"] = Object{{"buckets", names}}; }
  static S3_Object object(const std::string& key, ACE_UINT64 size, ACE_UINT64 mtime) {
    S3_Object result;
    result.name = key;
    result.size = size;
    result.mtime = mtime;
    return result;
  }

  std::string folder;
  module_testing::Log_Sink log;
  std::shared_ptr<Entry_Server> server = std::make_shared<Entry_Server>();
  std::shared_ptr<module_testing::Fake_S3_Service> service = std::make_shared<module_testing::Fake_S3_Service>();
  module_testing::Service_Hook hook{service};
  std::shared_ptr<Reply_Channel> channel;
};

TEST_F(browse, message_that_is_no_request_is_logged_and_not_answered) {
  channel = std::make_shared<Reply_Channel>();
  JSON_RPC_OBS_List_Handler handler;
  EXPECT_EQ(-1, handler.handle_object_i(channel, JSON_RPC_Object_var(new JSON_RPC_Response(Value(1), Value()))));
  EXPECT_EQ(-1, handler.handle_object_i(channel, JSON_RPC_Object_var()));
  EXPECT_EQ(0, channel->sent);
  EXPECT_EQ(2u, log.count(LM_EMERGENCY, "Unexpected error in obs/agent/websvcs/obs_list_handler.cpp:"));
  EXPECT_EQ(2u, log.count(", obj is not JSON-RPC request!"));
}

TEST_F(browse, params_that_are_no_object_are_refused) {
  EXPECT_EQ("-32602 Params is not Object", answer(Array{"u"}));
  EXPECT_EQ("-32602 Params is not Object", answer(Value()));
}

TEST_F(browse, request_without_an_account_is_refused) {
  EXPECT_EQ("-32602 No OBS entry uuid", answer(Object{{"path", "/b/"}}));
  EXPECT_EQ(0, server->requests);
}

TEST_F(browse, account_is_named_by_uuid_or_else_by_host_uuid) {
  service->add_service_page({});
  answer(Object{{"uuid", "one"}, {"host_uuid", "two"}});
  EXPECT_EQ(R"({"uuid":"one"})", server->asked);
  service->add_service_page({});
  answer(Object{{"host_uuid", "two"}});
  EXPECT_EQ(R"({"uuid":"two"})", server->asked);
}

TEST_F(browse, account_that_cannot_be_had_is_asked_for_once) {
  server->entry.clear();
  EXPECT_EQ("-1 Failed to get OBS entry info", list("/b/"));
  EXPECT_EQ(1, server->requests);
}

TEST_F(browse, account_that_makes_no_client_is_refused) {
  server->entry.erase("endpoint");
  EXPECT_EQ("-1 Failed to make S3 client", list("/b/"));
}

TEST_F(browse, path_without_a_bucket_is_refused) {
  EXPECT_EQ("-32602 Invalid OBS path '/'", list("/"));
  EXPECT_EQ("-32602 Invalid OBS path '//x'", list("//x"));
  const std::string answer = list("//" + std::string(5000, 'x'));
  EXPECT_EQ("-32602 Invalid OBS path '//xxx", answer.substr(0, 30));
  EXPECT_EQ(std::string("-32602 ").size() + 4095, answer.size());
}

TEST_F(browse, configured_buckets_that_exist_are_listed) {
  confine({"here", 5, "gone", "there"});
  service->buckets = {"here", "there"};
  EXPECT_EQ(R"({"result":[{"dir":"/here/"},{"dir":"/there/"}],"truncated":false})", list(""));
  EXPECT_TRUE(service->service_markers.empty());
  EXPECT_TRUE(log.empty());
}

TEST_F(browse, empty_configuration_lists_the_accounts_buckets) {
  confine({});
  service->add_service_page({bucket("x")});
  EXPECT_EQ(R"({"result":[{"dir":"/x/"}],"truncated":false})", answer(Object{{"uuid", "u"}}));
}

TEST_F(browse, all_pages_of_buckets_come_in_one_answer) {
  service->add_service_page({bucket("a")}, "m1");
  service->add_service_page({bucket("b")}, "m2");
  service->add_service_page({bucket("c")});
  EXPECT_EQ(R"({"result":[{"dir":"/a/"},{"dir":"/b/"},{"dir":"/c/"}],"truncated":false})", list(""));
  EXPECT_EQ((std::vector<std::string>{"", "m1", "m2"}), service->service_markers);
}

TEST_F(browse, failure_behind_the_first_page_ends_the_list) {
  service->add_service_page({bucket("a")}, "m1");
  service->add_service_failure(S3_Error(5, 500, "InternalError", "x", true));
  EXPECT_EQ(R"({"result":[{"dir":"/a/"}],"truncated":false})", list(""));
  EXPECT_TRUE(log.empty());
}

TEST_F(browse, page_is_followed_by_another_when_it_is_truncated_and_says_where_it_begins) {
  service->add_service_page({bucket("a")}, "m1");
  service->add_service_page({bucket("b")}, "m1");
  service->add_service_page({bucket("c")});
  EXPECT_EQ(R"({"result":[{"dir":"/a/"},{"dir":"/b/"},{"dir":"/c/"}],"truncated":false})", list(""));

  service->add_service_page({bucket("a")});
  service->service_pages.back().content.truncated = true;
  EXPECT_EQ(R"({"result":[{"dir":"/a/"}],"truncated":false})", list(""));
  service->add_service_page({bucket("a")}, "m1");
  service->service_pages.back().content.truncated = false;
  EXPECT_EQ(R"({"result":[{"dir":"/a/"}],"truncated":false})", list(""));
  EXPECT_EQ((std::vector<std::string>{"", "m1", "m1", "", ""}), service->service_markers);
}

TEST_F(browse, region_of_the_account_decides_which_buckets_are_listed) {
  server->entry["region"] = "r";
  service->add_service_page({bucket("by_location", "r", ""), bucket("by_region", "q", "r"), bucket("other", "q", ""),
                             bucket("other2", "", "q"), bucket("asked"), bucket("asked_other"), bucket("unknown")});
  service->locations = {{"asked", "r"}, {"asked_other", "q"}};
  EXPECT_EQ(R"({"result":[{"dir":"/by_location/"},{"dir":"/by_region/"},{"dir":"/asked/"},{"dir":"/unknown/"}],)"
            R"("truncated":false})",
            list(""));
  EXPECT_EQ((std::vector<std::string>{"asked", "asked_other", "unknown"}), service->asked_locations);
}

TEST_F(browse, account_without_a_region_lists_every_bucket_and_asks_for_no_location) {
  service->add_service_page({bucket("a", "x", ""), bucket("b")});
  EXPECT_EQ(R"({"result":[{"dir":"/a/"},{"dir":"/b/"}],"truncated":false})", list(""));
  EXPECT_TRUE(service->asked_locations.empty());
}

TEST_F(browse, failed_bucket_list_tells_why_and_whether_repeating_may_help) {
  service->add_service_failure(S3_Error(13, 403, "AccessDenied", "not you", false));
  EXPECT_EQ(R"(-32600 GetService error {"code":"AccessDenied","message":"not you"})", list(""));
  service->add_service_failure(S3_Error(11, 503, "SlowDown", "later", true));
  EXPECT_EQ(R"(-32603 GetService error {"code":"SlowDown","message":"later"})", list(""));
  EXPECT_EQ(1u, log.count(LM_ERROR, "Failed to get buckets, error: AccessDenied: not you.\n"));
  EXPECT_EQ(1u, log.count(LM_ERROR, "Failed to get buckets, error: SlowDown: later.\n"));
}

TEST_F(browse, bucket_alone_lists_its_top_level) {
  service->listing.common_prefixes = {"dir/"};
  service->listing.objects = {object("a.txt", 5000000000ull, 86400)};
  EXPECT_EQ(R"({"result":[{"dir":"dir/"},{"file":"a.txt","mtime":"1970-01-02 00:00:00","size":5000000000}],)"
            R"("truncated":false})",
            list("/b/"));
  EXPECT_EQ("b", service->asked_bucket);
  EXPECT_EQ("", service->asked_listing.prefix());
  EXPECT_EQ("/", service->asked_listing.delimiter());
  EXPECT_EQ("", service->asked_listing.marker());
  EXPECT_EQ(-1, service->asked_listing.max_keys());
}

/// Another zone than UTC while it lives.
struct Zone_Of_Five_Hours {
  Zone_Of_Five_Hours() : before(std::getenv("TZ") ? std::getenv("TZ") : ""), was_set(std::getenv("TZ") != nullptr) {
    ::setenv("TZ", "EAST-5", 1);
    ::tzset();
  }
  ~Zone_Of_Five_Hours() {
    if (was_set)
      ::setenv("TZ", before.c_str(), 1);
    else
      ::unsetenv("TZ");
    ::tzset();
  }
  const std::string before;
  const bool was_set;
};

TEST_F(browse, times_are_in_utc_wherever_the_agent_runs) {
  const Zone_Of_Five_Hours zone;
  service->listing.objects = {object("a.txt", 1, 86400)};
  EXPECT_EQ(R"({"result":[{"file":"a.txt","mtime":"1970-01-02 00:00:00","size":1}],"truncated":false})", list("/b/"));
}

TEST_F(browse, names_come_without_the_requested_prefix) {
  service->listing.common_prefixes = {"dir/sub/"};
  service->listing.objects = {object("dir/a.txt", 1, 0), object("dir/", 0, 0)};
  list("/b/dir/");
  EXPECT_EQ("dir/", service->asked_listing.prefix());
  const Array& items = channel->result.get_obj().at("result").get_array();
  ASSERT_EQ(3u, items.size());
  EXPECT_EQ(R"({"dir":"sub/"})", json_spirit::write(items[0]));
  EXPECT_EQ("a.txt", items[1].get_obj().at("file").get_str());
  EXPECT_EQ("", items[2].get_obj().at("file").get_str());
}

TEST_F(browse, truncated_page_says_where_the_next_begins) {
  service->listing.truncated = true;
  service->listing.next_marker = "k9";
  EXPECT_EQ(R"({"marker":"k9","result":[],"truncated":true})",
            answer(Object{{"uuid", "u"}, {"path", "/b/"}, {"limit", 2}, {"marker", "k1"}}));
  EXPECT_EQ(2, service->asked_listing.max_keys());
  EXPECT_EQ("k1", service->asked_listing.marker());
}

TEST_F(browse, marker_is_left_out_of_a_whole_page) {
  service->listing.next_marker = "k9";
  EXPECT_EQ(R"({"result":[],"truncated":false})", list("/b/"));
}

TEST_F(browse, limit_of_0_is_passed_on_and_an_empty_marker_is_not) {
  answer(Object{{"uuid", "u"}, {"path", "/b/"}, {"limit", 0}, {"marker", ""}});
  EXPECT_EQ(0, service->asked_listing.max_keys());
  EXPECT_EQ("", service->asked_listing.marker());
}

TEST_F(browse, limit_that_is_no_number_counts_as_absent) {
  for (const Value& limit : {Value("2"), Value(true), Value(), Value(1ll << 40)}) {
    service->asked_listing = Get_Bucket_Parameter();
    EXPECT_EQ(R"({"result":[],"truncated":false})", answer(Object{{"uuid", "u"}, {"path", "/b/"}, {"limit", limit}}));
    EXPECT_EQ("/", service->asked_listing.delimiter());
    EXPECT_EQ(-1, service->asked_listing.max_keys());
  }
}

TEST_F(browse, failed_object_list_tells_why_and_whether_repeating_may_help) {
  service->listing_failure = S3_Error(2, 404, "NoSuchBucket", "gone", false);
  EXPECT_EQ(R"(-32600 GetBucket error {"code":"NoSuchBucket","message":"gone"})", list("/b/"));
  service->listing_failure = S3_Error(11, 503, "SlowDown", "later", true);
  EXPECT_EQ(R"(-32603 GetBucket error {"code":"SlowDown","message":"later"})", list("/b/"));
  EXPECT_EQ(1u, log.count(LM_ERROR, "Failed to get buckets, error: NoSuchBucket: gone.\n"));
}

/// Has memory again as soon as the answer is on its way: what keeps it is the test's own.
class Relieved_Channel : public Reply_Channel {
public:
  int send(JSON_RPC_Object_var object) override {
    module_testing::allocations_left = -1;
    return Reply_Channel::send(object);
  }
};

TEST_F(browse, short_memory_is_answered_wherever_it_strikes) {
  service->listing.common_prefixes = {"a_prefix_that_is_longer_than_a_short_string/"};
  server->entry["access_key"] = "a key that is longer than a short string";
  const JSON_RPC_Object_var request(new JSON_RPC_Request("m", Object{{"uuid", "u"}, {"path", "/b/"}}, 9));
  const std::set<std::string> refusals = {"-32603 Internal error, out of memory.", "-1 Failed to get OBS entry info",
                                          "-1 Failed to make S3 client"};
  std::set<std::string> seen;
  for (int nth = 1; nth < 2000; ++nth) {
    channel = std::make_shared<Relieved_Channel>();
    JSON_RPC_OBS_List_Handler handler;
    {
      const module_testing::Short_Memory short_memory(nth);
      handler.handle_object_i(channel, request);
    }
    ASSERT_EQ(1, channel->sent) << nth;
    if (channel->text.compare(0, 1, "{") == 0)
      break;
    EXPECT_EQ(1u, refusals.count(channel->text)) << nth << ": " << channel->text;
    EXPECT_EQ(Value(9), channel->id) << nth;
    seen.insert(channel->text);
  }
  EXPECT_EQ(1u, seen.count("-32603 Internal error, out of memory."));
  EXPECT_EQ(1u, seen.count("-1 Failed to make S3 client"));
  EXPECT_EQ("{", channel->text.substr(0, 1));
}

} // namespace
