#include "agent/definition_members.h"

#include <gtest/gtest.h>

namespace {

std::string refusal(const std::string& text) {
  json_spirit::Value value;
  std::string error;
  EXPECT_TRUE(json_spirit::read(text, value, &error)) << error;
  error.clear();
  const bool known = has_known_members(value.get_obj(), error);
  EXPECT_EQ(known, error.empty());
  return error;
}

} // namespace

TEST(definition_members, those_that_exist_pass_whatever_their_values) {
  for (const char* text :
       {"{}", R"({"type":"backup","target":{"id":"p"},"source":{"minor_resource_id":"m"},"options":{"tags":1}})",
        R"({"type":"restore","source":{"seq":1,"entries":[{"dir":"/b/"},{"file":"/b/k"},5]},)"
        R"("options":{"bucket_maps":[{"source":"*","target":"t","prefix":"p"}],"existing":{"any":1}}})",
        R"({"source":5,"options":[],"target":null})"})
    EXPECT_EQ("", refusal(text));
}

TEST(definition_members, misspelt_one_is_named_with_its_place_and_those_that_there_are) {
  const auto expect = [](const std::string& text, const std::string& path, const std::string& instead) {
    const std::string error = refusal(text);
    EXPECT_NE(std::string::npos, error.find("there is no member \"" + path + "\"")) << error;
    EXPECT_NE(std::string::npos, error.find(instead)) << error;
  };
  expect(R"({"raeders":3})", "raeders", "readers");
  expect(R"({"target":{"uuid":"p"}})", "target.uuid", "there are id, device_id, location");
  expect(R"({"type":"backup","source":{"minor_resource":"m"}})", "source.minor_resource", "minor_resource_id");
  expect(R"({"type":"backup","options":{"chanels":3}})", "options.chanels", "channels");
  expect(R"({"type":"restore","source":{"minor_resource_id":"m"}})", "source.minor_resource_id", "backup_minor");
  expect(R"({"type":"restore","source":{"entries":[{"dir":"/b/"},{"folder":"/b/"}]}})", "source.entries.folder", "dir");
  expect(R"({"type":"restore","options":{"tags":true}})", "options.tags", "drop_tags");
  expect(R"({"type":"restore","options":{"bucket_maps":[{"from":"a"}]}})", "options.bucket_maps.from", "source");
}
