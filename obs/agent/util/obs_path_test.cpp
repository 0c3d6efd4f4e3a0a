#include "obs/agent/util/obs_path.h"

#include <gtest/gtest.h>

namespace {

void expect_parts(const char* text, const std::string& bucket, const std::string& object) {
  const OBS_Path path(text, false);
  EXPECT_TRUE(static_cast<bool>(path)) << text;
  EXPECT_EQ(bucket, path.bucket_) << text;
  EXPECT_EQ(object, path.object_) << text;
}

TEST(obs_path, bucket_and_key_are_split_at_the_first_slash_behind_the_bucket) {
  expect_parts("/b/a/k.txt", "b", "a/k.txt");
  expect_parts("/b/k", "b", "k");
  expect_parts("/b/", "b", "");
  expect_parts("/b", "b", "");
}

TEST(obs_path, leading_slash_may_be_missing) {
  expect_parts("b/a/k.txt", "b", "a/k.txt");
  expect_parts("b", "b", "");
}

TEST(obs_path, keys_are_bytes_and_never_cleaned) {
  expect_parts("/b//x", "b", "/x");
  expect_parts("/b///", "b", "//");
  expect_parts("/b/../x/./", "b", "../x/./");
  expect_parts("/b/ \x01\xff", "b", " \x01\xff");
}

TEST(obs_path, text_without_a_bucket_is_not_valid) {
  for (const char* text : {"", "/", "//", "//x", "//b/x"}) {
    const OBS_Path path(text, false);
    EXPECT_FALSE(static_cast<bool>(path)) << text;
    EXPECT_EQ("", path.bucket_);
    EXPECT_EQ("", path.object_);
  }
  EXPECT_FALSE(static_cast<bool>(OBS_Path(static_cast<const char*>(nullptr), false)));
  EXPECT_FALSE(static_cast<bool>(OBS_Path()));
}

TEST(obs_path, bucket_only_leaves_the_key_empty) {
  const OBS_Path path("/b/a/k", true);
  EXPECT_TRUE(static_cast<bool>(path));
  EXPECT_EQ("b", path.bucket_);
  EXPECT_EQ("", path.object_);
  EXPECT_TRUE(path.is_prefix());
}

TEST(obs_path, buckets_and_keys_that_end_in_a_slash_are_prefixes) {
  EXPECT_TRUE(OBS_Path("/b", false).is_prefix());
  EXPECT_TRUE(OBS_Path("/b/", false).is_prefix());
  EXPECT_TRUE(OBS_Path("/b/a/", false).is_prefix());
  EXPECT_TRUE(OBS_Path("/b//", false).is_prefix());
  EXPECT_FALSE(OBS_Path("/b/a", false).is_prefix());
}

TEST(obs_path, parse_replaces_what_was_there) {
  OBS_Path path("/b/k", false);
  EXPECT_TRUE(path.parse("/c", false));
  EXPECT_EQ("c", path.bucket_);
  EXPECT_EQ("", path.object_);
  EXPECT_FALSE(path.parse(std::string("/"), false));
  EXPECT_EQ("", path.bucket_);
}

} // namespace
