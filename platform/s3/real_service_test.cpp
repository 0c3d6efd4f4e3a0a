#include "platform/s3/diagnosis.h"
#include "platform/s3/endpoint_settings.h"
#include "platform/s3/ledger.h"
#include "sdk/base/uri.h"
#include "sdk/s3/s3_service.h"
#include "testing/real_server/real_server.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>

namespace {

/// What the real service makes of our requests: both signatures, both transports, odd keys, pages and parts.
class Real_Service_Test : public testing::Test {
protected:
  void SetUp() override {
    if (!s3_testing::Real_Server::installed())
      GTEST_SKIP() << "the service's programs are not installed";
    ASSERT_TRUE(server.start()) << server.error();
  }

  S3_Service_var service(const std::string& url, const char* sign_method,
                         Endpoint_Settings::List_Version version = Endpoint_Settings::LIST_AUTO) {
    URI uri;
    EXPECT_TRUE(URI_Parser::parse(url.c_str(), uri)) << url;
    Endpoint_Settings settings;
    settings.ca_file = server.ca_file();
    settings.part_size = 5u << 20;
    settings.list_version = version;
    Endpoint_Settings::set(uri.host(), uri.port(), server.access_key(), settings);
    S3_Service_Options options;
    options.type = uri.scheme();
    options.host = uri.host();
    options.port = uri.port();
    options.ssl = uri.is_ssl();
    options.access_key = server.access_key();
    options.secret_key = server.secret_key();
    options.sign_method = sign_method;
    return make_s3_service(options);
  }

  static bool store(S3_Service_Base& s, const std::string& bucket, const std::string& key, const std::string& data) {
    const S3_IWriter_ptr writer = s.upload(bucket.c_str(), key.c_str(), data.size());
    size_t at = 0;
    while (writer && at < data.size()) {
      const int n = writer->write(data.data() + at, data.size() - at);
      if (n <= 0)
        return false;
      at += static_cast<size_t>(n);
    }
    return writer && writer->close();
  }

  static std::string fetch(S3_Service_Base& s, const std::string& bucket, const std::string& key, ACE_UINT64 offset) {
    const HTTP_Connection_var c = s.get_object(bucket.c_str(), key.c_str(), offset, nullptr);
    std::string all, piece(100000, '\0');
    size_t got;
    while ((got = c->recv(&piece[0], piece.size(), nullptr)) > 0 && got != HTTP_Connection::RECV_FAILED)
      all.append(piece, 0, got);
    return c->state() == HTTP_Connection::BODY_READ ? all : "failed: " + std::string(s.error());
  }

  void work(const std::string& bucket, S3_Service_Base& s) {
    SCOPED_TRACE(bucket);
    EXPECT_FALSE(s.bucket_exists(bucket.c_str()));
    ASSERT_TRUE(s.create_bucket(bucket.c_str())) << s.error();
    EXPECT_TRUE(s.bucket_exists(bucket.c_str())) << s.error();
    std::string location;
    EXPECT_TRUE(s.get_bucket_location(bucket.c_str(), location)) << s.error();
    Get_Service_Content account;
    ASSERT_TRUE(s.get_service(Get_Service_Parameter(), account)) << s.error();
    EXPECT_TRUE(std::any_of(account.buckets.begin(), account.buckets.end(),
                            [&](const S3_Bucket& b) { return b.name == bucket; }));

    std::vector<std::string> keys = {"a b",       "a+b",          "a%20b",   "a&b=c", "it's",   "\xc3\xa9",
                                     "e\xcc\x81", "a//b",         "/lead",   "..",    "a/../b", "./x",
                                     "tail/",     "\x01\x1f\x7f", "<>&\"?#", "~",     ".",      std::string(1024, 'k')};
    for (const std::string& key : keys) {
      EXPECT_TRUE(store(s, bucket, key, "data of " + key)) << key;
      EXPECT_EQ("data of " + key, fetch(s, bucket, key, 0)) << key;
      S3_Object object;
      EXPECT_TRUE(s.head_object(bucket.c_str(), key.c_str(), object)) << s.error();
      EXPECT_EQ(key.size() + 8, object.size);
      EXPECT_GT(object.mtime, 1600000000u);
    }
    std::sort(keys.begin(), keys.end());
    std::vector<std::string> listed;
    Get_Bucket_Parameter param;
    param.max_keys(5);
    Get_Bucket_Content content;
    do {
      ASSERT_TRUE(s.get_bucket(bucket.c_str(), param, content)) << s.error();
      for (const S3_Object& object : content.objects)
        listed.push_back(object.name);
      param.marker(content.next_marker.c_str());
    } while (content.truncated);
    EXPECT_EQ(keys, listed);
    std::vector<std::string> top;
    param = Get_Bucket_Parameter();
    param.delimiter("/");
    param.max_keys(3);
    do {
      ASSERT_TRUE(s.get_bucket(bucket.c_str(), param, content)) << s.error();
      for (const S3_Object& object : content.objects)
        top.push_back(object.name);
      top.insert(top.end(), content.common_prefixes.begin(), content.common_prefixes.end());
      param.marker(content.next_marker.c_str());
    } while (content.truncated);
    std::set<std::string> expected;
    for (const std::string& key : keys)
      expected.insert(key.substr(0, key.find('/') == std::string::npos ? key.size() : key.find('/') + 1));
    EXPECT_EQ(expected.size(), top.size());
    EXPECT_EQ(expected, std::set<std::string>(top.begin(), top.end()));
    param = Get_Bucket_Parameter();
    param.delimiter("/");
    param.prefix("a/");
    ASSERT_TRUE(s.get_bucket(bucket.c_str(), param, content)) << s.error();
    EXPECT_EQ((std::vector<std::string>{"a/../", "a//"}), content.common_prefixes);

    std::string large(11u << 20, '\0');
    for (size_t i = 0; i < large.size(); ++i)
      large[i] = static_cast<char>(i * 2654435761u >> 24);
    EXPECT_TRUE(store(s, bucket, "large", large));
    EXPECT_TRUE(large == fetch(s, bucket, "large", 0));
    EXPECT_TRUE(large.substr(7000001) == fetch(s, bucket, "large", 7000001));
    {
      const S3_IWriter_ptr writer = s.upload(bucket.c_str(), "given up", large.size());
      ASSERT_TRUE(writer);
      EXPECT_GT(writer->write(large.data(), large.size()), 0);
    }
    S3_Object object;
    EXPECT_TRUE(s.head_object(bucket.c_str(), "given up", object));
    EXPECT_FALSE(object.exists);
    EXPECT_TRUE(store(s, bucket, "large", large + "more"));
    EXPECT_EQ(0u, fetch(s, bucket, "large", 5).find("failed: PreconditionFailed"));

    for (const std::string& key : keys)
      EXPECT_TRUE(s.del_object(bucket.c_str(), key.c_str())) << s.error();
    EXPECT_TRUE(s.head_object(bucket.c_str(), "a b", object));
    EXPECT_FALSE(object.exists);
  }

  s3_testing::Real_Server server;
};

TEST_F(Real_Service_Test, is_found_sound_by_the_diagnosis_and_lists_the_same_by_either_version) {
  const std::set<std::string> keys{"a b", "a+b", "a%20b", "d/\x01", "d/1", "d/2", "e//f", "\xc3\xa9", "~"};
  for (const std::string& url : {server.endpoint(), server.tls_endpoint()}) {
    const S3_Service_var first = service(url, "v4");
    ASSERT_TRUE(first->create_bucket("versions")) << first->error();
    for (const std::string& key : keys)
      ASSERT_TRUE(store(*first, "versions", key, "some text")) << first->error();
    URI uri;
    ASSERT_TRUE(URI_Parser::parse(url.c_str(), uri));
    for (const auto version : {Endpoint_Settings::LIST_V1, Endpoint_Settings::LIST_V2})
      for (const char* delimiter : {"", "/"}) {
        const S3_Service_var s = service(url, "v4", version);
        std::set<std::string> names;
        Get_Bucket_Parameter param;
        param.max_keys(2);
        param.delimiter(delimiter);
        Get_Bucket_Content page;
        do {
          ASSERT_TRUE(s->get_bucket("versions", param, page)) << s->error();
          for (const S3_Object& object : page.objects)
            names.insert(object.name);
          names.insert(page.common_prefixes.begin(), page.common_prefixes.end());
          param.marker(page.next_marker.c_str());
        } while (page.truncated);
        EXPECT_EQ(*delimiter ? (std::set<std::string>{"a b", "a+b", "a%20b", "d/", "e/", "\xc3\xa9", "~"}) : keys,
                  names);
      }

    s3::Diagnosis_Options look;
    look.service.type = uri.scheme();
    look.service.host = uri.host();
    look.service.port = uri.port();
    look.service.ssl = uri.is_ssl();
    look.service.access_key = server.access_key();
    look.service.secret_key = server.secret_key();
    look.settings.ca_file = server.ca_file();
    look.buckets = {"versions"};
    const s3::Diagnosis diagnosis = diagnose(look);
    for (const s3::Check& check : diagnosis.checks)
      EXPECT_TRUE(check.state == s3::Check::PASSED || check.name == "tls" || check.name == "clock")
          << check.name << ' ' << text_of(check.state) << ' ' << check.fault << ": " << check.found;
    EXPECT_TRUE(diagnosis.good());
    EXPECT_EQ("path", diagnosis.addressing);
    EXPECT_EQ("on", diagnosis.url_encoding);
  }
}

TEST_F(Real_Service_Test, every_request_is_understood) {
  work("plain-v4", *service(server.endpoint(), "v4"));
  work("plain-v2", *service(server.endpoint(), "v2"));
  work("tls-v4", *service(server.tls_endpoint(), "v4"));
  work("tls-v2", *service(server.tls_endpoint(), "v2"));
  const S3_Service_var s = service(server.endpoint(), "v4");
  Get_Bucket_Content content;
  EXPECT_FALSE(s->get_bucket("none", Get_Bucket_Parameter(), content));
  EXPECT_EQ("NoSuchBucket", s->last_error().code());
}

} // namespace
