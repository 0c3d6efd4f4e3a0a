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
    return make_job_definition(value.get_obj(), json, *module_, error_);
  }
  /// The definition as its records write it; empty when it is refused.
  std::string written(const std::string& json) {
    const Job_Definition_var made = make(json);
    return made.null() ? std::string() : write_job_definition(*made, true);
  }
  static std::string restore(const std::string& source, const std::string& options = "{}") {
    return R"({"type":"restore","host_id":"h","source":{"id":"i","backup_host_id":"h","backup_minor_resource_id":"m",)"
           R"("pool_uuid":"p",)" +
           source + R"(},"options":)" + options + "}";
  }
  static std::string backup(const std::string& options) {
    return R"({"type":"backup","host_id":"h","target":{"id":"p"},"source":{"id":"i","minor_resource_id":"m",)"
           R"("minor_resource_name":"n"},"options":)" +
           options + "}";
  }
  void expect_written(const std::string& json, const std::string& holds) {
    const std::string text = written(json);
    EXPECT_NE(std::string::npos, text.find(holds)) << holds << " is not in " << text << error_;
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

TEST_F(definition, numbers_reach_the_parsers_as_they_stand) {
  expect_written(restore(R"("seq":99999999999999999999)"), R"("seq":9223372036854775807)");
  expect_written(restore(R"("seq":-7)"), R"("seq":-7)");
  expect_written(restore(R"("seq":1e3)"), R"("seq":1})");
  expect_written(backup(R"({"channels":12.9})"), R"("channels":12,)");
  expect_written(backup(R"({"list_cache_limits":4294967296})"), R"("list_cache_limits":2147483647)");
}

TEST_F(definition, keys_reach_the_parsers_in_their_order_and_as_often_as_they_stand) {
  expect_written(restore(R"("seq":1,"entries":[{"file":"/b/k","dir":"/b/d/"},{"dir":"/b/x/","dir":"/b/y/"}])"),
                 R"("entries":[{"file":"/b/k"},{"dir":"/b/d/"},{"dir":"/b/x/"},{"dir":"/b/y/"}])");
  expect_written(restore(R"("seq":1,"seq":2)"), R"("seq":2})");
  expect_written(backup(R"({"exclusion":["b","a","b"],"exclusion":["c"]})"), R"("exclusion":["b","a","b","c"])");
  // Of two members of the definition itself the last one counts, and what was in the first is gone.
  expect_written(R"({"options":{"channels":4,"cache_dir":"/x"},)" + backup(R"({"tags":true})").substr(1),
                 R"("options":{"compression":"none","compression_level":1,"list_cache_limits":0,"tags":true}})");
}

TEST_F(definition, what_is_written_is_read_back_as_the_same) {
  for (const std::string& json :
       {backup(R"({"channels":2,"compression":"zstd","compression_level":3,"exclusion":["*.tmp"],"acl":true})"),
        restore(R"("seq":1,"name":"n","catalog_id":"u","entries":[{"dir":"/b/"}])",
                R"({"existing":"skip","bucket_maps":[{"source":"*","target":"t"},{"source":"a","prefix":"p"}]})")}) {
    const std::string once = written(json);
    ASSERT_FALSE(once.empty()) << error_;
    EXPECT_EQ(once, written(once));
  }
}

TEST_F(definition, every_member_of_the_program_is_written) {
  const std::string members =
      R"({"type":"backup","subtype":"full","id":"d","uid":"00112233-4455-6677-8899-aabbccddeeff","name":"n",)"
      R"("agent":"a","host_id":"h","target":{"id":"p","device_id":"d","location":"l"},"precondition":"true",)"
      R"("pre_action":"a","post_action":"b","redirect_pre_action_stdout":true,"redirect_post_action_stdin":true,)"
      R"("ignore_pre_action_failure":true,"ignore_post_action_failure":true,"run_post_action_always":true,)"
      R"("backup_protection_password":"secret","max_seconds_retry":-1,"readers":7,"rate_limit":8,)"
      R"("service_timeout":9,"only_different":true,"archived":"fail","allow_empty":true,"max_deleted":"30%",)";
  const std::string json = members + SOURCE + R"(,"options":{}})";
  const std::string text = written(json);
  EXPECT_EQ(members, text.substr(0, members.size())) << error_;
  const std::string kept = write_job_definition(*make(json), false);
  EXPECT_EQ(std::string::npos, kept.find("secret"));
  EXPECT_NE(std::string::npos, kept.find(R"("max_deleted":"30%")"));
  // What is absent, and means what it means then, stays so.
  const std::string plain = written(backup("{}"));
  for (const char* const absent : {"readers", "rate_limit", "service_timeout", "max_seconds_retry", "max_deleted"})
    EXPECT_EQ(std::string::npos, plain.find(absent)) << absent;
}

TEST_F(definition, time_for_a_silent_service_is_read) {
  const auto with = [](const std::string& seconds) {
    return R"({"service_timeout":)" + seconds + "," + backup("{}").substr(1);
  };
  EXPECT_EQ(300u, service_timeout(*make(backup("{}"))));
  EXPECT_EQ(1u, service_timeout(*make(with("1"))));
  EXPECT_EQ(86400u, service_timeout(*make(with("86400"))));
  for (const char* const wrong : {"0", "86401", "-1", "4294967297", "\"5\"", "1.5"})
    expect_refused(with(wrong), "\"service_timeout\" must be");
}

TEST_F(definition, member_of_another_type_is_refused_and_named) {
  expect_refused(backup(R"({"channels":"4"})"), "\"channels\" must be a number");
  expect_refused(backup(R"({"channels":null})"), "\"channels\" must be a number");
  expect_refused(backup(R"({"channels":[4]})"), "\"channels\" must be a number");
  expect_refused(backup(R"({"channels":{"a":4}})"), "\"channels\" must be a number");
  expect_refused(backup(R"({"compression":3})"), "\"compression\" must be a string");
  expect_refused(backup(R"({"compression_level":true})"), "\"compression_level\" must be a number or a string");
  expect_refused(backup(R"({"tags":"yes"})"), "\"tags\" must be true or false");
  expect_refused(backup(R"({"exclusion":"*.tmp"})"), "\"exclusion\" must be a list");
  expect_refused(backup(R"({"exclusion":{"a":"*.tmp"}})"), "\"exclusion\" must be a list");
  expect_refused(backup(R"({"inclusion":["a",1]})"), "\"inclusion[]\" must be a string");
  expect_refused(backup("[]"), "\"options\"");
  expect_refused(restore(R"("seq":"7")"), "\"seq\" must be a number");
  expect_refused(restore(R"("seq":7,"catalog_id":7)"), "\"catalog_id\" must be a string");
  expect_refused(restore(R"("seq":7,"entries":["/b/"])"), "\"entries[]\" must be an object");
  expect_refused(restore(R"("seq":7,"entries":[{"dir":7}])"), "\"entries[].dir\" must be a string");
  expect_refused(restore(R"("seq":7)", R"({"channels":"4"})"), "\"channels\" must be a number");
  expect_refused(restore(R"("seq":7)", R"({"bucket_maps":[{"source":1}]})"), "\"bucket_maps[].source\" must be");
  expect_refused(restore(R"("seq":7)", R"({"existing":true})"), "\"existing\" must be a string");
  expect_written(backup(R"({"compression_level":"5"})"), R"("compression_level":5)");
}

TEST_F(definition, refusal_says_where_in_the_text_it_is) {
  expect_refused(backup(R"({"tags":1})"), " at byte ");
  expect_refused(restore(R"("name":"n")"), "lacks a member");
}

TEST_F(definition, rehearsal_without_a_number_gets_one_and_keeps_its_own) {
  const std::string rehearsal = R"({"subtype":"dr_test",)" + restore(R"("name":"n")").substr(1);
  expect_written(rehearsal, R"("seq":0)");
  expect_written(R"({"subtype":"dr_test",)" + restore(R"("seq":5)").substr(1), R"("seq":5)");
}

} // namespace
