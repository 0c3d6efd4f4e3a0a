#include "platform/catalog/catalog_db.h"
#include "platform/catalog/catalog_moves.h"
#include "platform/catalog/catalog_reader.h"
#include "platform/catalog/catalog_writer.h"
#include "sdk/job/job.h"
#include "testing/module/fake_clock.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace fs = std::filesystem;

namespace {

/// A catalog of one object, into which SQL is put from outside.
class Hostile_Catalog : public testing::Test {
protected:
  void SetUp() override {
    char name[] = "/tmp/catalog_guard_test.XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(name));
    folder_ = name;
    write();
  }
  void TearDown() override { fs::remove_all(folder_); }

  void write() {
    fs::remove(folder_ + "/catalog.db");
    auto writer = Catalog_Writer::create(folder_, error_);
    ASSERT_TRUE(writer) << error_;
    ASSERT_TRUE(writer->add_set({0, "own", "h/r/a", 7}));
    ASSERT_TRUE(writer->add_visit({"b/", 1, 1, true}));
    Catalog_Object object;
    object.ordinal = 1;
    object.path = "b/k";
    ASSERT_TRUE(writer->add_object(object));
    ASSERT_TRUE(writer->finish()) << writer->error();
  }

  /// As somebody does who has the file, with an SQLite that allows everything.
  void put(const std::string& sql) {
    sqlite3* db = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open(path().c_str(), &db));
    char* error = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &error)) << sql << ": " << error;
    sqlite3_close(db);
  }
  std::string path() const { return folder_ + "/catalog.db"; }

  /// Why it cannot be opened; empty where it can.
  std::string refused() {
    error_.clear();
    return Catalog_Reader::open(folder_, error_) ? std::string() : error_;
  }

  /// Bytes of this process that are in memory at most since the last call.
  static size_t peak() {
    std::ifstream status("/proc/self/status");
    std::string line;
    size_t kilobytes = 0;
    while (std::getline(status, line))
      if (line.compare(0, 6, "VmHWM:") == 0)
        kilobytes = std::strtoul(line.c_str() + 6, nullptr, 10);
    std::ofstream("/proc/self/clear_refs") << "5";
    return kilobytes * 1024;
  }

  std::string folder_, error_;
};

TEST_F(Hostile_Catalog, honest_one_is_read) {
  EXPECT_EQ("", refused());
}

TEST_F(Hostile_Catalog, whatever_is_no_table_of_a_catalog_s_is_refused_by_name) {
  struct Case {
    const char* sql;
    const char* told;
  };
  const Case cases[] = {
      {"ALTER TABLE objects RENAME TO o; CREATE VIEW objects AS WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 "
       "FROM n) SELECT i AS ordinal,x'6b' AS name,0 AS size,0 AS mtime,0 AS place,0 AS channel,0 AS position,"
       "0 AS stored,x'' AS sha256,0 AS flags,0 AS attributes,x'' AS own FROM n",
       "'o'"},
      {"DROP TABLE sets; CREATE VIEW sets AS WITH RECURSIVE n(i) AS (SELECT 0 UNION ALL SELECT i+1 FROM n) "
       "SELECT i AS idx,'u' AS uuid,'h/r/a' AS uri,1 AS seq FROM n",
       "the view 'sets'"},
      {"CREATE TRIGGER t AFTER UPDATE ON objects BEGIN DELETE FROM sets; END", "the trigger 't'"},
      {"CREATE TABLE more(a)", "the table 'more'"},
      {"CREATE INDEX more ON objects(size)", "the index 'more'"},
      {"DROP TABLE problems; CREATE TABLE problems(id INTEGER PRIMARY KEY, kind INTEGER NOT NULL, path BLOB NOT NULL, "
       "number INTEGER NOT NULL, message TEXT AS (hex(zeroblob(300000000))))",
       "the table 'problems'"},
  };
  for (const Case& one : cases) {
    SCOPED_TRACE(one.sql);
    write();
    put(one.sql);
    EXPECT_NE(std::string::npos, refused().find(one.told)) << error_;
    EXPECT_NE(std::string::npos, error_.find(path())) << error_;
  }
}

TEST_F(Hostile_Catalog, schema_without_an_end_is_refused_in_bounded_memory) {
  put("PRAGMA writable_schema=ON; WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 FROM n WHERE i<20000) "
      "INSERT INTO sqlite_master SELECT 'table','t'||i,'t'||i,2,"
      "'CREATE TABLE t'||i||'(a,b,c,d,e,f,g,h,i,j,k,l,m,n,o,p,q,r,s,t,u,v,w,x,y,z)' FROM n");
  peak();
  const size_t before = peak();
  EXPECT_NE(std::string::npos, refused().find("more in its schema")) << error_;
  EXPECT_GT(before + (32u << 20), peak());
}

TEST_F(Hostile_Catalog, row_of_many_megabytes_is_no_row) {
  put("UPDATE sets SET uri=CAST(zeroblob(300000000) AS TEXT)");
  peak();
  const size_t before = peak();
  EXPECT_NE(std::string::npos, refused().find("too big")) << error_;
  EXPECT_GT(before + (64u << 20), peak());
  write();
  put("UPDATE objects SET name=zeroblob(300000000)");
  const auto reader = Catalog_Reader::open(folder_, error_);
  ASSERT_TRUE(reader) << error_;
  peak();
  EXPECT_FALSE(reader->walk(
      "", [](const Catalog_Object&) { return true; }, error_));
  EXPECT_GT(before + (64u << 20), peak());
}

TEST_F(Hostile_Catalog, more_sets_than_there_can_be_are_refused) {
  put("WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 FROM n WHERE i<500000) "
      "INSERT INTO sets SELECT i,'u','h/r/a',1 FROM n");
  EXPECT_NE(std::string::npos, refused().find("more sets")) << error_;
  write();
  put("UPDATE sets SET uri=CAST(zeroblob(10000) AS TEXT)");
  EXPECT_NE(std::string::npos, refused().find("sets")) << error_;
}

TEST_F(Hostile_Catalog, what_lies_beside_it_is_not_looked_at) {
  for (const char* suffix : {"-journal", "-wal", "-shm"})
    ASSERT_EQ(0, mkfifo((path() + suffix).c_str(), 0600));
  EXPECT_EQ("", refused());
}

TEST_F(Hostile_Catalog, copy_of_one_is_refused_as_well) {
  put("CREATE TRIGGER t AFTER UPDATE ON objects BEGIN DELETE FROM sets; END");
  const std::string work = folder_ + "/work";
  fs::create_directory(work);
  Catalog_Db db;
  EXPECT_FALSE(copy_catalog(folder_, work, db, error_));
  EXPECT_NE(std::string::npos, error_.find("the trigger 't'")) << error_;
}

TEST_F(Hostile_Catalog, reading_ends_when_the_job_is_cancelled) {
  class Idle_Job : public Job {
  public:
    Idle_Job() : Job(Job_Definition_var()) { activity().state = JOB_STATE_RUNNING; }
  };
  put("WITH RECURSIVE n(i) AS (SELECT 2 UNION ALL SELECT i+1 FROM n WHERE i<200000) "
      "INSERT INTO problems SELECT i,1,x'6b',0,'m' FROM n");
  module_testing::Fake_Clock clock;
  const Job_var job(new Idle_Job, false);
  Job::current(job.get());
  Catalog_Db db;
  ASSERT_TRUE(db.open(path(), SQLITE_OPEN_READONLY, error_)) << error_;
  ASSERT_TRUE(db.check_schema(error_)) << error_;
  EXPECT_TRUE(db.execute("SELECT count(message) FROM problems WHERE message<>'n'", error_)) << error_;
  job->activity().state = JOB_STATE_CANCELING;
  EXPECT_TRUE(db.execute("SELECT count(message) FROM problems WHERE message<>'n'", error_)) << error_;
  clock.advance(2);
  EXPECT_FALSE(db.execute("SELECT count(message) FROM problems WHERE message<>'n'", error_));
  EXPECT_EQ("the job is being cancelled", error_);
  Job::current(nullptr);
}

} // namespace
