#include "platform/s3/redirect.h"

#include <gtest/gtest.h>

namespace {

using s3::Address;
using s3::Error_Document;

HTTP_Head head(int status, Name_Values headers = {}) {
  return HTTP_Head{status, std::move(headers)};
}

TEST(Redirect, hosts_of_the_same_service) {
  const std::pair<const char*, const char*> same[] = {
      {"127.0.0.1", "127.0.0.1"},
      {"s3.amazonaws.com", "s3.eu-west-1.amazonaws.com"},
      {"s3.amazonaws.com", "s3-eu-west-1.amazonaws.com"},
      {"s3.eu-west-1.amazonaws.com", "s3-us-west-2.amazonaws.com"},
      {"s3.cn-north-1.amazonaws.com.cn", "s3.cn-northwest-1.amazonaws.com.cn"},
      {"obs.cn-north-4.cloud.example.com", "obs.cn-south-1.cloud.example.com"},
      {"storage.example.com", "bucket.storage.example.com"},
      {"S3.Example.com", "s3.example.com"},
  };
  for (const auto& [a, b] : same)
    EXPECT_TRUE(s3::is_same_service(a, b)) << a << ' ' << b;
  const std::pair<const char*, const char*> others[] = {
      {"127.0.0.1", "127.0.0.2"},
      {"s3.amazonaws.com", "s3.amazonaws.com.evil.net"},
      {"s3.amazonaws.com", "evils3.amazonaws.com"},
      {"s3.x-1.com", "s3.evil-1.com"},
      {"s3.good-1.co.uk", "s3.evil-1.co.uk"},
      {"localhost", "evil.localhost"},
      {"s3.amazonaws.com", "10.0.0.1"},
      {"s3.eu-west-1.amazonaws.com", "ec2.eu-west-1.amazonaws.com"},
  };
  for (const auto& [a, b] : others)
    EXPECT_FALSE(s3::is_same_service(a, b)) << a << ' ' << b;
}

TEST(Redirect, other_region_is_taken_from_header_or_document) {
  const Address from{false, "s3.example.com", 80, false, "us-east-1"};
  Error_Document document;
  document.code = "AuthorizationHeaderMalformed";
  document.region = "eu-west-1";
  auto to = s3::redirected(from, "b", head(400), document);
  ASSERT_TRUE(to);
  EXPECT_EQ("eu-west-1", to->region);
  EXPECT_EQ(from.host, to->host);
  to = s3::redirected(from, "b", head(400, {{"x-amz-bucket-region", "eu-west-3"}}), Error_Document());
  ASSERT_TRUE(to);
  EXPECT_EQ("eu-west-3", to->region);
}

TEST(Redirect, refusal_that_says_nothing_new_is_not_followed) {
  const Address from{false, "s3.example.com", 80, false, "us-east-1"};
  Error_Document document;
  document.region = "us-east-1";
  EXPECT_FALSE(s3::redirected(from, "b", head(400), document));
  EXPECT_FALSE(s3::redirected(from, "b", head(400), Error_Document()));
  EXPECT_FALSE(s3::redirected(from, "b", head(307, {{"location", "http://s3.example.com/b"}}), Error_Document()));
  EXPECT_FALSE(s3::redirected(from, "b", head(503, {{"x-amz-bucket-region", "eu-west-1"}}), Error_Document()));
}

TEST(Redirect, location_with_the_bucket_in_front_turns_to_virtual_host_style) {
  const Address from{false, "s3.amazonaws.com", 80, false, ""};
  const auto to =
      s3::redirected(from, "b", head(307, {{"location", "http://b.s3-eu-west-1.amazonaws.com/key"}}), Error_Document());
  ASSERT_TRUE(to);
  EXPECT_TRUE(to->virtual_host);
  EXPECT_EQ("s3-eu-west-1.amazonaws.com", to->host);
  EXPECT_EQ(80, to->port);
}

TEST(Redirect, endpoint_of_the_document_keeps_scheme_and_port) {
  const Address from{true, "s3.amazonaws.com", 443, true, "us-east-1"};
  Error_Document document;
  document.code = "PermanentRedirect";
  document.endpoint = "b.s3.eu-west-1.amazonaws.com";
  const auto to = s3::redirected(from, "b", head(301, {{"x-amz-bucket-region", "eu-west-1"}}), document);
  ASSERT_TRUE(to);
  EXPECT_EQ((Address{true, "s3.eu-west-1.amazonaws.com", 443, true, "eu-west-1"}), *to);
}

TEST(Redirect, region_alone_replaces_the_region_in_the_host) {
  const Address from{true, "s3.us-west-2.amazonaws.com", 443, true, "us-west-2"};
  const auto to = s3::redirected(from, "b", head(301, {{"x-amz-bucket-region", "eu-west-1"}}), Error_Document());
  ASSERT_TRUE(to);
  EXPECT_EQ("s3.eu-west-1.amazonaws.com", to->host);
  EXPECT_EQ("eu-west-1", to->region);
}

TEST(Redirect, never_away_from_tls_nor_to_another_service_or_port) {
  const Address tls{true, "s3.example.com", 443, false, ""};
  const Address plain{false, "s3.example.com", 80, false, ""};
  const auto to = [](const Address& from, const char* location) {
    return s3::redirected(from, "b", head(307, {{"location", location}}), Error_Document());
  };
  EXPECT_FALSE(to(tls, "http://s3.example.com/"));
  EXPECT_FALSE(to(tls, "https://s3.evil.com/"));
  EXPECT_FALSE(to(tls, "https://s3.example.com:444/"));
  EXPECT_FALSE(to(plain, "http://127.0.0.1/"));
  EXPECT_FALSE(to(plain, "ftp://s3.example.com/"));
  EXPECT_FALSE(to(plain, "http://"));
  ASSERT_TRUE(to(plain, "https://s3.example.com/"));
  EXPECT_TRUE(to(plain, "https://s3.example.com/")->ssl);
}

} // namespace
