#include "platform/s3/request_builder.h"

#include "platform/s3/digest.h"
#include "platform/s3/percent_encoding.h"

#include <gtest/gtest.h>

namespace {

using s3::Address;
using s3::Credentials;
using s3::Request;

constexpr time_t AT = 1369353600;

Request get(const char* bucket, const char* key) {
  return Request{"GET", bucket, key, {}, {}, false, {}};
}

Address path_style() {
  return Address{false, "127.0.0.1", 9000, false, ""};
}
Address virtual_style() {
  return Address{false, "s3.example.com", 80, true, ""};
}

std::string header(const HTTP_Request& request, const std::string& name) {
  for (const auto& [key, value] : request.headers)
    if (key == name)
      return value;
  return "(none)";
}

HTTP_Request built(const Request& request, const Address& address, s3::Sign_Method method = s3::SIGN_V4) {
  const Credentials credentials{"access", "secret", "", method};
  return s3::build(request, address, credentials,
                   s3::make_v4_key(credentials.secret_key, AT, s3::signing_region(address), "s3"), AT);
}

TEST(Request_Builder, urls_of_both_styles) {
  struct Row {
    Address address;
    const char* bucket;
    const char* key;
    const char* url;
  };
  Address tls = virtual_style();
  tls.ssl = true;
  tls.port = 443;
  const Row rows[] = {
      {path_style(), "", "", "http://127.0.0.1:9000/"},
      {path_style(), "bucket", "", "http://127.0.0.1:9000/bucket"},
      {path_style(), "bucket", "key", "http://127.0.0.1:9000/bucket/key"},
      {path_style(), "My_Bucket", "key", "http://127.0.0.1:9000/My_Bucket/key"},
      {virtual_style(), "", "", "http://s3.example.com/"},
      {virtual_style(), "bucket", "", "http://bucket.s3.example.com/"},
      {virtual_style(), "bucket", "a/b", "http://bucket.s3.example.com/a/b"},
      {virtual_style(), "My_Bucket", "key", "http://s3.example.com/My_Bucket/key"},
      {virtual_style(), "a.bucket", "key", "http://a.bucket.s3.example.com/key"},
      {tls, "a.bucket", "key", "https://s3.example.com/a.bucket/key"},
      {tls, "bucket", "key", "https://bucket.s3.example.com/key"},
      {{false, "::1", 9000, false, ""}, "bucket", "key", "http://[::1]:9000/bucket/key"},
  };
  for (const Row& row : rows)
    EXPECT_EQ(row.url, built(get(row.bucket, row.key), row.address).url);
}

TEST(Request_Builder, keys_are_encoded_once_and_never_cleaned) {
  const std::pair<const char*, const char*> rows[] = {
      {"/a", "/bucket//a"},
      {"a//b", "/bucket/a//b"},
      {"./../a", "/bucket/./../a"},
      {"a b+c%20", "/bucket/a%20b%2Bc%2520"},
      {"\x01\x7f\xff", "/bucket/%01%7F%FF"},
      {"\xc3\xa9?#&=", "/bucket/%C3%A9%3F%23%26%3D"},
      {"a/", "/bucket/a/"},
  };
  for (const auto& [key, path] : rows)
    EXPECT_EQ(std::string("http://127.0.0.1:9000") + path, built(get("bucket", key), path_style()).url);
}

TEST(Request_Builder, parameters_are_encoded_and_go_without_a_value_where_there_is_none) {
  Request request = get("bucket", "");
  request.query = {{"uploads", ""}, {"prefix", "a/b c"}};
  EXPECT_EQ("http://127.0.0.1:9000/bucket?uploads&prefix=a%2Fb%20c", built(request, path_style()).url);
}

TEST(Request_Builder, hosts_that_want_path_style) {
  for (const char* host : {"127.0.0.1", "localhost", "::1", "10.0.0.7", "storage"})
    EXPECT_TRUE(s3::needs_path_style(host)) << host;
  for (const char* host : {"s3.example.com", "1.example", "localhost.localdomain"})
    EXPECT_FALSE(s3::needs_path_style(host)) << host;
}

TEST(Request_Builder, buckets_that_fit_a_host_name) {
  for (const char* name : {"abc", "a-b", "a.b", "0ab"})
    EXPECT_TRUE(s3::is_dns_bucket(name, false)) << name;
  for (const char* name : {"ab", "Abc", "a_b", "-ab", "ab-", ".ab", "a..b", "ab/", ""})
    EXPECT_FALSE(s3::is_dns_bucket(name, false)) << name;
  EXPECT_FALSE(s3::is_dns_bucket(std::string(64, 'a'), false));
  EXPECT_FALSE(s3::is_dns_bucket("a.b", true));
}

TEST(Request_Builder, body_is_signed_over_plain_http_and_left_to_tls) {
  Request put{"PUT", "bucket", "key", {}, {}, true, "data"};
  EXPECT_EQ(s3::to_hex(s3::sha256("data")), header(built(put, path_style()), "x-amz-content-sha256"));
  Address tls = path_style();
  tls.ssl = true;
  EXPECT_EQ(s3::UNSIGNED_PAYLOAD, header(built(put, tls), "x-amz-content-sha256"));
  EXPECT_EQ(s3::to_base64(s3::md5("data")), header(built(put, path_style(), s3::SIGN_V2), "content-md5"));
}

TEST(Request_Builder, region_defaults_and_shows_in_the_signature) {
  EXPECT_NE(std::string::npos,
            header(built(get("bucket", "key"), path_style()), "authorization").find("/us-east-1/s3/aws4_request"));
  Address address = path_style();
  address.region = "eu-west-1";
  EXPECT_NE(std::string::npos,
            header(built(get("bucket", "key"), address), "authorization").find("/eu-west-1/s3/aws4_request"));
}

TEST(Request_Builder, session_token_is_sent_and_signed) {
  const Credentials credentials{"access", "secret", "token", s3::SIGN_V4};
  const HTTP_Request request =
      s3::build(get("bucket", "key"), path_style(), credentials, s3::make_v4_key("secret", AT, "us-east-1", "s3"), AT);
  EXPECT_EQ("token", header(request, "x-amz-security-token"));
  EXPECT_NE(std::string::npos, header(request, "authorization").find("x-amz-security-token"));
}

TEST(Percent_Encoding, decoding_undoes_encoding_for_every_byte) {
  std::string all;
  for (int c = 1; c < 256; ++c)
    all.push_back(static_cast<char>(c));
  std::string back;
  ASSERT_TRUE(s3::percent_decode(s3::percent_encode(all, true), true, back));
  EXPECT_EQ(all, back);
}

TEST(Percent_Encoding, what_no_encoder_leaves_is_refused) {
  std::string out;
  for (const char* text : {"%", "%4", "%zz", "a b", "\x01", "\xc3\xa9", "a%2"})
    EXPECT_FALSE(s3::percent_decode(text, true, out)) << text;
  ASSERT_TRUE(s3::percent_decode("a+b%2B%41", true, out));
  EXPECT_EQ("a b+A", out);
  ASSERT_TRUE(s3::percent_decode("a+b", false, out));
  EXPECT_EQ("a+b", out);
}

} // namespace
