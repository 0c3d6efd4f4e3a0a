#include "platform/s3/client_fixture.h"
#include "platform/s3/vendor_presets.h"

#include <set>

namespace {

using s3_testing::S3_Server_Settings;

class Settings_Test : public Client_Test {
protected:
  explicit Settings_Test(bool tls = false) : Client_Test(tls) {}
  std::string header_of(const std::string& name) {
    for (const s3_testing::Request_Info& request : server.log())
      for (const auto& [header, value] : request.headers)
        if (header == name)
          return value;
    return "(none)";
  }
};

class Settings_Over_TLS : public Settings_Test {
protected:
  Settings_Over_TLS() : Settings_Test(true) {}
  bool put(const std::string& key) {
    const S3_IWriter_ptr writer = service()->upload("bucket", key.c_str(), 4);
    return writer && writer->write("text", 4) == 4 && writer->close();
  }
};

TEST_F(Settings_Test, user_agent_is_the_one_that_is_set_or_none) {
  server.keep_log(true);
  EXPECT_TRUE(service()->bucket_exists("bucket"));
  EXPECT_EQ("(none)", header_of("user-agent"));
  settings.user_agent = "backup/1.0 (site 7)";
  EXPECT_TRUE(service()->bucket_exists("bucket"));
  EXPECT_EQ("backup/1.0 (site 7)", header_of("user-agent"));
}

TEST_F(Settings_Test, proxy_is_asked_instead_of_the_service) {
  s3_testing::S3_Server proxy;
  settings.proxy = proxy.url();
  const S3_Service_var s = service();
  // This proxy takes no whole URLs; it is enough that it was asked.
  EXPECT_FALSE(s->bucket_exists("bucket"));
  EXPECT_EQ(1u, proxy.count());
  EXPECT_EQ(0u, server.count());
}

TEST_F(Settings_Test, proxy_that_is_not_there_is_named) {
  s3_testing::S3_Server proxy;
  settings.proxy = proxy.url();
  proxy.stop_listening();
  const S3_Service_var s = service();
  EXPECT_FALSE(s->bucket_exists("bucket"));
  EXPECT_EQ("CouldNotConnect", s->last_error().code());
  EXPECT_EQ(0u, server.count());
}

TEST_F(Settings_Over_TLS, payload_is_signed_where_the_settings_ask_for_it) {
  server.keep_log(true);
  EXPECT_TRUE(put("a"));
  EXPECT_EQ("UNSIGNED-PAYLOAD", header_of("x-amz-content-sha256"));
  server.configure([](S3_Server_Settings& s) { s.unsigned_payload = false; });
  EXPECT_FALSE(put("b"));
  settings.payload_signing = Endpoint_Settings::SIGNING_ON;
  EXPECT_TRUE(put("b"));
  EXPECT_EQ("text", server.get("bucket", "b"));
}

TEST_F(Settings_Test, payload_is_not_signed_where_the_settings_forbid_it) {
  settings.payload_signing = Endpoint_Settings::SIGNING_OFF;
  server.keep_log(true);
  const S3_IWriter_ptr writer = service()->upload("bucket", "a", 4);
  ASSERT_TRUE(writer && writer->write("text", 4) == 4 && writer->close());
  EXPECT_EQ("UNSIGNED-PAYLOAD", header_of("x-amz-content-sha256"));
}

TEST_F(Settings_Over_TLS, own_ca_is_trusted_and_no_other) {
  EXPECT_TRUE(service()->bucket_exists("bucket"));
  const s3_testing::S3_Server other(options(true));
  settings.ca_file = other.ca_file();
  const S3_Service_var s = service();
  EXPECT_FALSE(s->bucket_exists("bucket"));
  EXPECT_EQ("CertificateNotTrusted", s->last_error().code());
  EXPECT_FALSE(s->last_error().retriable());
}

TEST(Client_Certificate, is_shown_to_a_service_that_asks_for_it) {
  s3_testing::S3_Server_Options options;
  options.tls = true;
  options.tls_client_certificate = true;
  s3_testing::S3_Server server(options);
  server.create_bucket("bucket");
  S3_Service_Options how;
  how.type = "https";
  how.ssl = true;
  how.host = "127.0.0.1";
  how.port = server.port();
  how.access_key = options.access_key;
  how.secret_key = options.secret_key;
  Endpoint_Settings settings;
  settings.ca_file = server.ca_file();
  Endpoint_Settings::set(how.host, how.port, how.access_key, settings);
  EXPECT_FALSE(make_s3_service(how)->bucket_exists("bucket"));
  settings.client_cert = server.client_certificate_file();
  Endpoint_Settings::set(how.host, how.port, how.access_key, settings);
  const S3_Service_var s = make_s3_service(how);
  EXPECT_TRUE(s->bucket_exists("bucket")) << s->error();
  settings.client_cert = "/nowhere.pem";
  Endpoint_Settings::set(how.host, how.port, how.access_key, settings);
  const S3_Service_var none = make_s3_service(how);
  EXPECT_FALSE(none->bucket_exists("bucket"));
  EXPECT_EQ("CertificateNotTrusted", none->last_error().code());
}

TEST(Vendor_Presets, each_has_a_name_of_its_own_a_known_method_and_its_evidence) {
  std::set<std::string> names;
  for (const Vendor_Preset& preset : vendor_presets()) {
    EXPECT_TRUE(names.insert(preset.name).second) << preset.name;
    EXPECT_TRUE(preset.sign_method == std::string("v4") || preset.sign_method == std::string("v2")) << preset.name;
    EXPECT_NE("", std::string(preset.evidence)) << preset.name;
    EXPECT_EQ(&preset, vendor_preset(preset.name));
  }
  EXPECT_LE(10u, names.size());
  EXPECT_EQ(vendor_preset("aws"), vendor_preset("AWS"));
  EXPECT_EQ(nullptr, vendor_preset(""));
  EXPECT_EQ(nullptr, vendor_preset("nobody"));
}

TEST(Vendor_Presets, fill_in_and_do_not_overrule) {
  Endpoint_Settings settings;
  apply_preset(*vendor_preset("seaweedfs"), settings);
  EXPECT_EQ(Endpoint_Settings::ADDRESSING_PATH, settings.addressing);
  EXPECT_EQ(Endpoint_Settings::LIST_V1, settings.list_version);
  EXPECT_EQ(Endpoint_Settings::ENCODING_OFF, settings.url_encoding);
  settings = Endpoint_Settings();
  settings.addressing = Endpoint_Settings::ADDRESSING_VIRTUAL;
  settings.list_version = Endpoint_Settings::LIST_V2;
  settings.url_encoding = Endpoint_Settings::ENCODING_ON;
  apply_preset(*vendor_preset("seaweedfs"), settings);
  EXPECT_EQ(Endpoint_Settings::ADDRESSING_VIRTUAL, settings.addressing);
  EXPECT_EQ(Endpoint_Settings::LIST_V2, settings.list_version);
  EXPECT_EQ(Endpoint_Settings::ENCODING_ON, settings.url_encoding);
}

} // namespace
