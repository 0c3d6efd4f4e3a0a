#include "obs/agent/job/buckets_mapper.h"

#include <gtest/gtest.h>

namespace {

TEST(buckets_mapper, without_entries_every_bucket_has_an_empty_mapping) {
  const Buckets_Mapper mapper;
  const Buckets_Mapper::mapper_t& m = mapper.mapper("any");
  EXPECT_EQ("", m.bucket);
  EXPECT_EQ("", m.prefix);
  EXPECT_FALSE(m.add_bucket_prefix);
}

TEST(buckets_mapper, explicit_entry_goes_before_the_default) {
  Buckets_Mapper mapper;
  mapper.default_mapper().bucket = "all";
  mapper.default_mapper().add_bucket_prefix = true;
  mapper.mappers()["a"].bucket = "x";
  EXPECT_EQ("x", mapper.mapper("a").bucket);
  EXPECT_FALSE(mapper.mapper("a").add_bucket_prefix);
  EXPECT_EQ("all", mapper.mapper("b").bucket);
  EXPECT_TRUE(mapper.mapper("b").add_bucket_prefix);
}

TEST(buckets_mapper, names_are_compared_exactly) {
  Buckets_Mapper mapper;
  mapper.mappers()["Bucket"].bucket = "x";
  EXPECT_EQ("", mapper.mapper("bucket").bucket);
  EXPECT_EQ("", mapper.mapper("Bucket ").bucket);
}

TEST(buckets_mapper, empty_name_is_the_default_unless_it_has_an_entry) {
  Buckets_Mapper mapper;
  mapper.default_mapper().bucket = "all";
  EXPECT_EQ("all", mapper.mapper("").bucket);
  mapper.mappers()[""].bucket = "empty";
  EXPECT_EQ("empty", mapper.mapper("").bucket);
}

TEST(buckets_mapper, result_is_a_reference_into_the_mapper) {
  Buckets_Mapper mapper;
  mapper.mappers()["a"];
  EXPECT_EQ(&mapper.mappers()["a"], &mapper.mapper("a"));
  EXPECT_EQ(&mapper.default_mapper(), &mapper.mapper("b"));
}

} // namespace
