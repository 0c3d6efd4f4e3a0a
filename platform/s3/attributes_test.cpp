#include "platform/s3/attribute_headers.h"
#include "platform/s3/attribute_refusal.h"
#include "platform/s3/checksum.h"
#include "platform/s3/client_fixture.h"
#include "platform/s3/digest.h"
#include "platform/s3/part_plan.h"
#include "sdk/s3/object_attributes.h"

#include <algorithm>
#include <map>

namespace {

using s3_testing::Fault;
using s3_testing::Header_Refusal;
using s3_testing::S3_Server_Settings;
using namespace s3;

HTTP_Head head_of(const Name_Values& headers) {
  HTTP_Head head;
  head.status = 200;
  head.headers = headers;
  return head;
}

std::map<std::string, std::string> as_map(const Object_Attributes::Named& values) {
  return {values.begin(), values.end()};
}

/// Every field filled, with bytes that test the way.
Object_Attributes full() {
  Object_Attributes a;
  a.headers = {{"cache-control", "max-age=3"},
               {"content-disposition", "attachment; filename=\"a b.txt\""},
               {"content-type", "text/x; charset=utf-8"},
               {"x-amz-website-redirect-location", "/other"}};
  a.metadata = {
      {"empty", ""}, {"latin", "caf\xE9"}, {"mime", "=?UTF-8?Q?=C3=A4?="}, {"utf-8", "\xC3\xA4  \xE2\x82\xAC"}};
  a.tags = {{"a", "1"}, {"b c", "x&y=z/+"}};
  a.storage_class = "COLD";
  a.lock_mode = "GOVERNANCE";
  a.lock_until = "2099-01-02T00:00:00.000Z";
  a.legal_hold = true;
  a.owner = "me";
  a.grants = {{"CanonicalUser", "me", "FULL_CONTROL"}, {"Group", "http://x/y", "READ"}};
  a.checksums = {{"crc32c", "AAAAAA=="}};
  a.checksum_type = "FULL_OBJECT";
  a.etag = "0123456789abcdef0123456789abcdef-3";
  a.parts = {{2, 5242880}, {1, 7}};
  return a;
}

TEST(attributes_text, everything_comes_back_through_the_texts) {
  const Object_Attributes a = full();
  Object_Attributes b;
  std::string error;
  ASSERT_TRUE(b.parse(a.common_text(), a.own_text(), error)) << error;
  EXPECT_EQ(a.headers, b.headers);
  EXPECT_EQ(a.metadata, b.metadata);
  EXPECT_EQ(a.tags, b.tags);
  EXPECT_EQ(a.storage_class, b.storage_class);
  EXPECT_EQ(a.lock_mode, b.lock_mode);
  EXPECT_EQ(a.lock_until, b.lock_until);
  EXPECT_TRUE(b.legal_hold);
  EXPECT_EQ(a.owner, b.owner);
  EXPECT_EQ(a.grants, b.grants);
  EXPECT_EQ(a.checksums, b.checksums);
  EXPECT_EQ(a.checksum_type, b.checksum_type);
  EXPECT_EQ(a.etag, b.etag);
  EXPECT_EQ(a.parts, b.parts);
  EXPECT_EQ(a.common_text(), b.common_text());
  EXPECT_EQ(a.own_text(), b.own_text());
}

TEST(attributes_text, what_is_alike_has_the_same_text_whatever_the_order_it_came_in) {
  Object_Attributes a = full(), b = full();
  std::reverse(b.metadata.begin(), b.metadata.end());
  std::reverse(b.headers.begin(), b.headers.end());
  b.etag = "another";
  b.parts.clear();
  EXPECT_EQ(a.common_text(), b.common_text());
  EXPECT_NE(a.own_text(), b.own_text());
}

TEST(attributes_text, nothing_known_is_no_text) {
  EXPECT_EQ("", Object_Attributes().common_text());
  EXPECT_EQ("", Object_Attributes().own_text());
  Object_Attributes a;
  std::string error;
  EXPECT_TRUE(a.parse("", "", error));
}

TEST(attributes_text, no_tags_and_tags_that_nobody_asked_for_are_told_apart) {
  const auto back = [](const Object_Attributes& a) {
    Object_Attributes b;
    std::string error;
    EXPECT_TRUE(b.parse(a.common_text(), a.own_text(), error)) << error;
    return b;
  };
  Object_Attributes a;
  EXPECT_FALSE(back(a).tags_known);
  a.tag_count = 3;
  EXPECT_FALSE(back(a).tags_known);
  EXPECT_EQ(3, back(a).tag_count);
  a.tag_count = 0;
  EXPECT_EQ("", a.common_text());
  a.tags_known = true;
  EXPECT_TRUE(back(a).tags_known);
  EXPECT_TRUE(back(a).tags.empty());
  EXPECT_TRUE(back(full()).tags_known);
}

TEST(attributes_text, access_list_is_known_by_its_owner_and_shared_by_a_grant_to_another) {
  Object_Attributes a;
  EXPECT_FALSE(a.acl_known());
  a.owner = "me";
  EXPECT_TRUE(a.acl_known());
  a.grants = {{"CanonicalUser", "me", "FULL_CONTROL"}};
  EXPECT_FALSE(a.is_shared());
  a.grants.push_back({"Group", "http://x/y", "READ"});
  EXPECT_TRUE(a.is_shared());
}

TEST(attributes_text, every_byte_of_user_metadata_is_kept) {
  Object_Attributes a, b;
  for (int c = 1; c < 256; ++c)
    a.metadata.emplace_back("m" + std::to_string(1000 + c), std::string(1, static_cast<char>(c)));
  std::string error;
  ASSERT_TRUE(b.parse(a.common_text(), a.own_text(), error)) << error;
  EXPECT_EQ(a.metadata, b.metadata);
}

TEST(attributes_text, texts_that_make_no_sense_are_refused_with_the_reason) {
  for (const char* text : {"[]", "5", "{", "{\"headers\":5}", "{\"headers\":{\"a\":1}}", "{\"legal_hold\":\"x\"}",
                           "{\"grants\":[{}]}", "{\"grants\":[5]}"}) {
    Object_Attributes a;
    std::string error;
    EXPECT_FALSE(a.parse(text, "", error)) << text;
    EXPECT_FALSE(error.empty()) << text;
  }
  for (const char* text : {"{\"parts\":[1]}", "{\"parts\":[[1]]}", "{\"parts\":[[1,-5]]}", "{\"etag\":{}}"}) {
    Object_Attributes a;
    std::string error;
    EXPECT_FALSE(a.parse("", text, error)) << text;
  }
  Object_Attributes a;
  std::string error;
  EXPECT_TRUE(a.parse("{\"of a later version\":[1,2]}", "{\"x\":5}", error)) << error;
}

TEST(attributes_headers, answer_fills_them_and_leaves_out_what_is_not_the_objects) {
  const Object_Attributes a =
      read_attributes(head_of({{"date", "x"},
                               {"content-length", "5"},
                               {"etag", "\"abc-2\""},
                               {"content-type", "a/b"},
                               {"x-amz-meta-a", "1"},
                               {"x-amz-meta-", "no name"},
                               {"x-amz-meta-a", "2"},
                               {"x-amz-storage-class", "STANDARD"},
                               {"x-amz-object-lock-mode", "COMPLIANCE"},
                               {"x-amz-object-lock-retain-until-date", "2030-01-02T00:00:00.000000000Z"},
                               {"x-amz-object-lock-legal-hold", "OFF"},
                               {"x-amz-checksum-sha256", "abc="},
                               {"x-amz-checksum-type", "COMPOSITE"},
                               {"x-amz-tagging-count", "3"},
                               {"x-amz-missing-meta", "2"},
                               {"x-amz-version-id", "v"},
                               {"content-encoding", "aws-chunked, gzip ,br"},
                               {"server", "y"}}));
  EXPECT_EQ("abc-2", a.etag);
  EXPECT_EQ(2u, a.part_count());
  EXPECT_EQ((std::map<std::string, std::string>{{"content-encoding", "gzip, br"}, {"content-type", "a/b"}}),
            as_map(a.headers));
  EXPECT_EQ((std::map<std::string, std::string>{{"", "no name"}, {"a", "1,2"}}), as_map(a.metadata));
  EXPECT_EQ("", a.storage_class);
  EXPECT_EQ("COMPLIANCE", a.lock_mode);
  EXPECT_FALSE(a.legal_hold);
  EXPECT_EQ((std::map<std::string, std::string>{{"sha256", "abc="}}), as_map(a.checksums));
  EXPECT_EQ("COMPOSITE", a.checksum_type);
  EXPECT_EQ(3, a.tag_count);
  EXPECT_EQ(2u, a.missing);
  EXPECT_EQ(-1, read_attributes(head_of({})).tag_count);
  EXPECT_TRUE(read_attributes(head_of({{"content-encoding", "aws-chunked"}})).headers.empty());
}

TEST(attributes_headers, request_carries_each_kind_alone) {
  const Object_Attributes a = full();
  const auto names = [&](unsigned kinds, bool multipart = false) {
    Name_Values headers;
    append_headers(a, kinds, multipart, headers);
    std::string out;
    for (const auto& header : headers)
      out += header.first + ' ';
    return out;
  };
  EXPECT_EQ("cache-control content-disposition content-type ", names(KIND_HEADERS));
  EXPECT_EQ("x-amz-website-redirect-location ", names(KIND_REDIRECT));
  EXPECT_EQ("x-amz-meta-empty x-amz-meta-latin x-amz-meta-mime x-amz-meta-utf-8 ", names(KIND_METADATA));
  EXPECT_EQ("x-amz-storage-class ", names(KIND_STORAGE_CLASS));
  EXPECT_EQ("x-amz-object-lock-mode x-amz-object-lock-retain-until-date x-amz-object-lock-legal-hold ",
            names(KIND_LOCK));
  EXPECT_EQ("x-amz-tagging ", names(KIND_TAGS));
  EXPECT_EQ("x-amz-checksum-crc32c ", names(KIND_CHECKSUM));
  EXPECT_EQ("x-amz-checksum-algorithm x-amz-checksum-type ", names(KIND_CHECKSUM, true));
  EXPECT_EQ("", names(KIND_ACL)) << "no canned list says this";
  EXPECT_EQ("", names(0));
  Name_Values headers;
  append_headers(a, KIND_TAGS | KIND_LOCK, false, headers);
  EXPECT_EQ("a=1&b%20c=x%26y%3Dz%2F%2B", headers.back().second);
  EXPECT_EQ("2099-01-02T00:00:00Z", headers[1].second) << "three digits of a second at most, none where they are zero";
}

TEST(attributes_headers, access_lists_that_a_canned_one_says_are_told_by_it) {
  const std::string all = "http://acs.amazonaws.com/groups/global/AllUsers";
  const std::string known = "http://acs.amazonaws.com/groups/global/AuthenticatedUsers";
  Object_Attributes a;
  a.owner = "me";
  EXPECT_EQ("", canned_acl(a));
  a.grants = {{"CanonicalUser", "me", "FULL_CONTROL"}};
  EXPECT_EQ("private", canned_acl(a));
  EXPECT_EQ(0u, kinds_of(a));
  a.grants.push_back({"Group", all, "READ"});
  EXPECT_EQ("public-read", canned_acl(a));
  a.grants.push_back({"Group", all, "WRITE"});
  EXPECT_EQ("public-read-write", canned_acl(a));
  EXPECT_EQ(unsigned(KIND_ACL), kinds_of(a));
  a.grants = {{"Group", known, "READ"}, {"CanonicalUser", "me", "FULL_CONTROL"}};
  EXPECT_EQ("authenticated-read", canned_acl(a));
  a.grants.push_back({"CanonicalUser", "you", "READ"});
  EXPECT_EQ("", canned_acl(a));
  a.grants = {{"Group", all, "READ"}};
  EXPECT_EQ("", canned_acl(a)) << "without the owner";
}

TEST(attributes_headers, what_no_field_can_carry_is_taken_out_and_named) {
  Object_Attributes a;
  a.headers = {{"content-type", "a\r\nx-evil: 1"}, {"cache-control", "good"}};
  a.metadata = {{"ok", "\xFF\x80"}, {"bad name", "x"}, {"", "x"}, {"nul", std::string("a\0b", 3)}, {"ends", "blank "}};
  a.lock_mode = "GOVERNANCE";
  a.lock_until = "2020-01-01T00:00:00Z";
  std::vector<std::string> dropped;
  make_sendable(a, 1700000000, dropped);
  EXPECT_EQ((std::map<std::string, std::string>{{"cache-control", "good"}}), as_map(a.headers));
  EXPECT_EQ((std::map<std::string, std::string>{{"ok", "\xFF\x80"}}), as_map(a.metadata));
  EXPECT_EQ("", a.lock_mode);
  ASSERT_EQ(6u, dropped.size());
  EXPECT_EQ("the header 'content-type': no header field can carry it", dropped[0]);
  EXPECT_EQ("the object lock (GOVERNANCE until 2020-01-01T00:00:00Z): its time is over", dropped.back());
}

TEST(part_plan, told_layout_is_taken_part_by_part) {
  Object_Attributes a;
  a.etag = "x-4";
  a.parts = {{2, 5242881}, {1, 6000000}, {1, 3}};
  Part_Plan plan(2 * 5242881 + 6000003, 16 << 20, &a);
  EXPECT_TRUE(plan.multipart());
  for (const unsigned long long size : {5242881u, 5242881u, 6000000u, 3u})
    EXPECT_EQ(size, plan.next());
  EXPECT_EQ("", plan.refused());
}

TEST(part_plan, layout_that_cannot_be_is_refused_with_the_reason_and_replaced) {
  const auto plan_of = [](std::vector<Part_Run> parts, unsigned long long size) {
    Object_Attributes a;
    a.etag = "x-2";
    a.parts = std::move(parts);
    return Part_Plan(size, 16 << 20, &a);
  };
  EXPECT_NE("", plan_of({{1, 5 << 20}, {1, 5}}, 10).refused());
  EXPECT_NE("", plan_of({{1, 5 << 20}, {1, 5}}, (5 << 20) + 6).refused());
  EXPECT_NE("", plan_of({{~0ull, ~0ull}, {1, 2}}, 20 << 20).refused());
  EXPECT_NE("", plan_of({{0, 5 << 20}, {1, 20 << 20}}, 20 << 20).refused());
  EXPECT_NE("", plan_of({{20000, 1}}, 20000).refused());
  EXPECT_EQ("its parts are smaller than services take", plan_of({{2, 1 << 20}}, 2 << 20).refused());
  EXPECT_EQ("its parts are larger than 256 MiB", plan_of({{2, 300 << 20}}, 600ull << 20).refused());
  Part_Plan plan = plan_of({{2, 300 << 20}}, 600ull << 20);
  EXPECT_TRUE(plan.multipart());
  EXPECT_EQ(16u << 20, plan.next());
}

TEST(part_plan, layout_that_was_not_told_is_the_one_that_tools_make) {
  constexpr unsigned long long MIB = 1 << 20;
  EXPECT_EQ(8 * MIB, likely_part_size(100 * MIB, 13));
  EXPECT_EQ(5 * MIB, likely_part_size(100 * MIB, 20));
  EXPECT_EQ(16 * MIB, likely_part_size(100 * MIB, 7));
  EXPECT_EQ(100 * MIB, likely_part_size(1000 * MIB, 10));
  EXPECT_EQ(7 * MIB, likely_part_size(70 * MIB - 1, 10)) << "no usual size";
  EXPECT_EQ(0u, likely_part_size(3, 4));
  for (unsigned long long count = 2; count < 300; ++count)
    for (const unsigned long long size : {count * 5 * MIB, count * 8 * MIB - 1, count * 17 * MIB + 12345}) {
      const unsigned long long part = likely_part_size(size, count);
      if (part != 0) {
        EXPECT_EQ(count, (size + part - 1) / part) << size;
      }
    }
}

TEST(part_plan, number_of_parts_that_no_size_gives_is_named) {
  Object_Attributes a;
  a.etag = "0123456789abcdef0123456789abcdef-4";
  EXPECT_EQ("no parts of one size make up its size", Part_Plan(3, 16 << 20, &a).refused());
  EXPECT_EQ("", Part_Plan(31 << 20, 16 << 20, &a).refused());
}

TEST(part_plan, object_stored_at_once_goes_at_once_where_memory_holds_it) {
  Object_Attributes a;
  a.etag = "0123456789abcdef0123456789abcdef";
  EXPECT_FALSE(Part_Plan(256 << 20, 16 << 20, &a).multipart());
  EXPECT_EQ("", Part_Plan(256 << 20, 16 << 20, &a).refused());
  EXPECT_TRUE(Part_Plan(257 << 20, 16 << 20, &a).multipart());
  EXPECT_EQ("it was stored at once, and is larger than 256 MiB", Part_Plan(257 << 20, 16 << 20, &a).refused());
  EXPECT_EQ("", Part_Plan(257 << 20, 300 << 20, &a).refused()) << "it goes at once anyway";
  a.etag = "opaque";
  EXPECT_TRUE(Part_Plan(30 << 20, 16 << 20, &a).multipart());
  EXPECT_EQ("", Part_Plan(257 << 20, 16 << 20, &a).refused()) << "it is not known how it was stored";
  EXPECT_TRUE(Part_Plan(30 << 20, 16 << 20, nullptr).multipart());
  EXPECT_FALSE(Part_Plan(16 << 20, 16 << 20, nullptr).multipart());
}

class Attributes_Test : public Client_Test {
protected:
  Attributes_Test() {
    settings.part_size = 1000;
    server.configure([](S3_Server_Settings& s) { s.min_part_size = 1; });
  }

  Object_Attributes full_for_server() {
    Object_Attributes a = full();
    a.etag.clear();
    a.parts.clear();
    a.checksums.clear();
    a.owner = s3_testing::S3_Server_Options().access_key;
    a.grants.clear();
    return a;
  }

  /// Stores `data`; what the target refused.
  std::vector<std::string> store(S3_Service_var s, const std::string& key, const std::string& data,
                                 const Object_Attributes& a) {
    auto* const attributed = dynamic_cast<S3_Attribute_Service*>(s.get());
    const S3_IWriter_ptr writer = attributed->upload("bucket", key.c_str(), data.size(), a);
    EXPECT_TRUE(writer) << s->error();
    if (!writer)
      return {"not stored"};
    for (size_t at = 0; at < data.size();) {
      const int n = writer->write(data.data() + at, data.size() - at);
      if (n <= 0)
        break;
      at += static_cast<size_t>(n);
    }
    EXPECT_TRUE(writer->close());
    const auto* const report = dynamic_cast<const S3_Attribute_Report*>(writer.get());
    EXPECT_TRUE(server.get("bucket", key) == data);
    return report->refused();
  }

  Object_Attributes read(S3_Service_var s, const std::string& key) {
    S3_Object object;
    const HTTP_Connection_var connection = s->get_object("bucket", key.c_str(), 0, &object);
    EXPECT_EQ(HTTP_Connection::HEADERS_READ, connection->state()) << s->error();
    return dynamic_cast<S3_Attribute_Service&>(*s).attributes();
  }

  Test_Clock clock;
};

TEST_F(Attributes_Test, everything_goes_there_and_back_at_once_and_in_parts_with_both_signatures) {
  for (const char* method : {"v4", "v2"}) {
    sign_method = method;
    const S3_Service_var s = service();
    auto& attributed = dynamic_cast<S3_Attribute_Service&>(*s);
    const Object_Attributes a = full_for_server();
    for (const size_t size : {0u, 700u, 3500u}) {
      const std::string key = method + std::to_string(size);
      EXPECT_EQ(std::vector<std::string>(), store(s, key, s3_testing::synthetic_bytes(size, 0, size), a)) << key;
      Object_Attributes b = read(s, key);
      ASSERT_TRUE(attributed.get_tags("bucket", key.c_str(), b));
      std::sort(b.headers.begin(), b.headers.end());
      std::sort(b.metadata.begin(), b.metadata.end());
      EXPECT_EQ(as_map(a.headers), as_map(b.headers)) << key;
      EXPECT_EQ(as_map(a.metadata), as_map(b.metadata)) << key;
      EXPECT_EQ(as_map(a.tags), as_map(b.tags));
      EXPECT_EQ(a.storage_class, b.storage_class);
      EXPECT_EQ(a.lock_mode, b.lock_mode);
      EXPECT_EQ("2099-01-02T00:00:00Z", b.lock_until);
      EXPECT_TRUE(b.legal_hold);
    }
  }
}

TEST_F(Attributes_Test, reading_costs_no_request_beside_the_get) {
  store(service(), "k", "content", full_for_server());
  server.reset_counts();
  read(service(), "k");
  EXPECT_EQ(1u, server.count());
}

TEST_F(Attributes_Test, metadata_near_the_limit_arrives_and_above_it_is_left_out_and_named) {
  const S3_Service_var s = service();
  Object_Attributes a;
  for (int i = 0; i < 40; ++i)
    a.metadata.emplace_back("name-" + std::to_string(100 + i), std::string(40, static_cast<char>('a' + i % 26)));
  EXPECT_EQ(std::vector<std::string>(), store(s, "near", "x", a));
  EXPECT_EQ(as_map(a.metadata), as_map(read(s, "near").metadata));
  a.metadata.emplace_back("more", std::string(200, 'x'));
  a.storage_class = "COLD";
  const std::vector<std::string> refused = store(s, "above", "x", a);
  ASSERT_EQ(1u, refused.size());
  EXPECT_EQ("the user metadata (41) (MetadataTooLarge: Your metadata headers exceed the maximum allowed metadata size)",
            refused[0]);
  EXPECT_EQ("COLD", read(s, "above").storage_class);
}

TEST_F(Attributes_Test, layout_of_the_parts_is_read_and_given_back_so_the_etag_is_the_same) {
  const S3_Service_var s = service();
  auto& attributed = dynamic_cast<S3_Attribute_Service&>(*s);
  const std::vector<std::vector<Part_Run>> layouts = {
      {{1, 5}},
      {{1, 2000}, {1, 1}},
      {{9, 1001}, {1, 1000}},
      {{3, 1500}, {2, 1200}, {1, 7}},
      {{40, 1111}},
      {{1, 1003}, {1, 1007}, {1, 1001}, {1, 5000}, {1, 2}},
  };
  for (const std::vector<Part_Run>& layout : layouts) {
    Object_Attributes a;
    unsigned long long size = 0, count = 0;
    for (const Part_Run& run : layout) {
      size += run.count * run.size;
      count += run.count;
    }
    a.etag = "x-" + std::to_string(count);
    a.parts = layout;
    const std::string data = s3_testing::synthetic_bytes(size, 0, static_cast<size_t>(size));
    EXPECT_EQ(std::vector<std::string>(), store(s, "first", data, a));
    Object_Attributes b = read(s, "first");
    EXPECT_EQ(count, b.part_count());
    server.reset_counts();
    ASSERT_TRUE(attributed.get_parts("bucket", "first", b)) << s->error();
    EXPECT_GE(std::max<unsigned long long>(count - 1, 1), server.count("HeadObject"));
    EXPECT_EQ(layout, b.parts);
    EXPECT_EQ(std::vector<std::string>(), store(s, "second", data, b));
    EXPECT_EQ(server.object("bucket", "first")->etag, server.object("bucket", "second")->etag);
  }
}

TEST_F(Attributes_Test, parts_all_alike_cost_a_few_requests_however_many_they_are) {
  Object_Attributes a;
  a.etag = "x-300";
  a.parts = {{299, 1000}, {1, 400}};
  const S3_Service_var s = service();
  store(s, "many", s3_testing::synthetic_bytes(1, 0, 299400), a);
  Object_Attributes b = read(s, "many");
  server.reset_counts();
  ASSERT_TRUE(dynamic_cast<S3_Attribute_Service&>(*s).get_parts("bucket", "many", b));
  EXPECT_EQ(a.parts, b.parts);
  EXPECT_EQ(4u, server.count());
}

TEST_F(Attributes_Test, service_that_tells_no_parts_is_asked_once) {
  server.configure([](S3_Server_Settings& s) { s.tells_parts = false; });
  Object_Attributes a;
  a.etag = "x-2";
  a.parts = {{2, 1000}};
  const S3_Service_var s = service();
  store(s, "k", std::string(2000, 'x'), a);
  server.reset_counts();
  for (int i = 0; i < 3; ++i) {
    Object_Attributes b = read(s, "k");
    EXPECT_TRUE(dynamic_cast<S3_Attribute_Service&>(*s).get_parts("bucket", "k", b));
    EXPECT_TRUE(b.parts.empty());
  }
  EXPECT_EQ(1u, server.count("HeadObject"));
}

TEST_F(Attributes_Test, object_replaced_before_its_parts_are_asked_is_no_silent_mix) {
  Object_Attributes a;
  a.etag = "x-2";
  a.parts = {{2, 1000}};
  const S3_Service_var s = service();
  store(s, "k", std::string(2000, 'x'), a);
  Object_Attributes b = read(s, "k");
  server.put("bucket", "k", std::string("new"));
  EXPECT_FALSE(dynamic_cast<S3_Attribute_Service&>(*s).get_parts("bucket", "k", b));
  EXPECT_EQ(412, s->last_error().status());
}

TEST_F(Attributes_Test, bucket_that_counts_tags_tells_which_objects_have_none) {
  const S3_Service_var s = service();
  store(s, "plain", "x", Object_Attributes());
  EXPECT_EQ(-1, read(s, "plain").tag_count);
  store(s, "tagged", "x", full_for_server());
  EXPECT_EQ(2, read(s, "tagged").tag_count);
  EXPECT_EQ(0, read(s, "plain").tag_count);
  EXPECT_EQ(0, read(service(), "tagged").tag_count - 2);
}

TEST_F(Attributes_Test, tags_forgotten_by_a_multipart_upload_are_given_behind_it) {
  server.configure([](S3_Server_Settings& s) { s.forgets_multipart_tags = true; });
  const S3_Service_var s = service();
  EXPECT_EQ(std::vector<std::string>(), store(s, "k", std::string(2500, 'x'), full_for_server()));
  EXPECT_EQ(as_map(full_for_server().tags), server.object("bucket", "k")->tags);
}

TEST_F(Attributes_Test, access_list_is_read_and_given_to_the_targets_owner) {
  const S3_Service_var s = service();
  auto& attributed = dynamic_cast<S3_Attribute_Service&>(*s);
  Object_Attributes a;
  a.owner = "the source's owner";
  a.grants = {{"CanonicalUser", "the source's owner", "FULL_CONTROL"},
              {"CanonicalUser", "friend", "READ"},
              {"Group", "http://acs.amazonaws.com/groups/global/AllUsers", "READ_ACP"}};
  EXPECT_EQ(std::vector<std::string>(), store(s, "k", "x", a));
  Object_Attributes b;
  ASSERT_TRUE(attributed.get_acl("bucket", "k", b)) << s->error();
  EXPECT_EQ("the-owner", b.owner);
  EXPECT_EQ((std::vector<Object_Grant>{{"CanonicalUser", "the-owner", "FULL_CONTROL"},
                                       {"CanonicalUser", "friend", "READ"},
                                       {"Group", "http://acs.amazonaws.com/groups/global/AllUsers", "READ_ACP"}}),
            b.grants);
  a.grants.resize(1);
  a.grants.push_back({"Group", "http://acs.amazonaws.com/groups/global/AllUsers", "READ"});
  server.reset_counts();
  EXPECT_EQ(std::vector<std::string>(), store(s, "canned", "x", a));
  EXPECT_EQ(1u, server.count()) << "a canned list goes with the object";
  ASSERT_TRUE(attributed.get_acl("bucket", "canned", b));
  EXPECT_EQ(2u, b.grants.size());
  EXPECT_EQ("READ", b.grants[1].permission);
}

TEST_F(Attributes_Test, grants_that_the_target_refuses_are_named_and_the_object_is_stored) {
  Object_Attributes a;
  a.owner = "o";
  a.grants = {{"CanonicalUser", "o", "FULL_CONTROL"}, {"CanonicalUser", "unknown-user", "READ"}};
  std::vector<std::string> refused = store(service(), "k", "x", a);
  ASSERT_EQ(1u, refused.size());
  EXPECT_EQ(0u, refused[0].find("the access list (InvalidArgument: Invalid id")) << refused[0];
  server.configure([](S3_Server_Settings& s) { s.object_attributes = false; });
  refused = store(service(), "k", "x", a);
  ASSERT_EQ(1u, refused.size());
  EXPECT_EQ(0u, refused[0].find("the access list (NotImplemented")) << refused[0];
}

struct Refusal_Case {
  const char* header;
  Header_Refusal refusal;
  const char* names; ///< what the text begins with
};

class Refused_Attributes : public Attributes_Test, public testing::WithParamInterface<Refusal_Case> {};

TEST_P(Refused_Attributes, one_kind_is_left_out_and_named_and_all_others_arrive) {
  server.configure([](S3_Server_Settings& s) { s.refused_headers[GetParam().header] = GetParam().refusal; });
  for (const size_t size : {700u, 3500u}) {
    const S3_Service_var s = service();
    Object_Attributes a = full_for_server();
    a.owner = "o";
    a.grants = {{"CanonicalUser", "o", "FULL_CONTROL"},
                {"Group", "http://acs.amazonaws.com/groups/global/AllUsers", "READ"}};
    const std::string data = s3_testing::synthetic_bytes(size, 0, size);
    a.checksums = {{"sha256", to_base64(sha256(data))}};
    const std::vector<std::string> refused = store(s, "k", data, a);
    ASSERT_EQ(1u, refused.size()) << testing::PrintToString(refused);
    EXPECT_EQ(0u, refused[0].find(GetParam().names)) << refused[0];
    EXPECT_NE(std::string::npos, refused[0].find(GetParam().refusal.code)) << refused[0];
    EXPECT_EQ(0u, server.open_uploads());
    const s3_testing::Object_Ptr object = server.object("bucket", "k");
    const std::string header = GetParam().header;
    EXPECT_EQ(header == "x-amz-meta-" ? 0u : 4u, as_map(read(s, "k").metadata).size());
    EXPECT_EQ(header == "x-amz-storage-class" ? "STANDARD" : "COLD", object->storage_class);
    EXPECT_EQ(header == "x-amz-tagging" ? 0u : 2u, object->tags.size());
    EXPECT_EQ(header == "x-amz-object-lock-" ? 0u : 1u, object->headers.count("x-amz-object-lock-mode"));
    EXPECT_EQ(header == "x-amz-website" ? 0u : 1u, object->headers.count("x-amz-website-redirect-location"));
    EXPECT_EQ(header == "x-amz-acl" ? 0u : 2u, object->grants.size());
    EXPECT_EQ(header == "cache-control" ? 0u : 1u, object->headers.count("cache-control"));
  }
}

const Refusal_Case REFUSAL_CASES[] = {
    {"x-amz-acl", {400, "AccessControlListNotSupported", "The bucket does not allow ACLs", ""}, "the access list"},
    {"x-amz-storage-class", {400, "InvalidStorageClass", "no such class", ""}, "the storage class 'COLD'"},
    {"x-amz-storage-class", {400, "InvalidArgument", "", ""}, "the storage class 'COLD'"},
    {"x-amz-tagging", {400, "InvalidTag", "bad tag", ""}, "the tags (2)"},
    {"x-amz-tagging", {403, "AccessDenied", "", ""}, "the tags (2)"},
    {"x-amz-tagging", {501, "NotImplemented", "A header you provided is not implemented", ""}, "the tags (2)"},
    {"x-amz-object-lock-", {400, "InvalidRequest", "no lock here", ""}, "the object lock (GOVERNANCE"},
    {"x-amz-checksum-", {501, "NotImplemented", "", ""}, "the checksum sha256"},
    {"x-amz-website", {400, "InvalidRedirectLocation", "", ""}, "the website redirect"},
    {"x-amz-meta-", {403, "SignatureDoesNotMatch", "", ""}, "the user metadata (4)"},
    {"cache-control", {400, "BadRequest", "odd header", ""}, "the headers cache-control"},
};

INSTANTIATE_TEST_SUITE_P(each_kind, Refused_Attributes, testing::ValuesIn(REFUSAL_CASES));

TEST_F(Attributes_Test, several_kinds_refused_alike_are_each_found_and_the_innocent_stay) {
  server.configure([](S3_Server_Settings& s) {
    for (const char* header : {"x-amz-storage-class", "x-amz-meta-", "x-amz-website"})
      s.refused_headers[header] = {400, "InvalidArgument", "", ""};
  });
  for (const size_t size : {700u, 3500u}) {
    const S3_Service_var s = service();
    const std::vector<std::string> refused = store(s, "k", std::string(size, 'x'), full_for_server());
    EXPECT_EQ(3u, refused.size()) << testing::PrintToString(refused);
    const s3_testing::Object_Ptr object = server.object("bucket", "k");
    EXPECT_EQ(2u, object->tags.size());
    EXPECT_EQ(1u, object->headers.count("x-amz-object-lock-mode"));
    EXPECT_EQ("text/x; charset=utf-8", object->content_type);
    EXPECT_EQ("STANDARD", object->storage_class);
    EXPECT_EQ(0u, server.open_uploads());
  }
}

TEST_F(Attributes_Test, several_kinds_refused_one_behind_the_other_are_each_named_with_their_reason) {
  server.configure([](S3_Server_Settings& s) {
    s.refused_headers["x-amz-storage-class"] = {400, "InvalidStorageClass", "no class", ""};
    s.refused_headers["x-amz-object-lock-"] = {400, "InvalidRequest", "no lock", ""};
  });
  const std::vector<std::string> refused = store(service(), "k", "x", full_for_server());
  ASSERT_EQ(2u, refused.size()) << testing::PrintToString(refused);
  EXPECT_NE(std::string::npos,
            (refused[0] + refused[1]).find("the storage class 'COLD' (InvalidStorageClass: no class)"));
  EXPECT_NE(std::string::npos, (refused[0] + refused[1]).find("(InvalidRequest: no lock)"));
}

TEST_F(Attributes_Test, refusal_once_found_costs_no_further_request_and_is_named_each_time) {
  server.configure([](S3_Server_Settings& s) {
    s.refused_headers["x-amz-storage-class"] = {400, "InvalidStorageClass", "no class", "COLD"};
  });
  const S3_Service_var s = service();
  store(s, "first", "x", full_for_server());
  server.reset_counts();
  for (int i = 0; i < 10; ++i)
    EXPECT_EQ(1u, store(s, "k" + std::to_string(i), "x", full_for_server()).size());
  EXPECT_EQ(10u, server.count());
  Object_Attributes warm = full_for_server();
  warm.storage_class = "WARM";
  EXPECT_EQ(0u, store(s, "warm", "x", warm).size()) << "another class is another question";
}

TEST_F(Attributes_Test, refusal_that_no_attribute_caused_is_final_and_searched_for_once) {
  server.add_fault(Fault::error(403, "AccessDenied").on("PutObject"));
  const S3_Service_var s = service();
  auto& attributed = dynamic_cast<S3_Attribute_Service&>(*s);
  const auto fails = [&] {
    const S3_IWriter_ptr writer = attributed.upload("bucket", "k", 1, full_for_server());
    return writer && writer->write("x", 1) == 1 && !writer->close();
  };
  EXPECT_TRUE(fails());
  const unsigned long long first = server.count();
  EXPECT_LT(2u, first);
  server.reset_counts();
  EXPECT_TRUE(fails());
  EXPECT_EQ(1u, server.count());
  EXPECT_FALSE(server.get("bucket", "k"));
}

TEST_F(Attributes_Test, busy_service_is_no_refusal) {
  server.add_fault(Fault::error(503, "SlowDown").on("PutObject"));
  const S3_Service_var s = service();
  const S3_IWriter_ptr writer = dynamic_cast<S3_Attribute_Service&>(*s).upload("bucket", "k", 1, full_for_server());
  ASSERT_TRUE(writer);
  EXPECT_EQ(1, writer->write("x", 1));
  EXPECT_FALSE(writer->close());
  EXPECT_EQ(1u, server.count());
}

TEST_F(Attributes_Test, what_a_target_takes_and_forgets_is_named) {
  server.configure([](S3_Server_Settings& s) {
    s.forgotten_headers = {"x-amz-storage-class", "x-amz-object-lock-", "cache-control", "x-amz-meta-utf-8"};
  });
  for (const size_t size : {700u, 3500u}) {
    const S3_Service_var s = service();
    for (int i = 0; i < 3; ++i) {
      const std::vector<std::string> refused = store(s, "k", std::string(size, 'x'), full_for_server());
      const std::string all = testing::PrintToString(refused);
      for (const char* what : {"the storage class 'COLD'", "the object lock", "the user metadata (4)"})
        EXPECT_NE(std::string::npos, all.find(what)) << size << ": " << all;
      EXPECT_NE(std::string::npos, all.find("the header cache-control (the service took it and does not keep it)"))
          << all;
      EXPECT_EQ(std::string::npos, all.find("tags")) << all;
    }
  }
}

TEST_F(Attributes_Test, what_could_not_be_looked_at_is_named_with_the_reason) {
  server.add_fault(Fault::error(403, "AccessDenied").on("HeadObject"));
  for (const size_t size : {700u, 3500u}) {
    const std::vector<std::string> refused = store(service(), "k", std::string(size, 'x'), full_for_server());
    ASSERT_EQ(1u, refused.size()) << testing::PrintToString(refused);
    EXPECT_EQ(0u, refused[0].find("what it was given could not be checked (AccessDenied: ")) << refused[0];
    EXPECT_TRUE(server.object("bucket", "k"));
  }
  // A head that counts no tags has them asked for.
  server.clear_faults();
  server.configure([](S3_Server_Settings& s) { s.counts_tags = false; });
  server.add_fault(Fault::error(403, "AccessDenied").on("GetObjectTagging"));
  const std::vector<std::string> refused = store(service(), "k", "x", full_for_server());
  ASSERT_EQ(1u, refused.size()) << testing::PrintToString(refused);
  EXPECT_EQ(0u, refused[0].find("the tags")) << refused[0];
  EXPECT_NE(std::string::npos, refused[0].find(" could not be checked (AccessDenied: ")) << refused[0];
  // Nothing was given that could be forgotten.
  EXPECT_EQ(std::vector<std::string>(), store(service(), "plain", "x", Object_Attributes()));
}

TEST_F(Attributes_Test, target_that_keeps_what_it_takes_is_looked_at_once) {
  const S3_Service_var s = service();
  EXPECT_EQ(std::vector<std::string>(), store(s, "first", "x", full_for_server()));
  EXPECT_EQ(1u, server.count("HeadObject"));
  server.reset_counts();
  for (int i = 0; i < 20; ++i)
    EXPECT_EQ(std::vector<std::string>(), store(s, "k" + std::to_string(i), "x", full_for_server()));
  EXPECT_EQ(20u, server.count());
}

TEST_F(Attributes_Test, checksums_come_with_the_get_and_go_with_the_put) {
  const std::string data = "hello";
  Object_Attributes a;
  a.checksums = {{"sha256", to_base64(sha256(data))}};
  const S3_Service_var s = service();
  EXPECT_EQ(std::vector<std::string>(), store(s, "k", data, a));
  EXPECT_EQ(a.checksums, read(s, "k").checksums);
}

TEST_F(Attributes_Test, checksums_of_parts_come_out_the_same) {
  const S3_Service_var s = service();
  const std::string data = s3_testing::synthetic_bytes(5, 0, 3500);
  Object_Attributes a;
  a.etag = "x-3";
  a.parts = {{2, 1500}, {1, 500}};
  a.checksum_type = "COMPOSITE";
  a.checksums = {{"sha256", "of the parts-3"}};
  EXPECT_EQ(std::vector<std::string>(), store(s, "k", data, a));
  const std::string raw = sha256(data.substr(0, 1500)) + sha256(data.substr(1500, 1500)) + sha256(data.substr(3000));
  Object_Attributes b = read(s, "k");
  EXPECT_EQ((Object_Attributes::Named{{"sha256", to_base64(sha256(raw)) + "-3"}}), b.checksums);
  EXPECT_EQ("COMPOSITE", b.checksum_type);
  ASSERT_TRUE(dynamic_cast<S3_Attribute_Service&>(*s).get_parts("bucket", "k", b));
  EXPECT_EQ(std::vector<std::string>(), store(s, "again", data, b));
  EXPECT_EQ(b.checksums, read(s, "again").checksums);
}

TEST_F(Attributes_Test, object_too_large_to_be_sent_at_once_again_is_named) {
  Object_Attributes a;
  a.etag = "0123456789abcdef0123456789abcdef";
  const S3_Service_var s = service();
  const S3_IWriter_ptr writer = dynamic_cast<S3_Attribute_Service&>(*s).upload("bucket", "k", 300ull << 20, a);
  ASSERT_TRUE(writer) << s->error();
  EXPECT_EQ((std::vector<std::string>{"the layout of its parts: it was stored at once, and is larger than 256 MiB"}),
            dynamic_cast<const S3_Attribute_Report&>(*writer).refused());
}

TEST_F(Attributes_Test, parts_too_large_to_be_sent_again_are_named) {
  Object_Attributes a;
  a.etag = "0123456789abcdef0123456789abcdef-2";
  a.parts = {{2, 300ull << 20}};
  const S3_Service_var s = service();
  const S3_IWriter_ptr writer = dynamic_cast<S3_Attribute_Service&>(*s).upload("bucket", "k", 600ull << 20, a);
  ASSERT_TRUE(writer) << s->error();
  EXPECT_EQ((std::vector<std::string>{"the layout of its parts: its parts are larger than 256 MiB"}),
            dynamic_cast<const S3_Attribute_Report&>(*writer).refused());
}

TEST_F(Attributes_Test, checksum_of_parts_that_an_object_sent_at_once_cannot_have_is_named) {
  Object_Attributes a;
  a.checksum_type = "COMPOSITE";
  a.checksums = {{"sha256", "of the parts-3"}};
  EXPECT_EQ((std::vector<std::string>{"the checksum sha256: it is one of parts, and the object is sent at once"}),
            store(service(), "k", "a few bytes", a));
}

TEST_F(Attributes_Test, checksums_that_an_object_sent_in_parts_cannot_have_are_named) {
  const std::string data = s3_testing::synthetic_bytes(5, 0, 3500);
  Object_Attributes a;
  a.checksums = {{"sha256", to_base64(sha256(data))}, {"crc32", checksum("crc32", data)}, {"md6", "eA=="}};
  EXPECT_EQ((std::vector<std::string>{"the checksum crc32: an upload in parts has one, sha256",
                                      "the checksum md6: an upload in parts has one, sha256"}),
            store(service(), "k", data, a));
  a.checksums = {{"md6", "eA=="}};
  EXPECT_EQ((std::vector<std::string>{"the checksum md6: it cannot be made for parts"}),
            store(service(), "k", data, a));
}

TEST(checksum, published_check_values) {
  const std::string digits("123456789");
  EXPECT_EQ(to_base64("\xCB\xF4\x39\x26"), checksum("crc32", digits));
  EXPECT_EQ(to_base64("\xE3\x06\x92\x83"), checksum("crc32c", digits));
  EXPECT_EQ(to_base64("\xAE\x8B\x14\x86\x0A\x79\x98\x88"), checksum("crc64nvme", digits));
  EXPECT_EQ("qZk+NkcGgWq6PiVxeFDCbJzQ2J0=", checksum("sha1", "abc"));
  EXPECT_EQ("ungWv48Bz+pBQUDeXa4iI7ADYaOWF3qctBD/YfIAFa0=", checksum("sha256", "abc"));
  EXPECT_EQ("AAAAAA==", checksum("crc32", ""));
  EXPECT_EQ("", checksum("md6", digits));
}

TEST_F(Attributes_Test, service_that_refuses_to_be_asked_for_checksums_is_read_without) {
  server.put("bucket", "k", std::string("x"));
  server.add_fault(Fault::error(501, "NotImplemented").when([](const s3_testing::Request_Info& info) {
    return std::any_of(info.headers.begin(), info.headers.end(),
                       [](const auto& header) { return header.first == "x-amz-checksum-mode"; });
  }));
  const S3_Service_var s = service();
  read(s, "k");
  read(s, "k");
  EXPECT_EQ(3u, server.count("GetObject"));
}

TEST_F(Attributes_Test, hostile_tag_and_grant_documents_are_refused_or_bounded) {
  server.put("bucket", "k", std::string("x"));
  const S3_Service_var s = service();
  auto& attributed = dynamic_cast<S3_Attribute_Service&>(*s);
  Object_Attributes a;
  server.add_fault(Fault::garbage_body().on("GetObjectTagging").times(1));
  EXPECT_FALSE(attributed.get_tags("bucket", "k", a));
  EXPECT_EQ("MalformedAnswer", s->last_error().code());
  store(s, "tagged", "x", full_for_server());
  server.add_fault(Fault::truncated_body(200).on("GetObjectTagging").times(1));
  EXPECT_FALSE(attributed.get_tags("bucket", "tagged", a));
  EXPECT_TRUE(a.tags.empty()) << "half of an answer is none";
  Object_Attributes odd = full_for_server();
  odd.tags = {{"control", "\x7F\x01"}, {"markup", "<&\"]]>"}};
  EXPECT_EQ(std::vector<std::string>(), store(s, "odd", "x", odd));
  EXPECT_TRUE(attributed.get_tags("bucket", "odd", a));
  EXPECT_EQ(odd.tags, a.tags);
  server.add_fault(Fault::error(403, "AccessDenied").on("GetObjectAcl"));
  EXPECT_FALSE(attributed.get_acl("bucket", "k", a));
  EXPECT_EQ("AccessDenied", s->last_error().code());
  EXPECT_FALSE(attributed.get_tags("bucket", "", a));
  EXPECT_FALSE(attributed.get_parts("", "k", a));
}

} // namespace
