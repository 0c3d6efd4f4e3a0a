#include "testing/s3_server/test_client.h"
#include "testing/s3_server/xml_text.h"

#include <gtest/gtest.h>

namespace s3_testing {
namespace {

struct S3_server : ::testing::Test {
  S3_server() { server.create_bucket("bucket"); }
  S3_Server server;
  Test_Client client{server};

  static std::vector<std::string> texts(const std::string& page, const std::string& path) {
    std::vector<std::pair<std::string, std::string>> elements;
    EXPECT_TRUE(parse_xml(page, elements)) << page;
    std::vector<std::string> out;
    for (const auto& [at, text] : elements)
      if (at == "ListBucketResult/" + path)
        out.push_back(text);
    return out;
  }
};

using Texts = std::vector<std::string>;

TEST_F(S3_server, stores_and_returns_an_object_with_its_headers) {
  EXPECT_EQ(200, client.call("PUT", "/bucket/a%20b", "hello", "Cache-Control: no-cache\r\n").status);
  const Test_Reply got = client.call("GET", "/bucket/a%20b");
  EXPECT_EQ(200, got.status);
  EXPECT_EQ("hello", got.body);
  EXPECT_EQ("\"5d41402abc4b2a76b9719d911017c592\"", got.headers.at("etag"));
  EXPECT_EQ("no-cache", got.headers.at("cache-control"));
  const Test_Reply head = client.call("HEAD", "/bucket/a%20b");
  EXPECT_EQ("5", head.headers.at("content-length"));
  EXPECT_EQ(204, client.call("DELETE", "/bucket/a%20b").status);
  EXPECT_EQ(404, client.call("GET", "/bucket/a%20b").status);
  EXPECT_EQ(1u, server.connections_opened()) << "the connection is kept";
  EXPECT_EQ(2u, server.count("GetObject"));
}

TEST_F(S3_server, ranges_and_preconditions) {
  server.put("bucket", "k", std::string("0123456789"));
  const Test_Reply part = client.call("GET", "/bucket/k", {}, "Range: bytes=3-5\r\n");
  EXPECT_EQ(206, part.status);
  EXPECT_EQ("345", part.body);
  EXPECT_EQ("bytes 3-5/10", part.headers.at("content-range"));
  EXPECT_EQ("789", client.call("GET", "/bucket/k", {}, "Range: bytes=-3\r\n").body);
  EXPECT_EQ("89", client.call("GET", "/bucket/k", {}, "Range: bytes=8-\r\n").body);
  EXPECT_EQ(416, client.call("GET", "/bucket/k", {}, "Range: bytes=10-\r\n").status);
  EXPECT_EQ(400, client.call("GET", "/bucket/k", {}, "Range: bytes=5-3\r\n").status);
  EXPECT_EQ(412, client.call("GET", "/bucket/k", {}, "If-Match: \"x\"\r\n").status);
  EXPECT_EQ(200, client.call("GET", "/bucket/k", {}, "If-Match: " + part.headers.at("etag") + "\r\n").status);
}

TEST_F(S3_server, v1_listing_gives_a_next_marker_only_with_a_delimiter) {
  for (const char* key : {"a", "b/1", "b/2", "c", "d/1"})
    server.put("bucket", key, std::string("x"));
  Test_Reply page = client.call("GET", "/bucket?max-keys=2");
  EXPECT_EQ(Texts({"a", "b/1"}), texts(page.body, "Contents/Key"));
  EXPECT_EQ(Texts({"true"}), texts(page.body, "IsTruncated"));
  EXPECT_EQ(Texts(), texts(page.body, "NextMarker"));
  page = client.call("GET", "/bucket?max-keys=2&delimiter=/");
  EXPECT_EQ(Texts({"b/"}), texts(page.body, "CommonPrefixes/Prefix"));
  EXPECT_EQ(Texts({"b/"}), texts(page.body, "NextMarker"));
  page = client.call("GET", "/bucket?max-keys=2&delimiter=/&marker=b/");
  EXPECT_EQ(Texts({"c"}), texts(page.body, "Contents/Key"));
  EXPECT_EQ(Texts({"d/"}), texts(page.body, "CommonPrefixes/Prefix"));
  EXPECT_EQ(Texts({"false"}), texts(page.body, "IsTruncated")) << "an exactly full last page is the last";
}

TEST_F(S3_server, odd_keys_need_the_url_encoding) {
  const std::string key = "\x01 +\xff/";
  server.put("bucket", key, std::string("x"));
  EXPECT_EQ(Texts({"%01+%2B%FF/"}), texts(client.call("GET", "/bucket?encoding-type=url").body, "Contents/Key"));
  std::vector<std::pair<std::string, std::string>> elements;
  EXPECT_FALSE(parse_xml(client.call("GET", "/bucket").body, elements));
  server.configure([](S3_Server_Settings& s) { s.key_encoding = Key_Encoding::keys_only; });
  server.put("bucket", "p +/x", std::string("x"));
  const std::string page = client.call("GET", "/bucket?encoding-type=url&delimiter=/&prefix=p").body;
  EXPECT_EQ(Texts({"p +/"}), texts(page, "CommonPrefixes/Prefix"));
}

TEST_F(S3_server, a_million_synthetic_keys_list_and_read_without_being_stored) {
  server.add_synthetic("bucket", "many/", 1000000, 1000);
  server.put("bucket", "many/0000000001x", std::string("between"));
  Test_Reply page = client.call("GET", "/bucket?max-keys=4");
  EXPECT_EQ(Texts({"many/0000000000", "many/0000000001", "many/0000000001x", "many/0000000002"}),
            texts(page.body, "Contents/Key"));
  page = client.call("GET", "/bucket?marker=many/0000999997");
  EXPECT_EQ(Texts({"many/0000999998", "many/0000999999"}), texts(page.body, "Contents/Key"));
  const Test_Reply whole = client.call("GET", "/bucket/many/0000123456");
  EXPECT_EQ(1000u, whole.body.size());
  EXPECT_EQ(whole.body.substr(333, 5),
            client.call("GET", "/bucket/many/0000123456", {}, "Range: bytes=333-337\r\n").body);
  EXPECT_NE(whole.body, client.call("GET", "/bucket/many/0000123457").body);
  EXPECT_EQ(404, client.call("GET", "/bucket/many/0001000000").status);
  EXPECT_TRUE(server.remove("bucket", "many/0000000000"));
  EXPECT_EQ(1000000u, server.object_count("bucket"));
  EXPECT_EQ(404, client.call("HEAD", "/bucket/many/0000000000").status);
}

TEST_F(S3_server, multipart_upload_checks_parts_and_joins_them) {
  const std::string started = client.call("POST", "/bucket/m?uploads", {}, {}, "?uploads").body;
  EXPECT_EQ(1u, server.open_uploads());
  std::vector<std::pair<std::string, std::string>> elements;
  ASSERT_TRUE(parse_xml(started, elements));
  const std::string id = elements.back().second;
  const auto query = [&](int part) { return "?partNumber=" + std::to_string(part) + "&uploadId="; };
  const std::string big(5 << 20, 'x');
  Test_Reply first = client.call("PUT", "/bucket/m" + query(1) + url_encode(id, false), big, {}, query(1) + id);
  Test_Reply second = client.call("PUT", "/bucket/m" + query(2) + url_encode(id, false), "end", {}, query(2) + id);
  ASSERT_EQ(200, first.status);
  const auto complete = [&](const std::string& etag) {
    return client.call("POST", "/bucket/m?uploadId=" + url_encode(id, false),
                       "<CompleteMultipartUpload><Part><PartNumber>1</PartNumber><ETag>" + etag +
                           "</ETag></Part><Part><PartNumber>2</PartNumber><ETag>" + second.headers["etag"] +
                           "</ETag></Part></CompleteMultipartUpload>",
                       {}, "?uploadId=" + id);
  };
  EXPECT_TRUE(complete("\"wrong\"").has("<Code>InvalidPart</Code>"));
  EXPECT_EQ(200, complete(first.headers["etag"]).status);
  EXPECT_EQ(big + "end", server.get("bucket", "m"));
  EXPECT_EQ("-2", server.object("bucket", "m")->etag.substr(32));
  EXPECT_EQ(0u, server.open_uploads());
  EXPECT_TRUE(complete(first.headers["etag"]).has("NoSuchUpload"));
}

TEST_F(S3_server, refuses_what_is_malformed_or_not_served) {
  EXPECT_EQ(400, client.exchange("GET  HTTP/1.1\r\nHost: x\r\n\r\n").status);
  EXPECT_EQ(400, client.exchange("GET /b\xc3\xa9 HTTP/1.1\r\nHost: x\r\n\r\n").status);
  EXPECT_EQ(400, client.exchange("GET /bucket?prefix=a+b HTTP/1.1\r\nHost: x\r\n\r\n").status);
  EXPECT_EQ(400, client.exchange("GET /bucket/%4 HTTP/1.1\r\nHost: x\r\n\r\n").status);
  EXPECT_EQ(400, client.exchange("GET / HTTP/1.1\r\nHost: x\r\nHost: y\r\n\r\n").status);
  EXPECT_EQ(411, client.exchange("PUT /bucket/k HTTP/1.1\r\nHost: x\r\n\r\n").status);
  EXPECT_EQ(403, client.exchange("GET / HTTP/1.1\r\nHost: x\r\n\r\n").status);
  EXPECT_EQ(400, client.call("PUT", "/bucket/" + std::string(1025, 'k'), "x").status);
  EXPECT_EQ(501, client.call("GET", "/bucket/k?torrent", {}, {}, "?torrent").status);
  client.secret_key = "other";
  EXPECT_TRUE(client.call("GET", "/bucket").has("SignatureDoesNotMatch"));
  client.clock_offset = -1000;
  EXPECT_TRUE(client.call("GET", "/bucket").has("RequestTimeTooSkewed"));
  EXPECT_EQ(0u, server.object_count("bucket"));
}

TEST_F(S3_server, scripted_errors_strike_as_often_as_told_and_where_told) {
  server.put("bucket", "a/1", std::string("x"));
  server.put("bucket", "b/1", std::string("x"));
  server.add_fault(Fault::error(503, "SlowDown", 7).on("GetObject").key("a/*").from_nth(2).times(1));
  EXPECT_EQ(200, client.call("GET", "/bucket/a/1").status);
  EXPECT_EQ(200, client.call("GET", "/bucket/b/1").status);
  const Test_Reply slow = client.call("GET", "/bucket/a/1");
  EXPECT_EQ(503, slow.status);
  EXPECT_EQ("7", slow.headers.at("retry-after"));
  EXPECT_TRUE(slow.has("<Code>SlowDown</Code>"));
  EXPECT_EQ(200, client.call("GET", "/bucket/a/1").status);
  server.add_fault(Fault::error_in_200("InternalError").times(1));
  const Test_Reply hidden = client.call("GET", "/bucket/a/1");
  EXPECT_EQ(200, hidden.status);
  EXPECT_TRUE(hidden.has("<Code>InternalError</Code>"));
  EXPECT_EQ(2u, server.faults_struck());
}

TEST_F(S3_server, body_faults_damage_what_they_say) {
  const std::string text = synthetic_bytes(1, 0, 700000);
  server.put("bucket", "k", text);
  const auto get = [&](Fault fault) {
    server.clear_faults();
    server.add_fault(std::move(fault));
    return client.call("GET", "/bucket/k");
  };
  Test_Reply reply = get(Fault::cut(300001));
  EXPECT_FALSE(reply.complete);
  EXPECT_EQ(text.substr(0, 300001), reply.body);
  reply = get(Fault::flip_byte(500000));
  EXPECT_NE(text[500000], reply.body[500000]);
  reply.body[500000] = text[500000];
  EXPECT_EQ(text, reply.body);
  EXPECT_FALSE(get(Fault::wrong_length(5)).complete);
  EXPECT_EQ(text.substr(0, 699995), get(Fault::wrong_length(-5)).body);
  EXPECT_EQ("", get(Fault::empty_body()).body);
  EXPECT_EQ(0, get(Fault::no_reply()).status);
  reply = get(Fault::change_object(1000, false, "new").times(1));
  EXPECT_EQ(text, reply.body) << "a GET keeps its generation";
  EXPECT_EQ("new", client.call("GET", "/bucket/k").body);
}

TEST_F(S3_server, a_stalled_reply_waits_for_its_release) {
  server.put("bucket", "k", std::string("0123456789"));
  server.add_fault(Fault::stall(4).times(1));
  client.send(client.request("GET", "/bucket/k"));
  ASSERT_TRUE(server.wait_for_stalls(1, 20));
  server.release_stalls();
  const Test_Reply reply = client.read();
  EXPECT_FALSE(reply.complete);
  EXPECT_EQ("0123", reply.body);
  server.add_fault(Fault::stall(0));
  client.send(client.request("GET", "/bucket/k"));
  ASSERT_TRUE(server.wait_for_stalls(1, 20)); // the destructor ends it
}

TEST_F(S3_server, broken_listings_do_not_advance) {
  for (const char* key : {"a", "b", "c"})
    server.put("bucket", key, std::string("x"));
  server.add_fault(Fault::repeat_page().on("ListObjects*"));
  for (const char* target : {"/bucket?max-keys=2&delimiter=/", "/bucket?max-keys=2&delimiter=/&marker=b"}) {
    const Test_Reply page = client.call("GET", target);
    EXPECT_EQ(Texts({"b"}), texts(page.body, "NextMarker"));
    EXPECT_EQ(Texts({"a", "b"}), texts(page.body, "Contents/Key"));
  }
  server.clear_faults();
  server.add_fault(Fault::no_next_marker());
  EXPECT_EQ(Texts(), texts(client.call("GET", "/bucket?max-keys=2&delimiter=/").body, "NextMarker"));
  server.clear_faults();
  server.add_fault(Fault::empty_next_marker());
  EXPECT_EQ(Texts({""}), texts(client.call("GET", "/bucket?max-keys=2&delimiter=/").body, "NextMarker"));
}

TEST_F(S3_server, a_redirect_comes_before_the_signature) {
  server.add_fault(Fault::redirect(307, "eu-west-1", "http://127.0.0.1:1").times(1));
  client.secret_key = "wrong";
  const Test_Reply reply = client.call("GET", "/bucket?max-keys=1");
  EXPECT_EQ(307, reply.status);
  EXPECT_EQ("http://127.0.0.1:1/bucket?max-keys=1", reply.headers.at("location"));
  EXPECT_EQ("eu-west-1", reply.headers.at("x-amz-bucket-region"));
}

TEST_F(S3_server, connections_are_refused_and_taken_again) {
  const std::uint16_t port = server.port();
  EXPECT_EQ(200, client.call("HEAD", "/bucket").status);
  server.stop_listening();
  EXPECT_FALSE(Test_Client(server).connected());
  EXPECT_EQ(200, client.call("HEAD", "/bucket").status) << "open ones live on";
  server.listen_again();
  EXPECT_EQ(port, server.port());
  EXPECT_EQ(200, Test_Client(server).call("HEAD", "/bucket").status);
  server.add_fault(Fault::refuse_connection().times(1));
  EXPECT_EQ(0, Test_Client(server).call("HEAD", "/bucket").status);
  EXPECT_EQ(200, Test_Client(server).call("HEAD", "/bucket").status);
}

TEST_F(S3_server, expect_is_answered_before_the_body_comes) {
  std::string whole = client.request("PUT", "/bucket/k", "hello", "Expect: 100-continue\r\n");
  EXPECT_EQ(100, client.exchange(whole.substr(0, whole.size() - 5)).status);
  EXPECT_EQ(200, client.exchange("hello").status);
  EXPECT_EQ("hello", server.get("bucket", "k"));
  // A client that asked waits, be its body empty or not.
  EXPECT_EQ(100, client.exchange(client.request("PUT", "/bucket/empty", "", "Expect: 100-continue\r\n")).status);
  EXPECT_EQ(200, client.read().status);
  server.configure([](S3_Server_Settings& s) { s.expect = Expect_Reply::refuse; });
  EXPECT_EQ(417, client.exchange(whole.substr(0, whole.size() - 5)).status);
}

TEST(S3_server_seed, the_same_seed_strikes_the_same_requests) {
  const auto pattern = [](std::uint64_t seed) {
    Fault_Script script(seed);
    script.add(Fault::no_reply().probability(0.5));
    std::string out;
    for (int i = 0; i < 64; ++i)
      out += script.strike({}).empty() ? '.' : 'x';
    return out;
  };
  EXPECT_EQ(pattern(5), pattern(5));
  EXPECT_NE(pattern(5), pattern(6));
  EXPECT_NE(std::string::npos, pattern(5).find('x'));
  EXPECT_NE(std::string::npos, pattern(5).find('.'));
}

TEST_F(S3_server, parts_that_are_thrown_away_can_still_be_compared) {
  server.configure([](S3_Server_Settings& settings) {
    settings.throw_away_parts = true;
    settings.min_part_size = 1;
  });
  server.put_synthetic("bucket", "like", 100, 7);
  server.put_synthetic("bucket", "unlike", 100, 8);
  server.put_synthetic("bucket", "longer", 101, 7);
  const std::string content = synthetic_bytes(7, 0, 100);
  const Test_Reply begun = client.call("POST", "/bucket/k?uploads", {}, {}, "?uploads");
  const std::size_t from = begun.body.find("<UploadId>") + 10;
  const std::string id = begun.body.substr(from, begun.body.find("</UploadId>") - from);
  std::string list;
  const auto part = [&](int number, const std::string& bytes) {
    const std::string target = "?partNumber=" + std::to_string(number) + "&uploadId=";
    const Test_Reply stored = client.call("PUT", "/bucket/k" + target + url_encode(id, false), bytes, {}, target + id);
    list += "<Part><PartNumber>" + std::to_string(number) + "</PartNumber><ETag>" + stored.headers.at("etag") +
            "</ETag></Part>";
  };
  part(1, content.substr(0, 60));
  part(2, content.substr(60));
  EXPECT_EQ(200, client
                     .call("POST", "/bucket/k?uploadId=" + url_encode(id, false),
                           "<CompleteMultipartUpload>" + list + "</CompleteMultipartUpload>", {}, "?uploadId=" + id)
                     .status);
  EXPECT_EQ("100", client.call("HEAD", "/bucket/k").headers.at("content-length"));
  EXPECT_EQ(501, client.call("GET", "/bucket/k").status);
  EXPECT_TRUE(server.object("bucket", "k")->segments.empty());
  const auto compared = [&](const char* key) {
    return difference(*server.object("bucket", "k"), *server.object("bucket", key));
  };
  EXPECT_EQ("", compared("like"));
  EXPECT_EQ("bytes 0 to 59 differ", compared("unlike"));
  EXPECT_EQ("sizes 100 and 101 differ", compared("longer"));
  EXPECT_EQ("", difference(*server.object("bucket", "like"), *server.object("bucket", "like")));
  EXPECT_EQ("bytes 0 to 99 differ", difference(*server.object("bucket", "unlike"), *server.object("bucket", "like")));
}

} // namespace
} // namespace s3_testing
