// Both services against a server that speaks the protocol.

#include "obs/agent/websvcs/obs_list_handler.h"
#include "obs/agent/websvcs/obs_test_handler.h"
#include "obs/agent/websvcs/reply_channel.h"
#include "platform/crypto/master_key.h"
#include "platform/crypto/secret.h"
#include "testing/module/log_sink.h"
#include "testing/s3_server/s3_server.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

using json_spirit::Object;
using json_spirit::Value;
using web_testing::Reply_Channel;

namespace {

struct web_services : testing::Test {
  class Entry_Server : public JSON_RPC_Channel {
  public:
    int send(JSON_RPC_Object_var) override { return -1; }
    int request(const JSON_RPC_Request& request, JSON_RPC_Object_var& reply) override {
      reply = JSON_RPC_Object_var(new JSON_RPC_Response(request.id(), entry));
      return 0;
    }
    Object entry;
  };

  web_services() {
    char name[] = "/tmp/obs_web_test_XXXXXX";
    folder = ::mkdtemp(name);
    set_key_folder(folder);
    const s3_testing::S3_Server_Options options;
    account = Object{{"scheme", "http"},
                     {"endpoint", s3.endpoint()},
                     {"access_key", options.access_key},
                     {"secret_key", options.secret_key},
                     {"region", options.region}};
    std::string sealed;
    std::string error;
    EXPECT_TRUE(seal_secret(options.secret_key, sealed, error)) << error;
    server->entry = account;
    server->entry["secret_key"] = sealed;
    Global_JSON_RPC_Channel::instance(server);

    s3.create_bucket("alpha");
    s3.create_bucket("beta");
  }
  ~web_services() override {
    Global_JSON_RPC_Channel::instance(JSON_RPC_Channel_var());
    set_key_folder(std::string());
    std::filesystem::remove_all(folder);
  }

  std::string answer(JSON_RPC_Thread_Handler& handler, const Object& params) {
    channel = std::make_shared<Reply_Channel>();
    handler.handle_object(channel, JSON_RPC_Object_var(new JSON_RPC_Request("m", params, 1)));
    return channel->text;
  }
  std::string browse(const Object& params) {
    Object with_uuid = params;
    with_uuid["uuid"] = "u";
    JSON_RPC_OBS_List_Handler handler;
    return answer(handler, with_uuid);
  }
  std::string test() {
    JSON_RPC_OBS_Test_Handler handler;
    return answer(handler, account);
  }
  /// The "dir" and "file" texts of the answer, each behind a space.
  std::string names() const {
    std::string text;
    for (const Value& item : channel->result.get_obj().at("result").get_array())
      text += " " + (item.get_obj().count("dir") ? item.get_obj().at("dir") : item.get_obj().at("file")).get_str();
    return text;
  }

  std::string folder;
  s3_testing::S3_Server s3;
  Object account;
  std::shared_ptr<Entry_Server> server = std::make_shared<Entry_Server>();
  std::shared_ptr<Reply_Channel> channel;
};

TEST_F(web_services, root_shows_the_buckets) {
  EXPECT_EQ(R"({"result":[{"dir":"/alpha/"},{"dir":"/beta/"}],"truncated":false})", browse(Object{}));
}

TEST_F(web_services, one_level_of_a_bucket_is_shown_byte_for_byte) {
  for (const char* key : {"a.txt", "dir/b", "dir/sub/c", "/lead", "dir//twice", "\xff+%&'"})
    s3.put("alpha", key, "12345");
  browse(Object{{"path", "/alpha/"}});
  EXPECT_EQ(" / dir/ a.txt \xff+%&'", names());
  browse(Object{{"path", "/alpha/dir/"}});
  EXPECT_EQ(" / sub/ b", names());
  browse(Object{{"path", "/alpha//"}});
  EXPECT_EQ(" lead", names());
}

TEST_F(web_services, pages_follow_each_other_by_their_markers) {
  for (const char* key : {"a", "b/1", "c", "d/1", "e"})
    s3.put("alpha", key, "x");
  std::string all;
  Object params{{"path", "/alpha/"}, {"limit", 2}};
  for (int page = 0; page < 5; ++page) {
    browse(params);
    all += names() + ";";
    const Object& result = channel->result.get_obj();
    if (!result.at("truncated").get_bool())
      break;
    params["marker"] = result.at("marker");
  }
  EXPECT_EQ(" b/ a; d/ c; e;", all);
}

TEST_F(web_services, missing_bucket_is_an_error_of_the_request) {
  module_testing::Log_Sink log;
  EXPECT_EQ("-32600 GetBucket error {\"code\":\"NoSuchBucket\"", browse(Object{{"path", "/gone/"}}).substr(0, 45));
}

TEST_F(web_services, configured_buckets_are_looked_up) {
  server->entry["extended_attrs"] = Object{{"buckets", json_spirit::Array{"beta", "gone"}}};
  EXPECT_EQ(R"({"result":[{"dir":"/beta/"}],"truncated":false})", browse(Object{}));
}

TEST_F(web_services, connection_with_the_right_keys_is_available) {
  EXPECT_EQ(R"({"available":true,"buckets":[)", test().substr(0, 29));
  EXPECT_EQ(2u, channel->result.get_obj().at("buckets").get_array().size());
}

TEST_F(web_services, connection_with_wrong_keys_says_why) {
  account["secret_key"] = "wrong";
  EXPECT_EQ(R"({"available":false,"message":"SignatureDoesNotMatch)", test().substr(0, 51));
}

TEST_F(web_services, connection_to_nobody_says_so) {
  s3.stop_listening();
  test();
  EXPECT_FALSE(channel->result.get_obj().at("available").get_bool());
  EXPECT_FALSE(channel->result.get_obj().at("message").get_str().empty());
}

TEST_F(web_services, bucket_that_is_not_there_is_not_available) {
  account["buckets"] = json_spirit::Array{"alpha", "gone"};
  test();
  EXPECT_FALSE(channel->result.get_obj().at("available").get_bool());
}

} // namespace
