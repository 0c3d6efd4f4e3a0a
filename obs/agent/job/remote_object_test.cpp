#include "obs/agent/job/remote_object.h"

#include "obs/agent/util/obs_path.h"

#include <gtest/gtest.h>

namespace {

/// "bucket|key" that the object `path` is restored to.
std::string target(const char* path, const Buckets_Mapper::mapper_t& mapping) {
  const Remote_Object remote(OBS_Path(path, false), mapping);
  return remote.bucket + "|" + remote.key;
}

TEST(remote_object, at_most_one_leading_slash_is_skipped) {
  EXPECT_STREQ("a/b", get_remote("/a/b"));
  EXPECT_STREQ("/a", get_remote("//a"));
  EXPECT_STREQ("a/", get_remote("a/"));
  EXPECT_STREQ("", get_remote("/"));
  EXPECT_STREQ("", get_remote(""));
}

TEST(remote_object, without_a_target_bucket_an_object_goes_back_to_where_it_came_from) {
  EXPECT_EQ("a|x/y.txt", target("/a/x/y.txt", {}));
  EXPECT_EQ("a|x/y.txt", target("/a/x/y.txt", {"", "ignored", true}));
  EXPECT_EQ("a|/x//", target("/a//x//", {}));
}

TEST(remote_object, mapped_object_gets_the_prefix) {
  EXPECT_EQ("b|restored/x/y.txt", target("/a/x/y.txt", {"b", "restored", false}));
  EXPECT_EQ("b|r/s/x/y.txt", target("/a/x/y.txt", {"b", "r/s", false}));
}

TEST(remote_object, source_bucket_stands_between_prefix_and_key_where_it_is_asked_for) {
  EXPECT_EQ("b|restored/a/x/y.txt", target("/a/x/y.txt", {"b", "restored", true}));
  EXPECT_EQ("b|a/x/y.txt", target("/a/x/y.txt", {"b", "", true}));
}

TEST(remote_object, mapping_without_a_prefix_keeps_every_byte_of_the_key) {
  EXPECT_EQ("b|x/y.txt", target("/a/x/y.txt", {"b", "", false}));
  EXPECT_EQ("b|/x", target("/a//x", {"b", "", false}));
  EXPECT_EQ("b|//x//y/", target("/a///x//y/", {"b", "", false}));
  EXPECT_EQ("b|p//x", target("/a//x", {"b", "p", false}));
}

} // namespace
