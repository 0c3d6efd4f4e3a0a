#include "platform/s3/answers.h"
#include "platform/s3/client_fixture.h"

#include <algorithm>

namespace {

using s3_testing::Fault;
using s3_testing::Key_Encoding;
using s3_testing::S3_Server_Settings;

/// Listings of either version, as the settings ask for them and as services answer.
class List_Version_Test : public Client_Test {
protected:
  std::vector<std::string> walk(S3_Service_Base& s, Get_Bucket_Parameter param) {
    std::vector<std::string> names;
    Get_Bucket_Content content;
    do {
      if (!s.get_bucket("bucket", param, content))
        return {};
      for (const S3_Object& object : content.objects)
        names.push_back(object.name);
      names.insert(names.end(), content.common_prefixes.begin(), content.common_prefixes.end());
      param.marker(content.next_marker.c_str());
    } while (content.truncated);
    std::sort(names.begin(), names.end());
    return names;
  }
  static Get_Bucket_Parameter page_of(int keys, const char* delimiter = "") {
    Get_Bucket_Parameter param;
    param.max_keys(keys);
    param.delimiter(delimiter);
    return param;
  }
  void put(std::initializer_list<const char*> keys) {
    for (const char* key : keys)
      server.put("bucket", key, "x");
  }
};

TEST_F(List_Version_Test, version_2_pages_join_by_their_tokens) {
  settings.list_version = Endpoint_Settings::LIST_V2;
  server.configure([](S3_Server_Settings& s) { s.list_v1 = false; });
  server.add_synthetic("bucket", "p/", 2500, 10);
  server.keep_log(true);
  const S3_Service_var s = service();
  const std::vector<std::string> names = walk(*s, Get_Bucket_Parameter());
  ASSERT_EQ(2500u, names.size()) << s->error();
  EXPECT_EQ("p/0000002499", names.back());
  EXPECT_EQ(3u, server.count("ListObjectsV2"));
  EXPECT_EQ(0u, server.count("ListObjects"));
  EXPECT_NE(std::string::npos, server.log()[1].query.find("continuation-token="));
  EXPECT_EQ(std::string::npos, server.log()[1].query.find("start-after="));
}

TEST_F(List_Version_Test, version_2_goes_on_behind_a_common_prefix_with_and_without_its_token) {
  settings.list_version = Endpoint_Settings::LIST_V2;
  put({"a", "b/1", "b/2", "c", "d/1", "d/2", "e", "f/1"});
  const std::vector<std::string> all{"a", "b/", "c", "d/", "e", "f/"};
  for (const bool tokens : {true, false}) {
    if (!tokens)
      server.add_fault(Fault::no_next_marker().on("ListObjectsV2"));
    for (int keys = 2; keys < 7; ++keys)
      EXPECT_EQ(all, walk(*service(), page_of(keys, "/"))) << keys << tokens;
  }
}

TEST_F(List_Version_Test, empty_token_counts_as_none) {
  settings.list_version = Endpoint_Settings::LIST_V2;
  put({"a", "b", "c", "d", "e"});
  server.add_fault(Fault::empty_next_marker().on("ListObjectsV2"));
  EXPECT_EQ(5u, walk(*service(), page_of(2)).size());
}

TEST_F(List_Version_Test, version_2_page_that_comes_again_is_named) {
  settings.list_version = Endpoint_Settings::LIST_V2;
  put({"a", "b", "c"});
  server.add_fault(Fault::repeat_page().on("ListObjectsV2"));
  const S3_Service_var s = service();
  EXPECT_TRUE(walk(*s, page_of(2)).empty());
  EXPECT_EQ("ListingDoesNotAdvance", s->last_error().code());
  EXPECT_FALSE(s->last_error().retriable());
  EXPECT_EQ(2u, server.count("ListObjectsV2"));
}

TEST_F(List_Version_Test, listing_is_taken_up_by_another_service_at_any_key) {
  settings.list_version = Endpoint_Settings::LIST_V2;
  put({"a", "b", "c", "d", "e"});
  Get_Bucket_Parameter param;
  param.marker("bb");
  EXPECT_EQ((std::vector<std::string>{"c", "d", "e"}), walk(*service(), param));
}

TEST_F(List_Version_Test, auto_turns_to_version_2_where_1_is_not_served) {
  server.configure([](S3_Server_Settings& s) { s.list_v1 = false; });
  put({"a", "b", "c"});
  const S3_Service_var s = service();
  EXPECT_EQ(3u, walk(*s, page_of(1)).size()) << s->error();
  // Version 1 with and without encoding; from then on it is known better.
  EXPECT_EQ(2u, server.count("ListObjects"));
  EXPECT_EQ(3u, server.count("ListObjectsV2"));
}

TEST_F(List_Version_Test, auto_stays_with_version_1_where_2_is_not_served) {
  server.configure([](S3_Server_Settings& s) { s.list_v2 = false; });
  put({"a", "b", "c"});
  EXPECT_EQ(3u, walk(*service(), page_of(1)).size());
  EXPECT_EQ(0u, server.count("ListObjectsV2"));
}

TEST_F(List_Version_Test, version_that_was_asked_for_is_not_exchanged) {
  settings.list_version = Endpoint_Settings::LIST_V2;
  server.configure([](S3_Server_Settings& s) { s.list_v2 = false; });
  const S3_Service_var s = service();
  Get_Bucket_Content content;
  EXPECT_FALSE(s->get_bucket("bucket", Get_Bucket_Parameter(), content));
  EXPECT_EQ("NotImplemented", s->last_error().code());
  EXPECT_EQ(0u, server.count("ListObjects"));
}

TEST_F(List_Version_Test, encoding_that_is_refused_is_left_out_from_then_on) {
  server.configure([](S3_Server_Settings& s) { s.key_encoding = Key_Encoding::refused; });
  put({"a b", "c+d", "e%20f"});
  const S3_Service_var s = service();
  EXPECT_EQ((std::vector<std::string>{"a b", "c+d", "e%20f"}), walk(*s, page_of(1))) << s->error();
  EXPECT_EQ(4u, server.count("ListObjects"));
}

TEST_F(List_Version_Test, encoding_is_not_asked_for_where_it_is_off) {
  settings.url_encoding = Endpoint_Settings::ENCODING_OFF;
  server.configure([](S3_Server_Settings& s) { s.key_encoding = Key_Encoding::refused; });
  put({"a b", "c+d", "e%20f", "g\x01h"});
  const S3_Service_var s = service();
  EXPECT_EQ((std::vector<std::string>{"a b", "c+d", "e%20f", "g\x01h"}), walk(*s, page_of(10))) << s->error();
}

TEST_F(List_Version_Test, keys_that_are_encoded_without_a_word_are_decoded_where_the_settings_say_so) {
  settings.url_encoding = Endpoint_Settings::ENCODING_ON;
  server.configure([](S3_Server_Settings& s) { s.key_encoding = Key_Encoding::unsaid; });
  put({"a b", "c+d", "e%20f", "g\x01h"});
  EXPECT_EQ((std::vector<std::string>{"a b", "c+d", "e%20f", "g\x01h"}), walk(*service(), page_of(10)));
}

TEST_F(List_Version_Test, preset_of_the_vendor_fills_in_what_is_left_open) {
  put({"a", "b"});
  S3_Service_Options options = service_options();
  options.vendor = "MinIO";
  EXPECT_EQ(2u, walk(*make_s3_service(options), page_of(1)).size());
  EXPECT_EQ(2u, server.count("ListObjectsV2"));
  EXPECT_EQ(0u, server.count("ListObjects"));
  settings.list_version = Endpoint_Settings::LIST_V1;
  options = service_options();
  options.vendor = "minio";
  EXPECT_EQ(2u, walk(*make_s3_service(options), page_of(1)).size());
  EXPECT_EQ(2u, server.count("ListObjects"));
}

TEST_F(List_Version_Test, preset_of_an_old_service_signs_by_the_older_method) {
  server.configure([](S3_Server_Settings& s) { s.signatures = s3_testing::Signatures::v2_only; });
  S3_Service_Options options = service_options();
  options.vendor = "ceph-old";
  EXPECT_TRUE(make_s3_service(options)->bucket_exists("bucket"));
  options.sign_method = "v4";
  EXPECT_FALSE(make_s3_service(options)->bucket_exists("bucket"));
}

TEST(Listing_Reader, pages_of_version_2) {
  Get_Bucket_Parameter param;
  param.marker("b");
  const auto read = [&](const std::string& page, Get_Bucket_Content& content, bool repeats, bool& leads_on) {
    s3::Listing_Reader reader(content);
    reader.version_2(repeats);
    EXPECT_TRUE(reader.feed(page.data(), page.size()) && reader.finish()) << reader.problem();
    leads_on = reader.complete(param);
    return reader.token();
  };
  Get_Bucket_Content content;
  bool leads_on = false;
  // Nothing on it, and yet more to come.
  EXPECT_EQ("t", read("<ListBucketResult><KeyCount>0</KeyCount><IsTruncated>true</IsTruncated>"
                      "<NextContinuationToken>t</NextContinuationToken></ListBucketResult>",
                      content, false, leads_on));
  EXPECT_TRUE(leads_on);
  EXPECT_TRUE(content.truncated);
  EXPECT_EQ("", content.next_marker);
  read("<ListBucketResult><IsTruncated>true</IsTruncated></ListBucketResult>", content, false, leads_on);
  EXPECT_FALSE(leads_on);
  // What the marker ended with comes once more.
  const std::string again = "<ListBucketResult><IsTruncated>true</IsTruncated><Contents><Key>a</Key></Contents>"
                            "<Contents><Key>c</Key></Contents><CommonPrefixes><Prefix>b</Prefix></CommonPrefixes>"
                            "</ListBucketResult>";
  read(again, content, true, leads_on);
  EXPECT_TRUE(leads_on);
  ASSERT_EQ(1u, content.objects.size());
  EXPECT_EQ("c", content.objects[0].name);
  EXPECT_TRUE(content.common_prefixes.empty());
  EXPECT_EQ("c", content.next_marker);
}

} // namespace
