#include "tests/transfer/transfer_fixture.h"

#include <algorithm>
#include <iostream>
#include <random>
#include <set>

using s3_testing::Fault;
using s3_testing::Key_Encoding;

namespace {

typedef std::vector<std::string> Keys;

/// Objects with keys of all kinds, on their way from the listing to media and catalog and back.
class Odd_Keys : public Transfer_Test {
protected:
  static std::string content_of(const std::string& key) {
    std::string text = "content of " + key;
    return text;
  }

  void put(const Keys& keys) {
    for (const std::string& key : keys)
      ASSERT_TRUE(server.put("bucket", key, content_of(key))) << testing::PrintToString(key);
  }

  /// What a job leaves out by rule, which it names: keys that end like folders.
  static bool left_out(const std::string& key) { return key.back() == '/'; }

  void expect_target(const std::string& bucket, const std::string& prefix, const Keys& keys) {
    std::set<std::string> expected;
    for (const std::string& key : keys)
      if (!left_out(key))
        expected.insert(prefix + key);
    const Keys found = server.keys(bucket);
    ASSERT_EQ(Keys(expected.begin(), expected.end()), found);
    for (const std::string& key : keys) {
      if (left_out(key))
        continue;
      ASSERT_EQ(content_of(key), server.get(bucket, prefix + key).value_or("(none)")) << testing::PrintToString(key);
    }
  }

  /// Backs the keys up and restores them where they were, under another bucket, and below a prefix there.
  void round_trip(const Keys& all, bool prefix_fits = true) {
    const std::set<std::string> unique(all.begin(), all.end());
    const Keys keys(unique.begin(), unique.end());
    put(keys);
    new_job();
    ASSERT_TRUE(backup()) << failure;
    const size_t folders = static_cast<size_t>(std::count_if(keys.begin(), keys.end(), left_out));
    EXPECT_EQ(keys.size(), figure("listed"));
    EXPECT_EQ(keys.size() - folders, figure("saved"));
    EXPECT_EQ(folders, figure("skipped"));
    const auto objects = catalog();
    EXPECT_EQ(keys.size() - folders, objects.size());
    for (const std::string& key : keys) {
      if (left_out(key)) {
        EXPECT_TRUE(folders > 500 || events->named("/bucket/" + key)) << testing::PrintToString(key);
        continue;
      }
      const auto object = objects.find("bucket/" + key);
      ASSERT_NE(objects.end(), object) << testing::PrintToString(key);
      ASSERT_EQ(content_of(key), content(object->second)) << testing::PrintToString(key);
    }

    for (const std::string& key : keys)
      ASSERT_TRUE(server.remove("bucket", key));
    ASSERT_TRUE(restore()) << failure;
    expect_target("bucket", "", keys);

    server.create_bucket("target");
    Buckets_Mapper mapper;
    mapper.mappers()["bucket"].bucket = "target";
    ASSERT_TRUE(restore(mapper)) << failure;
    expect_target("target", "", keys);
    for (const std::string& key : server.keys("target"))
      server.remove("target", key);

    if (prefix_fits) {
      mapper.mappers()["bucket"].prefix = "restored/here";
      mapper.mappers()["bucket"].add_bucket_prefix = true;
      ASSERT_TRUE(restore(mapper)) << failure;
      expect_target("target", "restored/here/bucket/", keys);
    }
  }
};

TEST_F(Odd_Keys, slashes_and_dots_are_bytes_and_nothing_is_folded) {
  round_trip({"/",      "//",
              "///",    "/a",
              "//a",    "a",
              "a/",     "/a/",
              "a//",    "a//b",
              "a/b",    "a///b",
              "a/b/",   "a//b//c",
              ".",      "..",
              "...",    "./a",
              "../a",   "a/.",
              "a/..",   "a/./b",
              "a/../b", "a/../../b",
              "a/...",  "/.",
              "/..",    "./",
              "../",    ".hidden",
              "abc",    "abc/",
              "/abc",   "abc/def/ghi/jkl/mno"});
}

TEST_F(Odd_Keys, key_equal_to_a_prefix_and_keys_that_begin_like_another_stay_apart) {
  round_trip({"p",    "p/",    "p/q",   "p/q/", "p/q/r", "pq",  "p-q",  "p q", "p.",   "p!",   "p0",   "p/q0",
              "p/q-", "p\xff", "p\x01", "a",    "aa",    "aaa", "aaaa", "a/a", "aa/a", "a/aa", "a/a/a"});
}

TEST_F(Odd_Keys, case_and_composition_tell_keys_apart) {
  round_trip({"Key", "key", "KEY", "K\xc3\x89y", "K\xc3\xa9y", "Ke\xcc\x81y", "\xef\xac\x81", "fi",
              "stra\xc3\x9f"
              "e",
              "strasse", "\xc4\xb0", "i\xcc\x87", "\xe2\x84\xab", "\xc3\x85", "A\xcc\x8a"});
}

struct Key_Class {
  const char* name;
  Keys texts;
};

Keys spread(const Keys& texts) {
  Keys keys;
  for (const std::string& text : texts)
    for (const std::string& key : {text, "a" + text, text + "a", "a" + text + "b", text + text, "dir/" + text,
                                   text + "/file", "dir/" + text + "/file", "dir/a" + text + "/b" + text})
      keys.push_back(key);
  return keys;
}

/// The kinds of characters that tools which copy objects translate, lose or stumble over.
const Key_Class CLASSES[] = {
    {"control", {"\x01", "\x02", "\x07", "\x08", "\x0b", "\x0c", "\x0e", "\x1b", "\x1f"}},
    {"line_breaks", {"\r", "\n", "\r\n", "\n\r"}},
    {"tab", {"\t"}},
    {"del", {"\x7f"}},
    {"slash", {"/", "//"}},
    {"dot_segments", {".", "..", "..."}},
    {"left_space", {" ", "  "}},
    {"right_space_and_nbsp", {"x ", "x\xc2\xa0", "x\xe3\x80\x80"}},
    {"left_period", {".x", "..x"}},
    {"right_period", {"x.", "x.."}},
    {"tilde", {"~", "~x", "x~"}},
    {"backslash", {"\\", "\\\\", "a\\b"}},
    {"colon", {":", "C:", "::$DATA"}},
    {"quotes", {"\"", "'", "`", "\"'`"}},
    {"question_star_pipe", {"?", "*", "|", "?*|"}},
    {"percent", {"%", "%%", "%2F", "%25", "%00", "%zz", "100%"}},
    {"hash_and_plus", {"#", "+", "a+b c", "#?#"}},
    {"angles_and_ampersand", {"<", ">", "&", "&amp;", "&#x41;", "<Key>", "]]>", "<!--", "<![CDATA["}},
    {"dollar_semicolon_comma_equals", {"$", ";", ",", "=", "@", "!", "^", "(x)", "[x]", "{x}"}},
    {"invalid_utf8",
     {"\x80", "\xbf", "\xc0\xaf", "\xff", "\xfe", "\xed\xa0\x80", "\xf4\x90\x80\x80", "\xc3", "\xe2\x82", "a\xc3(",
      "\xf8\x88\x80\x80\x80"}},
    {"not_in_xml", {"\xef\xbf\xbe", "\xef\xbf\xbf", "\xef\xbb\xbf", "\xe2\x80\xa8", "\xc2\x85", "\xef\xbf\xbd"}},
    {"wide_and_combining",
     {"\xf0\x9f\x98\x80", "\xe6\x97\xa5\xe6\x9c\xac", "\xd7\xa9\xd7\x9c\xd7\x95\xd7\x9d", "e\xcc\x81\xcc\x82",
      "\xe2\x80\xae"
      "abc"}},
    {"names_of_other_systems", {"CON", "nul.txt", "LPT1", "desktop.ini", "Thumbs.db", ".DS_Store", "~$doc.docx"}},
    {"queries", {"?acl", "?uploads", "a?versionId=1", "?list-type=2&prefix=", "a&b=c", "x;y=z"}},
};

class Odd_Key_Classes : public Odd_Keys, public testing::WithParamInterface<Key_Class> {};

TEST_P(Odd_Key_Classes, come_back_as_they_were) {
  round_trip(spread(GetParam().texts));
}

INSTANTIATE_TEST_SUITE_P(transfer, Odd_Key_Classes, testing::ValuesIn(CLASSES),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(Odd_Keys, every_single_byte_is_a_key) {
  Keys keys;
  for (int byte = 1; byte <= 0xff; ++byte)
    keys.push_back(std::string(1, static_cast<char>(byte)));
  round_trip(keys);
}

TEST_F(Odd_Keys, keys_as_long_as_they_may_be) {
  Keys keys = {std::string(1024, 'k'), std::string(1024, '.'), std::string(1024, '\xff'), std::string(1023, 'k') + "l"};
  for (const std::string letter : {"\xc3\xa9", "\xe6\x97\xa5", "\xf0\x9f\x98\x80"}) {
    std::string key;
    while (key.size() + letter.size() <= 1024)
      key += letter;
    key.append(1024 - key.size(), 'x');
    keys.push_back(key);
  }
  std::string deep;
  while (deep.size() < 1023)
    deep += "d/";
  keys.push_back(deep.substr(0, 1023) + "f");
  std::string slashes(1023, '/');
  keys.push_back(slashes + "f");
  round_trip(keys, false);
}

TEST_F(Odd_Keys, ten_thousand_random_keys) {
  const unsigned seed = std::random_device()();
  std::cout << "seed " << seed << "\n";
  RecordProperty("seed", std::to_string(seed));
  std::mt19937 random(seed);
  const std::string alphabets[] = {"/.", "ab/", "a/. %+\\", "\x01\x7f\x80\xff/", "abcdefghijklmnopqrstuvwxyz/-_."};
  std::set<std::string> keys;
  while (keys.size() < 10000) {
    std::string key(1 + random() % (random() % 8 == 0 ? 200 : 24), '\0');
    const unsigned kind = random() % 6;
    for (char& c : key)
      c = kind == 5 ? static_cast<char>(1 + random() % 255) : alphabets[kind][random() % alphabets[kind].size()];
    // Bytes of one kind are rare among short keys.
    keys.insert(key + (kind < 3 && random() % 3 != 0 ? std::to_string(random() % 1000) : ""));
  }
  round_trip(Keys(keys.begin(), keys.end()));
}

TEST_F(Odd_Keys, prefixes_that_come_unencoded_are_taken_as_they_stand) {
  server.configure([](s3_testing::S3_Server_Settings& settings) { settings.key_encoding = Key_Encoding::keys_only; });
  round_trip({"a b/c d", "a+b/c+d", "a%20b/c%20d", "a&b/<c>", "\xc3\xa9/\xc3\xa9", "100%/x", "plain/x"});
}

TEST_F(Odd_Keys, prefix_that_may_be_encoded_or_not_is_asked_for) {
  for (const Key_Encoding encoding : {Key_Encoding::keys_only, Key_Encoding::as_asked, Key_Encoding::ignored}) {
    server.configure([&](s3_testing::S3_Server_Settings& settings) { settings.key_encoding = encoding; });
    for (const Keys& keys : {Keys{"a%20b/c"}, Keys{"a b/c"}, Keys{"a+b/c"}, Keys{"a%20b/c", "z"}, Keys{"a%2520b/c"},
                             Keys{"a%20b/c", "a b/c"}, Keys{"a%20b/c", "a b/c", "a%2520b/c", "a+b/c"}}) {
      SCOPED_TRACE(testing::PrintToString(keys));
      round_trip(keys);
      for (const std::string bucket : {"bucket", "target"})
        for (const std::string& key : server.keys(bucket))
          server.remove(bucket, key);
    }
  }
}

TEST_F(Odd_Keys, pages_that_come_small_end_anywhere_among_them) {
  server.configure([](s3_testing::S3_Server_Settings& settings) { settings.page_size = 3; });
  round_trip(spread({"/", " ", "%", "+", "\x01", "\xff", "\\"}));
}

TEST_F(Odd_Keys, control_characters_on_an_unencoded_page_are_had_all_the_same) {
  server.configure([](s3_testing::S3_Server_Settings& settings) { settings.key_encoding = Key_Encoding::ignored; });
  round_trip({"a", "b/c", "d e", "100%", "x+y", "a%20b", "z/&/<w>", "bad\x01key", "b/bad\x02key", "c\x1f/d"});
}

TEST_F(Odd_Keys, key_with_a_zero_byte_costs_only_itself) {
  using namespace std::string_literals;
  put({"a", "a\0b"s, "b/\0"s, "b/c", "d\0/e"s, "f"});
  ASSERT_TRUE(backup()) << failure;
  EXPECT_EQ(3u, figure("saved"));
  EXPECT_EQ(2u, figure("skipped"));
  const auto objects = catalog();
  for (const char* key : {"a", "b/c", "f"})
    EXPECT_EQ(1u, objects.count(std::string("bucket/") + key)) << key;
  for (const std::string& name : {"/bucket/a\0b"s, "/bucket/b/\0"s, "/bucket/d\0/"s})
    EXPECT_TRUE(events->named(name)) << testing::PrintToString(name);
}

TEST_F(Odd_Keys, key_that_cannot_be_read_costs_only_itself) {
  put({"a", "b/locked", "b/other", "c"});
  server.add_fault(Fault::error(403, "AccessDenied").on("GetObject").key("b/locked"));
  ASSERT_TRUE(backup()) << failure;
  EXPECT_EQ(3u, figure("saved"));
  EXPECT_EQ(1u, figure("skipped"));
  EXPECT_NE(std::string::npos, reason("/bucket/b/locked").find("AccessDenied")) << reason("/bucket/b/locked");
}

TEST_F(Odd_Keys, key_that_the_target_refuses_costs_only_itself) {
  put({"a", std::string(1000, 'k'), "c"});
  ASSERT_TRUE(backup()) << failure;
  server.create_bucket("target");
  Buckets_Mapper mapper;
  mapper.mappers()["bucket"].bucket = "target";
  mapper.mappers()["bucket"].prefix = std::string(100, 'p');
  restore(mapper);
  EXPECT_EQ(2u, figure("saved"));
  EXPECT_EQ(1u, figure("skipped") + figure("failed"));
  EXPECT_TRUE(events->named("/bucket/" + std::string(1000, 'k')));
}

} // namespace
