#include "platform/s3/client_fixture.h"

#include <set>

namespace {

using s3_testing::Fault;
using s3_testing::Key_Encoding;
using s3_testing::S3_Server_Settings;

/// What services in the wild do to a client, where no other test has it.
class Wild_Service_Test : public Client_Test {
protected:
  std::string read(S3_Service_Base& s, const std::string& key) {
    const HTTP_Connection_var c = s.get_object("bucket", key.c_str(), 0, nullptr);
    return c->state() == HTTP_Connection::HEADERS_READ ? drain(*c) : "(" + s.last_error().code() + ")";
  }
  bool write(S3_Service_Base& s, const std::string& key, const std::string& bytes) {
    const S3_IWriter_ptr writer = s.upload("bucket", key.c_str(), bytes.size());
    return writer && writer->write(bytes.data(), bytes.size()) == static_cast<int>(bytes.size()) && writer->close();
  }
  std::set<std::string> list(S3_Service_Base& s, int max_keys = -1) {
    std::set<std::string> keys;
    Get_Bucket_Parameter param;
    param.max_keys(max_keys);
    Get_Bucket_Content content;
    do {
      if (!s.get_bucket("bucket", param, content))
        return {};
      for (const S3_Object& object : content.objects)
        keys.insert(object.name);
      param.marker(content.next_marker.c_str());
    } while (content.truncated);
    return keys;
  }
  void there_and_back(const std::set<std::string>& keys) {
    const S3_Service_var s = service();
    for (const std::string& key : keys)
      EXPECT_TRUE(write(*s, key, "bytes of " + key)) << key << ' ' << s->error();
    for (const auto version : {Endpoint_Settings::LIST_V1, Endpoint_Settings::LIST_V2}) {
      settings.list_version = version;
      EXPECT_EQ(keys, list(*service(), 2));
    }
    for (const std::string& key : keys)
      EXPECT_EQ("bytes of " + key, read(*s, key)) << key;
  }
};

TEST_F(Wild_Service_Test, keys_with_empty_and_dotted_parts_are_kept_as_they_are) {
  there_and_back({"a//b", "//a", "a/../b", "./a", "../a", "a/./b", "..", ".", "a/", "a//"});
}

TEST_F(Wild_Service_Test, keys_that_differ_in_slashes_alone_are_objects_of_their_own) {
  there_and_back({"abc", "abc/", "/abc", "/"});
}

TEST_F(Wild_Service_Test, keys_that_differ_in_case_or_composition_alone_are_objects_of_their_own) {
  there_and_back({"Name", "name", "NAME", "\xc3\xa9", "e\xcc\x81", "\xc3\x89"});
}

TEST_F(Wild_Service_Test, keys_of_control_characters_and_of_no_utf_8_come_back) {
  there_and_back({"a\x01z", "a\x1fz", "a\nz", "a\rz", "a\tz", "\xef\xbf\xbe", "\xff\xfe", "\xc3(", "\x7f", "a+b",
                  "a%20b", "a b", "&<>\"'"});
}

TEST_F(Wild_Service_Test, each_single_byte_is_a_key) {
  std::set<std::string> keys;
  for (int byte = 1; byte < 256; ++byte)
    keys.insert(std::string(1, static_cast<char>(byte)));
  for (const std::string& key : keys)
    server.put("bucket", key, "x");
  for (const auto version : {Endpoint_Settings::LIST_V1, Endpoint_Settings::LIST_V2}) {
    settings.list_version = version;
    EXPECT_EQ(keys, list(*service(), 50));
  }
  const S3_Service_var s = service();
  for (const std::string& key : keys)
    EXPECT_EQ("x", read(*s, key));
}

TEST_F(Wild_Service_Test, prefixes_left_unencoded_beside_encoded_keys_come_as_bytes) {
  server.configure([](S3_Server_Settings& s) { s.key_encoding = Key_Encoding::keys_only; });
  for (const char* key : {"a b/x", "c+d/y", "e%2ff/z", "g h"})
    server.put("bucket", key, "x");
  Get_Bucket_Parameter param;
  param.delimiter("/");
  Get_Bucket_Content content;
  const S3_Service_var s = service();
  ASSERT_TRUE(s->get_bucket("bucket", param, content));
  ASSERT_EQ(1u, content.objects.size());
  EXPECT_EQ("g h", content.objects[0].name);
  // "a b/" cannot have been encoded; what could have been is taken as it says.
  EXPECT_EQ("a b/", content.common_prefixes[0]);
}

TEST_F(Wild_Service_Test, etag_is_a_name_and_no_digest) {
  s3_testing::Object object = s3_testing::make_object(std::string(5000, 'x'));
  object.etag = "vendor:7/of-nothing-3";
  server.put("bucket", "key", object);
  server.add_fault(Fault::cut(1000).on("GetObject").times(1));
  const S3_Service_var s = service();
  S3_Object told;
  const HTTP_Connection_var first = s->get_object("bucket", "key", 0, &told);
  EXPECT_EQ("\"vendor:7/of-nothing-3\"", told.etag);
  EXPECT_EQ(1000u, drain(*first).size());
  const HTTP_Connection_var rest = s->get_object("bucket", "key", 1000, nullptr);
  EXPECT_EQ(4000u, drain(*rest).size()) << s->error();
}

TEST_F(Wild_Service_Test, pages_shorter_than_asked_for_are_no_end) {
  server.configure([](S3_Server_Settings& s) { s.page_size = 3; });
  server.add_synthetic("bucket", "p", 100, 1);
  for (const auto version : {Endpoint_Settings::LIST_V1, Endpoint_Settings::LIST_V2}) {
    settings.list_version = version;
    EXPECT_EQ(100u, list(*service(), 1000).size());
  }
}

TEST_F(Wild_Service_Test, service_that_knows_no_100_continue_gets_its_body) {
  settings.part_size = 100000;
  server.configure([](S3_Server_Settings& s) {
    s.expect = s3_testing::Expect_Reply::refuse;
    s.min_part_size = 1;
  });
  server.keep_log(true);
  const S3_Service_var s = service();
  EXPECT_TRUE(write(*s, "small", std::string(5000, 'x'))) << s->error();
  EXPECT_TRUE(write(*s, "single", std::string(90000, 'y'))) << s->error();
  for (const s3_testing::Request_Info& request : server.log())
    for (const auto& [name, value] : request.headers)
      EXPECT_NE("expect", name);
}

TEST_F(Wild_Service_Test, uploads_carry_no_checksums_that_older_services_refuse) {
  settings.part_size = 1000;
  server.configure([](S3_Server_Settings& s) { s.min_part_size = 1; });
  server.keep_log(true);
  const S3_Service_var s = service();
  EXPECT_TRUE(write(*s, "single", "text"));
  const S3_IWriter_ptr writer = s->upload("bucket", "parts", 2500);
  std::string bytes(2500, 'x');
  for (size_t at = 0; at < bytes.size();) {
    const int taken = writer->write(bytes.data() + at, bytes.size() - at);
    ASSERT_LT(0, taken);
    at += static_cast<size_t>(taken);
  }
  EXPECT_TRUE(writer->close());
  for (const s3_testing::Request_Info& request : server.log())
    for (const auto& [name, value] : request.headers) {
      EXPECT_NE("x-amz-trailer", name);
      EXPECT_NE("transfer-encoding", name);
      EXPECT_EQ(std::string::npos, name.find("x-amz-checksum")) << name;
      EXPECT_TRUE(name != "x-amz-content-sha256" || value.find("STREAMING") == std::string::npos) << value;
    }
}

TEST_F(Wild_Service_Test, object_dated_in_the_future_is_listed_and_read) {
  s3_testing::Object object = s3_testing::make_object("text");
  object.mtime = 2145000000;
  server.put("bucket", "key", object);
  const S3_Service_var s = service();
  Get_Bucket_Content content;
  ASSERT_TRUE(s->get_bucket("bucket", Get_Bucket_Parameter(), content));
  EXPECT_EQ(2145000000u, content.objects.at(0).mtime);
  EXPECT_EQ("text", read(*s, "key"));
}

TEST_F(Wild_Service_Test, archived_object_is_seen_in_the_listing_and_refused_once) {
  s3_testing::Object object = s3_testing::make_object("text");
  object.storage_class = "DEEP_ARCHIVE";
  server.put("bucket", "key", object);
  const S3_Service_var s = service();
  Get_Bucket_Content content;
  ASSERT_TRUE(s->get_bucket("bucket", Get_Bucket_Parameter(), content));
  EXPECT_EQ("DEEP_ARCHIVE", content.objects.at(0).storage_class);
  // The listing told; another who has no note of it asks once.
  EXPECT_EQ("(InvalidObjectState)", read(*s, "key"));
  EXPECT_FALSE(s->last_error().retriable());
  EXPECT_EQ(0u, server.count("GetObject"));
  EXPECT_EQ("(InvalidObjectState)", read(*s, "key"));
  EXPECT_FALSE(s->last_error().retriable());
  EXPECT_EQ(1u, server.count("GetObject"));
}

TEST_F(Wild_Service_Test, redirection_away_from_tls_gets_no_second_request) {
  s3_testing::S3_Server secure(options(true));
  secure.create_bucket("bucket");
  settings.ca_file = secure.ca_file();
  Endpoint_Settings::set("127.0.0.1", secure.port(), access, settings);
  S3_Service_Options how = service_options();
  how.type = "https";
  how.ssl = true;
  how.port = secure.port();
  secure.add_fault(Fault::redirect(307, "", server.url()));
  const S3_Service_var s = make_s3_service(how);
  EXPECT_FALSE(s->bucket_exists("bucket"));
  EXPECT_EQ(307, s->last_error().status());
  EXPECT_EQ(0u, server.count());
  EXPECT_EQ(1u, secure.count());
}

TEST_F(Wild_Service_Test, head_of_an_answer_that_never_ends_is_given_up) {
  server.add_fault(Fault::error(503, "SlowDown").reply_header("X-Long", std::string(100000, 'x')));
  const S3_Service_var s = service();
  EXPECT_FALSE(s->bucket_exists("bucket"));
  EXPECT_EQ("AnswerTooLarge", s->last_error().code());
  EXPECT_FALSE(s->last_error().retriable());
}

} // namespace
