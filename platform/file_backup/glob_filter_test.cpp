#include "platform/file_backup/glob_filter.h"

#include "sdk/file_backup/file_backup.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>

namespace {

typedef std::vector<std::string> Rules;

struct Row {
  const char* rule;
  const char* path;
  Glob_Rule::Result wanted;
};

const Glob_Rule::Result NONE = Glob_Rule::NONE;
const Glob_Rule::Result BELOW = Glob_Rule::BELOW;
const Glob_Rule::Result MATCH = Glob_Rule::MATCH;

TEST(glob_rule, matches_as_documented) {
  const Row rows[] = {
      // Anchored literals.
      {"/b/key", "/b/key", MATCH},
      {"/b/key", "/b/key2", NONE},
      {"/b/key", "/b/ke", BELOW},
      {"/b/key", "/c/key", NONE},
      {"/b/key", "/b/x/key", NONE},
      {"/b/key", "/b/key/", NONE},
      {"/b/", "/b/", MATCH},
      {"/b/", "/b/any/thing", MATCH},
      {"/b/", "/bb/", NONE},
      // Any depth.
      {"key", "/b/key", MATCH},
      {"key", "/b/a/c/key", MATCH},
      {"key", "/b/akey", BELOW},
      {"key", "/b/key/x", BELOW},
      {"key", "/b/a/", BELOW},
      {"a/key", "/b/a/key", MATCH},
      {"a/key", "/b/x/a/key", MATCH},
      {"a/key", "/b/xa/key", BELOW},
      {"b/key", "/b/key", MATCH},
      // Within a component.
      {"*.tmp", "/b/x.tmp", MATCH},
      {"*.tmp", "/b/a/.tmp", MATCH},
      {"*.tmp", "/b/x.tmp2", BELOW},
      {"*.tmp", "/b/x.tmp/", BELOW},
      {"/b/*", "/b/x", MATCH},
      {"/b/*", "/b/", BELOW},
      {"*", "/b/", BELOW},
      {"*", "/b/x", MATCH},
      {"/b/*", "/b/x/y", NONE},
      {"/b/*/y", "/b/x/y", MATCH},
      {"/b/*/y", "/b/x/z/y", NONE},
      {"/b/*/y", "/b//y", MATCH},
      {"/b/?", "/b/x", MATCH},
      {"/b/?", "/b/xy", NONE},
      {"/b/?", "/b/", BELOW},
      {"/b/?x", "/b//x", NONE},
      {"/b/a?c", "/b/abc", MATCH},
      {"/b/a?c", "/b/a/c", NONE},
      {"/b*/x", "/bucket/x", MATCH},
      {"/*/x", "/any/x", MATCH},
      {"/b/*a*b*", "/b/xxaxxbxx", MATCH},
      {"/b/*a*b*", "/b/xxbxxaxx", BELOW},
      // Across components.
      {"/b/**", "/b/x/y/z", MATCH},
      {"/b/**", "/b/x/", MATCH},
      {"/b/**", "/b/", MATCH},
      {"/b/**", "/c/x", NONE},
      {"/b/**/z", "/b/z", MATCH},
      {"/b/**/z", "/b/x/z", MATCH},
      {"/b/**/z", "/b/x/y/z", MATCH},
      {"/b/**/z", "/b/xz", BELOW},
      {"/b/x**z", "/b/x/y/z", MATCH},
      {"/b/x**z", "/b/xz", MATCH},
      {"/**/z", "/b/z", MATCH},
      {"**/z", "/b/y/z", MATCH},
      {"**", "/b/any", MATCH},
      {"a/**/c/*.x", "/b/a/q/r/c/1.x", MATCH},
      {"a/**/c/*.x", "/b/a/c/1.x", MATCH},
      {"a/**/c/*.x", "/b/a/c/d/1.x", BELOW},
      {"/b/**/**/z", "/b/z", MATCH},
      // Folders.
      {"logs/", "/b/logs/", MATCH},
      {"logs/", "/b/a/logs/", MATCH},
      {"logs/", "/b/logs", BELOW},
      {"logs/", "/b/logs/x", MATCH},
      {"logs/", "/b/logs/x/y/", MATCH},
      {"logs/", "/b/mylogs/", BELOW},
      {"/b/l*s/", "/b/logs/deep/key", MATCH},
      {"/b/**/", "/b/x/", MATCH},
      {"/b/**/", "/b/x/y", MATCH},
      {"/b/**/", "/b/x", BELOW},
      {"/b/**/", "/b/", BELOW},
      {"b/", "/b/", MATCH},
      // Could hold a match.
      {"/b/a/c/key", "/b/", BELOW},
      {"/b/a/c/key", "/b/a/", BELOW},
      {"/b/a/c/key", "/b/x/", NONE},
      {"/b/a*/key", "/b/abc/", BELOW},
      {"/b/a*/key", "/b/xbc/", NONE},
      {"/b/a*/key", "/b/abc/d/", NONE},
      // Odd bytes.
      {"/b/\xff\xfe*", "/b/\xff\xfe\x01", MATCH},
      {"/b/?", "/b/\xff", MATCH},
      {"/b/??", "/b/\xc3\xa4", MATCH},
      {"/b/[a]", "/b/[a]", MATCH},
      {"/b/[a]", "/b/a", NONE},
      {"/b/a\\b", "/b/a\\b", MATCH},
      {"/b/a\nb", "/b/a\nb", MATCH},
      {"/b//x", "/b//x", MATCH},
      {"/b//x", "/b/x", NONE},
      {"/b/a//", "/b/a//", MATCH},
      {"/b/./..", "/b/./..", MATCH},
      {"/b/ *", "/b/ x", MATCH},
  };
  for (const Row& row : rows) {
    Glob_Rule rule;
    std::string error;
    ASSERT_TRUE(rule.compile(row.rule, error)) << row.rule << ": " << error;
    EXPECT_EQ(row.wanted, rule.match(row.path, std::strlen(row.path))) << row.rule << " on " << row.path;
  }
}

TEST(glob_rule, refuses_what_makes_no_sense) {
  for (const std::string& text :
       Rules{"", "/", "//x", "a***b", "***", std::string("a\0b", 3), std::string(Glob_Rule::MAX_LENGTH + 1, 'a')}) {
    Glob_Rule rule;
    std::string error;
    EXPECT_FALSE(rule.compile(text, error)) << text.substr(0, 20);
    EXPECT_FALSE(error.empty());
  }
}

/// Rules beyond one machine word take the same decisions as short ones.
TEST(glob_rule, long_rules_cross_the_word_boundary) {
  for (size_t length = 50; length < 270; ++length) {
    const std::string name(length, 'n');
    Glob_Rule plain, star, folders;
    std::string error;
    ASSERT_TRUE(plain.compile("/b/" + name + "x", error));
    ASSERT_TRUE(star.compile("/b/" + name + "*x", error));
    ASSERT_TRUE(folders.compile("/b/" + name + "/**/x", error));
    const auto match = [](const Glob_Rule& rule, const std::string& path) {
      return rule.match(path.data(), path.size());
    };
    EXPECT_EQ(MATCH, match(plain, "/b/" + name + "x")) << length;
    EXPECT_EQ(NONE, match(plain, "/b/" + name + "nx")) << length;
    EXPECT_EQ(MATCH, match(star, "/b/" + name + "nnx")) << length;
    EXPECT_EQ(MATCH, match(star, "/b/" + name + "x")) << length;
    EXPECT_EQ(NONE, match(star, "/b/" + name + "/x")) << length;
    EXPECT_EQ(MATCH, match(folders, "/b/" + name + "/x")) << length;
    EXPECT_EQ(MATCH, match(folders, "/b/" + name + "/a/b/x")) << length;
    EXPECT_EQ(BELOW, match(folders, "/b/" + name + "/ax")) << length;
  }
}

/// A second way to the same answer: plain backtracking, exponential but obvious.
bool slow_match(const char* rule, const char* path) {
  if (*rule == '\0')
    return *path == '\0';
  if (rule[0] == '*' && rule[1] == '*') {
    for (const char* at = path;; ++at) {
      if (slow_match(rule + 2, at))
        return true;
      if (*at == '\0')
        return false;
    }
  }
  if (*rule == '*') {
    for (const char* at = path;; ++at) {
      if (slow_match(rule + 1, at))
        return true;
      if (*at == '\0' || *at == '/')
        return false;
    }
  }
  if (*path == '\0' || (*rule == '?' ? *path == '/' : *rule != *path))
    return false;
  return slow_match(rule + 1, path + 1);
}

TEST(glob_rule, agrees_with_plain_backtracking_on_random_rules) {
  unsigned long long random = 88172645463325252ull;
  const auto draw = [&random](unsigned n) {
    random ^= random << 13;
    random ^= random >> 7;
    random ^= random << 17;
    return static_cast<unsigned>(random % n);
  };
  unsigned matches = 0;
  for (int round = 0; round < 20000; ++round) {
    std::string rule = "/b";
    std::string path = "/b";
    for (unsigned i = draw(7); i > 0; --i)
      rule += "ab/?*"[draw(5)];
    for (unsigned i = draw(8); i > 0; --i)
      path += "ab/"[draw(3)];
    // "**/" where a component begins and a trailing "/" mean more than the characters say, and a folder is no end of
    // "*".
    if (path.back() == '/' || rule.find("***") != std::string::npos || rule.find("/**/") != std::string::npos ||
        rule.back() == '/')
      continue;
    Glob_Rule compiled;
    std::string error;
    ASSERT_TRUE(compiled.compile(rule, error)) << rule;
    const bool wanted = slow_match(rule.c_str(), path.c_str());
    matches += wanted;
    EXPECT_EQ(wanted, compiled.match(path.data(), path.size()) == MATCH) << rule << " on " << path;
  }
  EXPECT_GT(matches, 100u);
}

TEST(glob_rule, pathological_rules_take_linear_time) {
  std::string stars = "/b/";
  for (int i = 0; i < 300; ++i)
    stars += "*a";
  stars += "*b";
  std::string folders = "/b/";
  for (int i = 0; i < 300; ++i)
    folders += "**/a*/";
  folders += "b";
  const std::string flat = "/b/" + std::string(1024, 'a');
  std::string deep = "/b/";
  for (int i = 0; i < 512; ++i)
    deep += "a/";
  for (const std::string& text : Rules{stars, folders}) {
    Glob_Rule rule;
    std::string error;
    ASSERT_TRUE(rule.compile(text, error)) << error;
    const auto begun = std::chrono::steady_clock::now();
    for (int i = 0; i < 20; ++i) {
      EXPECT_NE(MATCH, rule.match(flat.data(), flat.size()));
      EXPECT_NE(MATCH, rule.match(deep.data(), deep.size()));
    }
    EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(5));
  }
}

struct Filter_Row {
  Rules exclusions;
  Rules inclusions;
  const char* path;
  bool wanted;
};

TEST(glob_filter, exclusions_and_inclusions_play_together) {
  const std::vector<Filter_Row> rows = {
      {{"*.tmp"}, {}, "/b/x.tmp", false},
      {{"*.tmp"}, {}, "/b/x.txt", true},
      {{"*.tmp"}, {}, "/b/d/", true},
      {{"*.tmp", "*.bak"}, {}, "/b/x.bak", false},
      {{"logs/"}, {}, "/b/logs/", false},
      {{"logs/"}, {}, "/b/logs/x", false},
      {{"logs/"}, {}, "/b/a/logs/x", false},
      {{"logs/"}, {}, "/b/logs", true},
      // An inclusion overrides an exclusion, and its way is walked.
      {{"*.tmp"}, {"keep.tmp"}, "/b/keep.tmp", true},
      {{"*.tmp"}, {"keep.tmp"}, "/b/lose.tmp", false},
      {{"*.tmp"}, {"keep.tmp"}, "/b/other", true},
      {{"/b/logs/"}, {"/b/logs/keep/*"}, "/b/logs/", true},
      {{"/b/logs/"}, {"/b/logs/keep/*"}, "/b/logs/keep/", true},
      {{"/b/logs/"}, {"/b/logs/keep/*"}, "/b/logs/keep/x", true},
      {{"/b/logs/"}, {"/b/logs/keep/*"}, "/b/logs/lose/", false},
      {{"/b/logs/"}, {"/b/logs/keep/*"}, "/b/logs/x", false},
      {{"**"}, {"/b/only/"}, "/b/", true},
      {{"**"}, {"/b/only/"}, "/b/only/x", true},
      {{"**"}, {"/b/only/"}, "/b/x", false},
      {{"**"}, {"/b/only/"}, "/c/", false},
      // Inclusions alone.
      {{}, {"*.txt"}, "/b/x.txt", true},
      {{}, {"*.txt"}, "/b/x.tmp", false},
      {{}, {"*.txt"}, "/b/d/", true},
      {{}, {"/b/docs/"}, "/b/", true},
      {{}, {"/b/docs/"}, "/b/docs/", true},
      {{}, {"/b/docs/"}, "/b/docs/a/b/c", true},
      {{}, {"/b/docs/"}, "/b/pics/", false},
      {{}, {"/b/docs/"}, "/c/", false},
      {{}, {"/b/docs/"}, "/b/docs", false},
      {{}, {"/b/*/x"}, "/b/a/", true},
      {{}, {"/b/*/x"}, "/b/a/c/", false},
  };
  for (const Filter_Row& row : rows) {
    std::string error;
    const auto filter = Glob_Filter::make(row.exclusions, row.inclusions, error);
    ASSERT_TRUE(filter) << error;
    const bool is_dir = row.path[std::strlen(row.path) - 1] == '/';
    EXPECT_EQ(row.wanted, filter->is_included(row.path, is_dir))
        << row.path << " with -" << (row.exclusions.empty() ? "" : row.exclusions[0]) << " +"
        << (row.inclusions.empty() ? "" : row.inclusions[0]);
  }
}

TEST(glob_filter, counts_the_objects_left_out) {
  std::string error;
  const auto filter = Glob_Filter::make({"*.tmp", "logs/"}, {}, error);
  ASSERT_TRUE(filter);
  EXPECT_FALSE(filter->is_included("/b/1.tmp", false));
  EXPECT_FALSE(filter->is_included("/b/2.tmp", false));
  EXPECT_FALSE(filter->is_included("/b/logs/", true));
  EXPECT_TRUE(filter->is_included("/b/3.txt", false));
  EXPECT_EQ(2u, filter->excluded_files());
}

TEST(glob_filter, no_rules_make_no_filter) {
  std::unique_ptr<MTF::IFilter> filter;
  EXPECT_TRUE(file_backup::make_filter({}, {}, filter));
  EXPECT_FALSE(filter);
}

TEST(glob_filter, a_bad_rule_is_named_and_leaves_no_filter) {
  std::string error;
  EXPECT_FALSE(Glob_Filter::make({"good", "ba***d"}, {}, error));
  EXPECT_NE(std::string::npos, error.find("ba***d"));
  EXPECT_FALSE(Glob_Filter::make({}, {"//bad"}, error));
  EXPECT_NE(std::string::npos, error.find("//bad"));
  std::unique_ptr<MTF::IFilter> filter;
  EXPECT_FALSE(file_backup::make_filter({""}, {}, filter));
  EXPECT_FALSE(filter);
}

} // namespace
