#include "agent/definition.h"

#include "platform/mtf/deletion_guard.h"

#include <gtest/gtest.h>

namespace {

class definition : public testing::Test {
protected:
  void SetUp() override {
    std::string error;
    module_ = Module::load(OBS_LIBRARY_FOLDER "/obs/libobs_agent.so", error);
    ASSERT_NE(nullptr, module_.get()) << error;
  }

  Job_Definition_var make(const std::string& json) {
    json_spirit::Value value;
    EXPECT_TRUE(json_spirit::read(json, value, &error_)) << error_;
    error_.clear();
    return make_job_definition(value.get_obj(), *module_, error_);
  }

  void expect_refused(const std::string& json, const std::string& says) {
    EXPECT_TRUE(make(json).null());
    EXPECT_NE(std::string::npos, error_.find(says)) << error_;
  }

  std::unique_ptr<Module> module_;
  std::string error_;
};

const char SOURCE[] = R"("source":{"id":"i","minor_resource_id":"m","minor_resource_name":"n"})";

TEST_F(definition, backup_is_built_with_its_records) {
  const Job_Definition_var made = make(R"({"type":"backup","subtype":"full","host_id":"h","target":{"id":"p"},)" +
                                       std::string(SOURCE) + R"(,"options":{"channels":3},"readers":7})");
  ASSERT_FALSE(made.null()) << error_;
  EXPECT_EQ(JOB_DEFINITION_BACKUP, made->type());
  EXPECT_EQ(JOB_DEFINITION_SUBTYPE_FULL, made->subtype());
  EXPECT_EQ("h", made->host_id());
  EXPECT_EQ("p", made->target().id());
  EXPECT_EQ(7u, made->readers());
  ASSERT_FALSE(made->source.null());
  EXPECT_EQ("i", made->source->id());
  EXPECT_FALSE(made->options.null());
}

TEST_F(definition, what_may_be_gone_is_read) {
  const auto limits = [this](const std::string& members) {
    const Job_Definition_var made =
        make(R"({"type":"backup","host_id":"h","target":{"id":"p"},)" + members + SOURCE + "}");
    EXPECT_FALSE(made.null()) << error_;
    return made.null() ? Deletion_Limits() : deletion_limits(*made);
  };
  EXPECT_FALSE(limits("").given);
  EXPECT_FALSE(limits("").allow_empty);
  EXPECT_TRUE(limits(R"("allow_empty":true,)").allow_empty);
  EXPECT_EQ("30%", limits(R"("max_deleted":"30%",)").text());
  EXPECT_EQ("500", limits(R"("max_deleted":"500",)").text());
  for (const char* const wrong : {R"("max_deleted":"101%",)", R"("max_deleted":5,)", R"("max_deleted":"half",)"})
    expect_refused(R"({"type":"backup","host_id":"h","target":{"id":"p"},)" + std::string(wrong) + SOURCE + "}",
                   "max_deleted");
  expect_refused(R"({"type":"backup","host_id":"h","target":{"id":"p"},"allow_empty":1,)" + std::string(SOURCE) + "}",
                 "allow_empty");
}

TEST_F(definition, backup_without_subtype_is_incremental) {
  const Job_Definition_var made =
      make(R"({"type":"backup","host_id":"h","target":{"id":"p"},)" + std::string(SOURCE) + "}");
  ASSERT_FALSE(made.null()) << error_;
  EXPECT_EQ(JOB_DEFINITION_SUBTYPE_INCREMENTAL, made->subtype());
}

TEST_F(definition, restore_names_its_set_by_the_catalog_s_id) {
  const auto set_uuid = [this](const std::string& subtype, const std::string& catalog_id) {
    const Job_Definition_var made =
        make(R"({"type":"restore",)" + subtype + R"("host_id":"h","source":{"id":"i","backup_host_id":"h",)" +
             R"("backup_minor_resource_id":"m","pool_uuid":"p","seq":4)" + catalog_id + "}}");
    EXPECT_FALSE(made.null()) << error_;
    return made.null() ? std::string() : made->set_uuid();
  };
  EXPECT_EQ("u", set_uuid("", R"(,"catalog_id":"u")"));
  EXPECT_EQ("", set_uuid("", ""));
  EXPECT_EQ("", set_uuid("", R"(,"catalog_id":7)"));
  EXPECT_EQ("", set_uuid(R"("subtype":"dr_test",)", R"(,"catalog_id":"u")"));
}

TEST_F(definition, missing_or_wrong_members_are_named) {
  expect_refused("{}", "\"type\"");
  expect_refused(R"({"type":5})", "\"type\"");
  expect_refused(R"({"type":"storage","host_id":"h"})", "\"type\"");
  expect_refused(R"({"type":"backup"})", "\"host_id\"");
  expect_refused(R"({"type":"backup","host_id":"h"})", "\"target\"");
  expect_refused(R"({"type":"backup","subtype":"odd","host_id":"h","target":{}})", "\"subtype\"");
  expect_refused(R"({"type":"backup","host_id":"h","target":{"id":1}})", "\"target\"");
  expect_refused(R"({"type":"backup","host_id":"h","target":{"id":"p"},"uid":"no uuid"})", "\"uid\"");
  expect_refused(R"({"type":"backup","host_id":"h","target":{"id":"p"},"readers":-1})", "\"readers\"");
  expect_refused(R"({"type":"backup","host_id":"h","target":{"id":"p"},"run_post_action_always":1})",
                 "\"run_post_action_always\"");
}

TEST_F(definition, what_the_modules_parsers_refuse_is_refused) {
  expect_refused(R"({"type":"backup","host_id":"h","target":{"id":"p"}})", "\"source\"");
  expect_refused(R"({"type":"backup","host_id":"h","target":{"id":"p"},"options":{"exclusion":[1]},)" +
                     std::string(SOURCE) + "}",
                 "\"options\"");
  expect_refused(R"({"type":"restore","host_id":"h","source":{"id":"i","seq":"7"}})", "\"source\"");
}

} // namespace
