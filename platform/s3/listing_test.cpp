#include "platform/s3/client_fixture.h"

#include "testing/s3_server/raw_server.h"

#include <cerrno>

namespace {

using s3_testing::Fault;

class Listing_Test : public Client_Test {
protected:
  /// All pages; the number of requests is the server's to tell.
  std::vector<std::string> walk(S3_Service_Base& s, Get_Bucket_Parameter param) {
    std::vector<std::string> names;
    Get_Bucket_Content content;
    do {
      if (!s.get_bucket("bucket", param, content))
        return {};
      for (const S3_Object& object : content.objects)
        names.push_back(object.name);
      names.insert(names.end(), content.common_prefixes.begin(), content.common_prefixes.end());
      EXPECT_TRUE(!content.truncated || !content.next_marker.empty());
      param.marker(content.next_marker.c_str());
    } while (content.truncated);
    return names;
  }
};

TEST_F(Listing_Test, record_of_a_key_is_complete) {
  server.put("bucket", "a key", "hello");
  const S3_Service_var s = service();
  Get_Bucket_Content content;
  ASSERT_TRUE(s->get_bucket("bucket", Get_Bucket_Parameter(), content)) << s->error();
  ASSERT_EQ(1u, content.objects.size());
  const S3_Object& object = content.objects[0];
  EXPECT_EQ("a key", object.name);
  EXPECT_TRUE(object.exists);
  EXPECT_EQ(5u, object.size);
  EXPECT_EQ(static_cast<ACE_UINT64>(server.object("bucket", "a key")->mtime), object.mtime);
  EXPECT_FALSE(content.truncated);
  EXPECT_EQ("", content.next_marker);
}

TEST_F(Listing_Test, pages_join_without_gap_or_overlap) {
  server.add_synthetic("bucket", "p/", 2500, 10);
  const S3_Service_var s = service();
  const std::vector<std::string> names = walk(*s, Get_Bucket_Parameter());
  ASSERT_EQ(2500u, names.size()) << s->error();
  EXPECT_EQ("p/0000000000", names.front());
  EXPECT_EQ("p/0000002499", names.back());
  EXPECT_EQ(3u, server.count("ListObjects"));
  EXPECT_EQ(2500u, ledger->listed_keys.load());
  EXPECT_EQ(1u, server.connections_opened());
}

TEST_F(Listing_Test, pages_of_keys_and_prefixes_go_on_behind_the_later_of_both) {
  for (const char* key : {"a", "b/1", "b/2", "c", "d/1", "e", "f/1", "f/2"})
    server.put("bucket", key, "x");
  const S3_Service_var s = service();
  for (const bool marker : {true, false}) {
    server.clear_faults();
    if (!marker)
      server.add_fault(Fault::no_next_marker());
    for (int size = 1; size < 8; ++size) {
      Get_Bucket_Parameter param;
      param.delimiter("/");
      param.max_keys(size);
      std::vector<std::string> names = walk(*s, param);
      std::sort(names.begin(), names.end());
      EXPECT_EQ((std::vector<std::string>{"a", "b/", "c", "d/", "e", "f/"}), names) << size << s->error();
    }
  }
}

/// What a service that answers `page` to whatever it is asked does to a listing of "p/".
struct Fixed_Page {
  explicit Fixed_Page(const std::string& inside)
      : body("<ListBucketResult><IsTruncated>false</IsTruncated>" + inside + "</ListBucketResult>"),
        raw("HTTP/1.1 200 OK\r\nContent-Type: application/xml\r\nConnection: close\r\nContent-Length: " +
            std::to_string(body.size()) + "\r\n\r\n" + body) {}

  /// The code of the error; empty for none.
  std::string listed(std::shared_ptr<S3_Ledger> ledger) {
    S3_Service_Options options;
    options.type = "http";
    options.host = "127.0.0.1";
    options.port = raw.port();
    options.access_key = options.secret_key = "x";
    options.ledger = ledger;
    Get_Bucket_Parameter param;
    param.prefix("p/");
    param.delimiter("/");
    Get_Bucket_Content content;
    const S3_Service_var s = make_s3_service(options);
    if (s->get_bucket("bucket", param, content))
      return std::string();
    EXPECT_TRUE(content.objects.empty() && content.common_prefixes.empty());
    EXPECT_FALSE(s->last_error().retriable());
    return s->last_error().code();
  }

  std::string body;
  s3_testing::Raw_Server raw;
};

std::string key(const std::string& name) {
  return "<Contents><Key>" + name + "</Key><Size>1</Size><LastModified>2020-01-01T00:00:00Z</LastModified></Contents>";
}

std::string prefix(const std::string& name) {
  return "<CommonPrefixes><Prefix>" + name + "</Prefix></CommonPrefixes>";
}

TEST_F(Listing_Test, page_of_what_was_not_asked_for_is_a_broken_answer_and_named) {
  for (const std::string& inside : {
           key("p/a") + key("a"),
           key("p/" + std::string(1023, 'x')),
           prefix("p/a/") + prefix("q/"),
           prefix("p/"),
           prefix("p/" + std::string(1022, 'x') + '/'),
       }) {
    const std::shared_ptr<S3_Ledger> account = std::make_shared<S3_Ledger>();
    EXPECT_EQ("BrokenListing", Fixed_Page(inside).listed(account)) << inside.substr(0, 100);
    EXPECT_EQ(0u, account->listed_keys.load());
    ASSERT_EQ(1u, account->failed_listings().size());
    EXPECT_EQ("/bucket/p/", account->failed_listings()[0].path);
    EXPECT_NE(std::string::npos, account->failed_listings()[0].message.find("not the one asked for"));
  }
}

TEST_F(Listing_Test, longest_keys_and_the_folder_itself_are_taken) {
  const std::shared_ptr<S3_Ledger> account = std::make_shared<S3_Ledger>();
  EXPECT_EQ("", Fixed_Page(key("p/") + key("p/" + std::string(1022, 'x')) + prefix("p/a/")).listed(account));
  EXPECT_EQ(2u, account->listed_keys.load());
  EXPECT_TRUE(account->failed_listings().empty());
}

TEST_F(Listing_Test, page_with_more_entries_than_any_service_sends_is_refused) {
  std::string all;
  for (int i = 0; i < 10001; ++i)
    all += prefix("p/" + std::to_string(i) + '/');
  EXPECT_EQ("MalformedAnswer", Fixed_Page(all).listed(ledger));
}

TEST_F(Listing_Test, empty_next_marker_counts_as_none) {
  server.add_synthetic("bucket", "p", 30, 1);
  server.add_fault(Fault::empty_next_marker());
  Get_Bucket_Parameter param;
  param.max_keys(7);
  EXPECT_EQ(30u, walk(*service(), param).size());
}

TEST_F(Listing_Test, page_that_comes_again_is_an_error_and_no_loop) {
  server.add_synthetic("bucket", "p", 30, 1);
  server.add_fault(Fault::repeat_page());
  const S3_Service_var s = service();
  Get_Bucket_Parameter param;
  param.max_keys(10);
  Get_Bucket_Content content;
  ASSERT_TRUE(s->get_bucket("bucket", param, content)) << s->error();
  param.marker(content.next_marker.c_str());
  EXPECT_FALSE(s->get_bucket("bucket", param, content));
  EXPECT_EQ("ListingDoesNotAdvance", s->last_error().code());
  EXPECT_FALSE(s->last_error().retriable());
  EXPECT_EQ(EPROTO, s->last_error().number());
  EXPECT_TRUE(content.objects.empty());
}

TEST_F(Listing_Test, keys_come_as_bytes_however_the_service_encodes) {
  for (const char* key : {"a b/c d", "p%20q", "x+y/z", "\xc3\xa9/\xe2\x82\xac", "plain"})
    server.put("bucket", key, "x");
  Get_Bucket_Parameter param;
  param.delimiter("/");
  for (const s3_testing::Key_Encoding encoding :
       {s3_testing::Key_Encoding::as_asked, s3_testing::Key_Encoding::ignored, s3_testing::Key_Encoding::keys_only}) {
    server.configure([&](s3_testing::S3_Server_Settings& settings) { settings.key_encoding = encoding; });
    std::vector<std::string> names = walk(*service(), param);
    std::sort(names.begin(), names.end());
    const std::vector<std::string> expected = {"a b/", "p%20q", "plain", "x+y/", "\xc3\xa9/"};
    EXPECT_EQ(expected, names) << static_cast<int>(encoding);
  }
}

TEST_F(Listing_Test, form_of_prefixes_is_asked_for_once) {
  for (const char* key : {"a%20b/c", "d%20e/f", "plain/x"})
    server.put("bucket", key, "x");
  Get_Bucket_Parameter param;
  param.delimiter("/");
  const S3_Service_var s = service();
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ((std::vector<std::string>{"a%20b/", "d%20e/", "plain/"}), walk(*s, param));
  EXPECT_EQ(3u + 2, server.count("ListObjects"));
}

TEST_F(Listing_Test, keys_that_xml_does_not_allow_come_from_a_service_that_does_not_encode) {
  for (const char* key : {"\x01\x1f", "\xff\xfe", "\xef\xbf\xbe", "a%41+b", "\xc3\xa9", "<&>"})
    server.put("bucket", key, "x");
  server.configure(
      [](s3_testing::S3_Server_Settings& settings) { settings.key_encoding = s3_testing::Key_Encoding::ignored; });
  const S3_Service_var s = service();
  EXPECT_EQ(server.keys("bucket"), walk(*s, Get_Bucket_Parameter())) << s->error();
  EXPECT_EQ(2u, server.count("ListObjects"));
  EXPECT_EQ(server.keys("bucket"), walk(*s, Get_Bucket_Parameter())) << s->error();
  EXPECT_EQ(3u, server.count("ListObjects"));
}

TEST_F(Listing_Test, folder_objects_are_counted_by_what_they_hold) {
  server.put("bucket", "a/", "");
  server.put("bucket", "b/", "data");
  server.put("bucket", "b/x", "x");
  const S3_Service_var s = service();
  Get_Bucket_Content content;
  for (const char* prefix : {"", "a/", "b/"}) {
    Get_Bucket_Parameter param;
    param.delimiter("/");
    param.prefix(prefix);
    ASSERT_TRUE(s->get_bucket("bucket", param, content)) << s->error();
  }
  EXPECT_EQ(1u, ledger->empty_folder_objects());
  EXPECT_EQ(1u, ledger->full_folder_objects());
  ASSERT_EQ(2u, ledger->folder_objects().size());
  EXPECT_EQ("/bucket/b/", ledger->folder_objects()[0].path);
  EXPECT_EQ(4u, ledger->folder_objects()[0].size);
  EXPECT_EQ(3u, ledger->listed_keys.load());
}

TEST_F(Listing_Test, page_that_nobody_asks_for_leaves_its_prefix_broken_off) {
  for (const char* key : {"p/a", "p/b", "p/c"})
    server.put("bucket", key, "x");
  const S3_Service_var s = service();
  Get_Bucket_Parameter param;
  param.prefix("p/");
  param.max_keys(2);
  Get_Bucket_Content content;
  ASSERT_TRUE(s->get_bucket("bucket", param, content)) << s->error();
  ASSERT_TRUE(content.truncated);
  ASSERT_EQ(1u, ledger->broken_off_listings().size());
  EXPECT_EQ("/bucket/p/", ledger->broken_off_listings()[0].path);
  const std::string marker = content.next_marker;
  param.marker(marker.c_str());
  ASSERT_TRUE(s->get_bucket("bucket", param, content)) << s->error();
  EXPECT_TRUE(ledger->broken_off_listings().empty());
}

TEST_F(Listing_Test, failed_listing_stands_in_the_ledger_until_it_is_repeated) {
  server.add_fault(Fault::error(503, "SlowDown").times(2));
  const S3_Service_var s = service();
  Get_Bucket_Parameter param;
  param.prefix("p/");
  Get_Bucket_Content content;
  EXPECT_FALSE(s->get_bucket("bucket", param, content));
  EXPECT_TRUE(s->last_error().retriable());
  EXPECT_FALSE(s->get_bucket("bucket", param, content));
  ASSERT_EQ(1u, ledger->failed_listings().size());
  EXPECT_EQ("/bucket/p/", ledger->failed_listings()[0].path);
  EXPECT_NE(std::string::npos, ledger->failed_listings()[0].message.find("SlowDown"));
  EXPECT_TRUE(s->get_bucket("bucket", param, content));
  EXPECT_TRUE(ledger->failed_listings().empty());
}

TEST_F(Listing_Test, page_cut_short_is_retriable_and_gives_nothing) {
  server.add_synthetic("bucket", "p", 500, 1);
  server.add_fault(Fault::cut(5000).on("ListObjects").times(1));
  const S3_Service_var s = service();
  Get_Bucket_Content content;
  EXPECT_FALSE(s->get_bucket("bucket", Get_Bucket_Parameter(), content));
  EXPECT_EQ("ConnectionBroken", s->last_error().code());
  EXPECT_TRUE(s->last_error().retriable());
  EXPECT_TRUE(content.objects.empty());
  EXPECT_TRUE(s->get_bucket("bucket", Get_Bucket_Parameter(), content));
  EXPECT_EQ(500u, content.objects.size());
}

TEST_F(Listing_Test, page_that_is_no_listing_is_named) {
  const S3_Service_var s = service();
  Get_Bucket_Content content;
  for (Fault fault : {Fault::garbage_body(), Fault::empty_body(), Fault::truncated_body(200)}) {
    server.clear_faults();
    server.add_synthetic("bucket", "p", 50, 1);
    server.add_fault(fault.on("ListObjects"));
    EXPECT_FALSE(s->get_bucket("bucket", Get_Bucket_Parameter(), content));
    EXPECT_EQ("MalformedAnswer", s->last_error().code());
    EXPECT_TRUE(content.objects.empty());
  }
}

TEST_F(Listing_Test, error_under_a_success_is_an_error) {
  server.add_fault(Fault::error_in_200("SlowDown").on("ListObjects").times(1));
  const S3_Service_var s = service();
  Get_Bucket_Content content;
  EXPECT_FALSE(s->get_bucket("bucket", Get_Bucket_Parameter(), content));
  EXPECT_EQ("SlowDown", s->last_error().code());
  EXPECT_TRUE(s->last_error().retriable());
}

TEST_F(Listing_Test, bucket_that_does_not_exist_is_named) {
  const S3_Service_var s = service();
  Get_Bucket_Content content;
  EXPECT_FALSE(s->get_bucket("none", Get_Bucket_Parameter(), content));
  EXPECT_EQ("NoSuchBucket", s->last_error().code());
  EXPECT_EQ(ENOENT, s->last_error().number());
}

TEST_F(Listing_Test, client_gives_buckets_as_folders) {
  server.create_bucket("second");
  S3_Client client;
  ASSERT_TRUE(connect(client, 0));
  std::vector<json_spirit::Value> buckets;
  ASSERT_TRUE(client.get_buckets(buckets));
  ASSERT_EQ(2u, buckets.size());
  EXPECT_EQ("bucket", buckets[0].get_obj().at("dir").get_str());
  EXPECT_EQ("second", buckets[1].get_obj().at("dir").get_str());
  server.add_fault(Fault::error(403, "AccessDenied").times(1));
  EXPECT_FALSE(client.get_buckets(buckets));
  EXPECT_EQ(2u, buckets.size());
  ASSERT_EQ(1u, ledger->failed_listings().size());
  EXPECT_EQ("/", ledger->failed_listings()[0].path);
  EXPECT_TRUE(client.get_buckets(buckets));
  EXPECT_TRUE(ledger->failed_listings().empty());
}

} // namespace
