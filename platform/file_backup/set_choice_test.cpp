#include "platform/file_backup/test_agent.h"
#include "platform/pool/pool_roll.h"
#include "platform/store/database.h"
#include "sdk/job/job.h"
#include "testing/module/log_sink.h"

#include <functional>

namespace {

class sets_of_one_number : public file_backup_test::Agent {
protected:
  class Restore_Job : public Job {
  public:
    explicit Restore_Job(const std::string& set_uuid) : Job(definition(set_uuid)) {}

  private:
    static Job_Definition_var definition(const std::string& set_uuid) {
      Job_Definition::Settings settings;
      settings.type = JOB_DEFINITION_RESTORE;
      settings.set_uuid = set_uuid;
      return Job_Definition_var(new Job_Definition(settings));
    }
  };

  void SetUp() override {
    file_backup_test::Agent::SetUp();
    ASSERT_TRUE(commit(write_set("a", 5, "2026-01-01 00:00:00"), "base"));
    ASSERT_TRUE(commit(write_set("b", 6, "2026-01-02 00:00:00"), "a"));
    change("b", [](Set_Record& record) { record.seq = 5; });
  }
  void change(const std::string& uuid, const std::function<void(Set_Record&)>& how) {
    const std::string folder = pool_.set_folder(std::string(ACCOUNT) + "/" + RESOURCE + "/" + uuid);
    Set_Record record;
    ASSERT_TRUE(read_set_record(folder, record, error_)) << error_;
    how(record);
    ASSERT_TRUE(commit_set_record(pool_, record, error_)) << error_;
  }
  /// The name of the folder that is found for a job which names that set; empty when none is.
  std::string found_for(const std::string& set_uuid, unsigned seq) {
    const Job_var job(new Restore_Job(set_uuid), false);
    Job* const before = Job::current(job.get());
    std::string incarnation, uri;
    unsigned channels = 0;
    if (!file_backup::get_incarnation(POOL, RESOURCE, seq, incarnation, channels, uri, 0))
      uri.clear();
    Job::current(before);
    failure_ = json_spirit::optional_str(job->results(), "failure");
    return uri.substr(uri.rfind('/') + 1);
  }
  std::string failure_;
  module_testing::Log_Sink log_;
};

TEST_F(sets_of_one_number, one_that_the_job_names_is_found) {
  EXPECT_EQ("a", found_for("a", 5));
  EXPECT_EQ("b", found_for("b", 5));
  EXPECT_EQ("", failure_);
}

TEST_F(sets_of_one_number, none_is_found_by_its_number_alone) {
  EXPECT_EQ("", found_for("", 5));
  EXPECT_NE(std::string::npos, failure_.find("that of a and b")) << failure_;
  EXPECT_EQ(1u, log_.count("that of a and b"));
  // Nor without a job.
  std::string incarnation, uri;
  unsigned channels = 0;
  EXPECT_FALSE(file_backup::get_incarnation(POOL, RESOURCE, 5, incarnation, channels, uri, 0));
}

TEST_F(sets_of_one_number, set_of_another_number_than_the_job_s_is_refused) {
  ASSERT_TRUE(commit(write_set("c", 7, "2026-01-03 00:00:00"), "b"));
  EXPECT_EQ("c", found_for("", 7));
  EXPECT_EQ("", found_for("a", 7));
  EXPECT_NE(std::string::npos, failure_.find("is to be a, but that number is c's")) << failure_;
  EXPECT_EQ("", found_for("a", 8));
  EXPECT_NE(std::string::npos, failure_.find("none of that number, and it is to be a")) << failure_;
  EXPECT_EQ("", found_for("", 8));
  EXPECT_NE(std::string::npos, failure_.find("none of that number.")) << failure_;
}

TEST_F(sets_of_one_number, unknown_set_is_refused_though_the_number_is_there) {
  EXPECT_EQ("", found_for("unknown", 5));
  EXPECT_NE(std::string::npos, failure_.find("is to be unknown, but that number is a and b's")) << failure_;
}

TEST_F(sets_of_one_number, merged_set_stands_for_the_set_whose_moment_it_is) {
  ASSERT_TRUE(commit(write_set("merged", 6, "2026-01-01 00:00:00"), "base"));
  change("merged", [](Set_Record& record) {
    record.seq = 5;
    record.replaces = {"before", "a"};
  });
  EXPECT_EQ("merged", found_for("a", 5));
  EXPECT_EQ("b", found_for("b", 5));
  EXPECT_EQ("", found_for("", 5));
}

TEST_F(sets_of_one_number, when_all_numbers_are_taken_nothing_is_committed) {
  // In one statement: a row at a time takes minutes.
  Store_Db db;
  ASSERT_TRUE(db.open(folder_ + "/state/agent.db", error_)) << error_;
  ASSERT_TRUE(
      db.execute("CREATE TEMP TABLE one AS SELECT * FROM sets WHERE uuid='a'; UPDATE one SET added=NULL, state='gone';"
                 "CREATE TEMP TABLE numbers AS WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 FROM n WHERE "
                 "i<65534) SELECT i FROM n; CREATE TEMP TABLE many AS SELECT one.*, i FROM one, numbers;"
                 "UPDATE many SET seq=i, uuid='set '||i; ALTER TABLE many DROP COLUMN i;"
                 "INSERT INTO sets SELECT * FROM many",
                 error_))
      << error_;
  EXPECT_TRUE(commit(write_set("c", 65535, "2026-01-03 00:00:00"), "b"));
  EXPECT_FALSE(commit(write_set("d", 1, "2026-01-04 00:00:00")));
  EXPECT_FALSE(commit(write_set("e", 7, "2026-01-04 00:00:00"), "c"));
  EXPECT_EQ(2u, log_.count("have taken all numbers"));
}

} // namespace
