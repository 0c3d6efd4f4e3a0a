#include "platform/pool/pool_files.h"

#include "platform/pool/durable_file.h"
#include "platform/pool/pool.h"
#include "platform/pool/set_guard.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <functional>

namespace fs = std::filesystem;

namespace {

/// A pool with a set, and a folder beside it that nothing may touch.
class Pool_Files : public testing::Test {
protected:
  void SetUp() override {
    char name[] = "/tmp/pool_files_test.XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(name));
    root_ = name;
    ASSERT_TRUE(Pool::create("file://" + root_ + "/pool", "u", error_)) << error_;
    ASSERT_TRUE(Pool::open("file://" + root_ + "/pool", "u", pool_, error_)) << error_;
    ASSERT_TRUE(pool_.make_set_folder(URI, error_)) << error_;
    ASSERT_TRUE(write_set_record(set(), record(), error_)) << error_;
    fs::create_directory(root_ + "/outside");
    std::ofstream(victim()) << "precious";
  }
  void TearDown() override { fs::remove_all(root_); }

  static constexpr const char* URI = "h/r/a";
  std::string set() const { return pool_.set_folder(URI); }
  std::string victim() const { return root_ + "/outside/victim"; }
  Set_Record record() const {
    Set_Record record;
    record.uuid = "a";
    record.uri = URI;
    record.start_time = "2020-01-01T00:00:00Z";
    return record;
  }
  static std::string text(const std::string& path) {
    std::ifstream in(path);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  }
  void expect_nothing_touched() {
    EXPECT_EQ("precious", text(victim()));
    EXPECT_EQ(1, std::distance(fs::directory_iterator(root_ + "/outside"), fs::directory_iterator()));
  }

  /// What may lie where a file of the pool should be.
  void plant(const std::string& path, int what) {
    fs::remove_all(path);
    if (what == 0)
      fs::create_symlink(victim(), path);
    else if (what == 1)
      fs::create_symlink(root_ + "/outside/new", path);
    else
      ASSERT_EQ(0, mkfifo(path.c_str(), 0600));
  }
  static constexpr int KINDS = 3;

  std::string root_, error_;
  Pool pool_;
};

TEST_F(Pool_Files, pool_s_own_folder_is_nobody_else_s) {
  EXPECT_EQ(fs::perms::owner_all, fs::status(root_ + "/pool").permissions());
}

TEST_F(Pool_Files, what_is_planted_is_named_and_neither_followed_nor_waited_for) {
  struct Case {
    std::string path;
    std::function<bool()> use;
  };
  const std::string pool = pool_.folder();
  const Case cases[] = {
      {pool + "/.lock", [&] { return pool_.lock(error_) != nullptr; }},
      {pool + "/pool.json",
       [&] {
         Pool again;
         return Pool::open("file://" + pool, "u", again, error_);
       }},
      {set() + "/.lock",
       [&] {
         Set_Lock lock;
         return lock.acquire(set(), false, error_);
       }},
      {set() + "/set.json",
       [&] {
         Set_Guard guard;
         return guard.share(set(), error_) == Set_Guard::HELD;
       }},
      {set() + "/set.json",
       [&] {
         Set_Record read;
         return read_set_record(set(), read, error_);
       }},
      {set() + "/set.json",
       [&] {
         std::vector<std::string> errors;
         const bool none = pool_.sets("", errors).empty();
         error_ = errors.empty() ? "" : errors.front();
         return !none;
       }},
  };
  for (const Case& one : cases)
    for (int what = 0; what < KINDS; ++what) {
      SCOPED_TRACE(one.path + ", kind " + std::to_string(what));
      std::error_code none; // a lock's file is only there while it is held
      fs::rename(one.path, one.path + ".kept", none);
      plant(one.path, what);
      error_.clear();
      EXPECT_FALSE(one.use());
      EXPECT_NE(std::string::npos, error_.find(one.path)) << error_;
      EXPECT_NE(std::string::npos, error_.find(what == 2 ? "no regular file" : "link")) << error_;
      expect_nothing_touched();
      fs::remove(one.path);
      fs::rename(one.path + ".kept", one.path, none);
    }
}

TEST_F(Pool_Files, temporary_file_is_made_anew_whatever_lies_in_its_place) {
  for (int what = 0; what < KINDS; ++what) {
    plant(set() + "/set.json.tmp", what);
    EXPECT_TRUE(write_set_record(set(), record(), error_)) << error_;
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(set() + "/set.json")));
    EXPECT_FALSE(fs::exists(fs::symlink_status(set() + "/set.json.tmp")));
    expect_nothing_touched();
  }
  fs::create_directories(set() + "/set.json.tmp/full");
  EXPECT_FALSE(write_set_record(set(), record(), error_));
  EXPECT_NE(std::string::npos, error_.find("set.json.tmp")) << error_;
}

TEST_F(Pool_Files, folder_behind_a_link_is_followed_by_none) {
  for (const std::string& part : {std::string("h"), std::string("h/r"), std::string("h/r/a")}) {
    SCOPED_TRACE(part);
    const std::string path = pool_.set_folder(part), away = root_ + "/away";
    fs::rename(path, away);
    fs::create_symlink(away, path);
    std::vector<std::string> errors;
    EXPECT_TRUE(pool_.sets("", errors).empty());
    EXPECT_TRUE(pool_.sets("h/r", errors).empty());
    EXPECT_TRUE(pool_.unfinished("h/r").empty());
    Set_Record read;
    EXPECT_FALSE(read_set_record(set(), read, error_));
    EXPECT_NE(std::string::npos, error_.find("link")) << error_;
    Set_Lock lock;
    EXPECT_FALSE(lock.acquire(set(), false, error_));
    EXPECT_FALSE(write_set_record(set(), record(), error_));
    if (part != URI) {
      EXPECT_FALSE(pool_.make_set_folder("h/r/new", error_));
      EXPECT_NE(std::string::npos, error_.find("link")) << error_;
    }
    pool_.remove_set(URI, error_);
    EXPECT_TRUE(fs::exists(away + std::string(URI).substr(part.size()) + "/set.json"));
    if (fs::exists(fs::symlink_status(path)))
      fs::remove(path);
    fs::rename(away, path);
  }
}

TEST_F(Pool_Files, removal_ends_links_and_not_what_they_lead_to) {
  fs::create_symlink(root_ + "/outside", set() + "/link");
  fs::create_directories(set() + "/deep/er");
  fs::create_symlink(victim(), set() + "/deep/er/link");
  EXPECT_TRUE(pool_.remove_set(URI, error_)) << error_;
  EXPECT_FALSE(fs::exists(set()));
  expect_nothing_touched();
}

TEST_F(Pool_Files, pool_behind_a_link_of_the_operator_s_is_one) {
  fs::create_directory_symlink(root_ + "/pool", root_ + "/name");
  Pool named;
  ASSERT_TRUE(Pool::open("file://" + root_ + "/name", "u", named, error_)) << error_;
  std::vector<std::string> errors;
  EXPECT_EQ(1u, named.sets("", errors).size());
  EXPECT_TRUE(named.lock(error_)) << error_;
}

TEST_F(Pool_Files, way_begins_at_the_folder_that_was_opened) {
  fs::rename(root_ + "/pool", root_ + "/moved");
  fs::create_directories(root_ + "/pool/h/r/a");
  fs::create_symlink(victim(), root_ + "/pool/h/r/a/set.json");
  Set_Record read;
  EXPECT_TRUE(read_set_record(set(), read, error_)) << error_;
}

TEST_F(Pool_Files, outside_a_pool_links_are_followed_and_nothing_is_waited_for) {
  fs::create_symlink(victim(), root_ + "/name");
  const int fd = open_pool_file(root_ + "/name", O_RDONLY);
  EXPECT_LE(0, fd);
  ::close(fd);
  ASSERT_EQ(0, mkfifo((root_ + "/fifo").c_str(), 0600));
  EXPECT_EQ(-1, open_pool_file(root_ + "/fifo", O_RDONLY));
  EXPECT_EQ("it is no regular file", pool_file_error(errno));
}

} // namespace
