#include "platform/file_backup/entry_query_handler.h"

#include "platform/file_backup/test_agent.h"
#include "platform/s3/endpoint_settings.h"
#include "testing/module/log_sink.h"

namespace {

class entry_query : public file_backup_test::Agent {
protected:
  void SetUp() override {
    Agent::SetUp();
    handler_ = std::make_unique<Entry_Query_Handler>(*store_);
    channel_.route(Entry_Query_Handler::METHOD, handler_.get());
  }
  JSON_RPC_Object_var ask(const json_spirit::Value& params) {
    JSON_RPC_Object_var reply;
    EXPECT_EQ(0, channel_.request(JSON_RPC_Request(Entry_Query_Handler::METHOD, params, 42), reply));
    return reply;
  }
  int error_of(const json_spirit::Value& params) {
    const JSON_RPC_Object_var reply = ask(params);
    if (reply.null() || reply->type() != JSON_RPC_Object::TYPE_RESPONSE_ERROR)
      return 0;
    return static_cast<const JSON_RPC_Error_Response&>(*reply).code();
  }
  static json_spirit::Value uuid(const std::string& text) {
    json_spirit::Object params;
    params["uuid"] = text;
    return params;
  }

  std::unique_ptr<Entry_Query_Handler> handler_;
  In_Process_JSON_RPC_Channel channel_;
  module_testing::Log_Sink log_;
};

TEST_F(entry_query, a_known_uuid_is_answered_with_the_entry) {
  const JSON_RPC_Object_var reply = ask(uuid(ACCOUNT));
  ASSERT_FALSE(reply.null());
  ASSERT_EQ(JSON_RPC_Object::TYPE_RESPONSE, reply->type());
  JSON_RPC_Response& response = static_cast<JSON_RPC_Response&>(*reply);
  EXPECT_EQ(42, response.id().get_int());
  const json_spirit::Object& entry = response.result().get_obj();
  EXPECT_EQ(ACCOUNT, json_spirit::require_str(entry, "uuid"));
  EXPECT_EQ("account", json_spirit::require_str(entry, "name"));
  EXPECT_EQ("https", json_spirit::require_str(entry, "scheme"));
  EXPECT_EQ("s3.example:9000", json_spirit::require_str(entry, "endpoint"));
  EXPECT_EQ("access", json_spirit::require_str(entry, "access_key"));
  EXPECT_EQ("obs1:sealed", json_spirit::require_str(entry, "secret_key"));
  EXPECT_EQ("region", json_spirit::require_str(entry, "region"));
  EXPECT_EQ("vendor", json_spirit::require_str(entry, "vendor"));
  EXPECT_EQ("v2", json_spirit::require_str(entry, "sign_method"));
  const json_spirit::Array& buckets =
      json_spirit::find(json_spirit::find(entry, "extended_attrs")->get_obj(), "buckets")->get_array();
  ASSERT_EQ(2u, buckets.size());
  EXPECT_EQ("one", buckets[0].get_str());
}

TEST_F(entry_query, the_endpoint_s_settings_are_registered) {
  ask(uuid(ACCOUNT));
  const Endpoint_Settings settings = Endpoint_Settings::get("s3.example", 9000, "access");
  EXPECT_EQ(Endpoint_Settings::ADDRESSING_VIRTUAL, settings.addressing);
  EXPECT_EQ("/ca.pem", settings.ca_file);
  EXPECT_EQ("", Endpoint_Settings::get("s3.example", 9001, "access").ca_file);
}

TEST_F(entry_query, what_a_test_found_out_fills_in_where_the_account_says_auto) {
  Account account;
  bool found = false;
  std::string error;
  ASSERT_TRUE(store_->find_account(ACCOUNT, account, found, error));
  account.addressing = "auto";
  account.found_addressing = "virtual";
  account.list_version = "2";
  account.found_list_version = "1";
  account.found_url_encoding = "off";
  account.payload_signing = "off";
  account.client_cert = "/cert.pem";
  account.client_key = "/key.pem";
  account.proxy = "http://proxy";
  account.connect_timeout = 3;
  account.user_agent = "name";
  ASSERT_TRUE(store_->update_account(account, error)) << error;
  ask(uuid(ACCOUNT));
  const Endpoint_Settings settings = Endpoint_Settings::get("s3.example", 9000, "access");
  EXPECT_EQ(Endpoint_Settings::ADDRESSING_VIRTUAL, settings.addressing);
  EXPECT_EQ(Endpoint_Settings::LIST_V2, settings.list_version) << "what was asked for goes first";
  EXPECT_EQ(Endpoint_Settings::ENCODING_OFF, settings.url_encoding);
  EXPECT_EQ(Endpoint_Settings::SIGNING_OFF, settings.payload_signing);
  EXPECT_EQ("/cert.pem", settings.client_cert);
  EXPECT_EQ("/key.pem", settings.client_key);
  EXPECT_EQ("http://proxy", settings.proxy);
  EXPECT_EQ(3u, settings.connect_timeout);
  EXPECT_EQ(Endpoint_Settings().idle_timeout, settings.idle_timeout);
  EXPECT_EQ("name", settings.user_agent);
}

TEST_F(entry_query, what_is_unknown_or_no_uuid_is_an_error_reply) {
  EXPECT_EQ(-32602, error_of(uuid("unknown")));
  EXPECT_EQ(1u, log_.count("no account 'unknown'"));
  EXPECT_EQ(-32602, error_of(uuid("")));
  EXPECT_EQ(-32602, error_of(json_spirit::Object()));
  EXPECT_EQ(-32602, error_of(json_spirit::Value()));
  json_spirit::Object number;
  number["uuid"] = 5;
  EXPECT_EQ(-32602, error_of(number));
}

TEST_F(entry_query, nothing_is_sent_without_channel_or_object) {
  EXPECT_EQ(-1, handler_->handle_object(JSON_RPC_Channel_var(), JSON_RPC_Object_var()));
}

} // namespace
