#include "platform/pool/known_pool.h"

#include "platform/pool/pool.h"
#include "platform/store/store.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace fs = std::filesystem;

namespace {

/// A pool that is made known in a database, and what somebody may write over its file.
class Known_Pools : public testing::Test {
protected:
  void SetUp() override {
    char name[] = "/tmp/known_pool_test.XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(name));
    folder_ = name;
    url_ = "file://" + folder_ + "/pool";
    store_ = Store::open(folder_ + "/state", error_);
    ASSERT_TRUE(store_) << error_;
    Store::instance(store_.get());
  }
  void TearDown() override {
    Store::instance(nullptr);
    store_.reset();
    fs::remove_all(folder_);
  }

  bool open() {
    Pool pool;
    return Pool::open(url_, "uuid", pool, error_);
  }
  /// Makes the pool known and uses it once.
  void make_known(const json_spirit::Object& json) {
    fs::create_directories(folder_ + "/pool");
    file(json);
    Pool_Entry entry;
    entry.uuid = "uuid";
    entry.name = "disk";
    entry.url = url_;
    entry.encrypt = json_spirit::require_str(json, "encryption") != "none";
    ASSERT_TRUE(store_->add_pool(entry, error_)) << error_;
    ASSERT_TRUE(open()) << error_;
  }
  void file(const json_spirit::Object& json) const {
    std::ofstream(folder_ + "/pool/pool.json") << json_spirit::write(json);
  }
  static json_spirit::Object plain() {
    json_spirit::Object json;
    json["uuid"] = "uuid";
    json["format"] = 1;
    json["encryption"] = "none";
    return json;
  }
  static json_spirit::Object encrypted(const std::string& check) {
    json_spirit::Object json;
    json["uuid"] = "uuid";
    json["format"] = 2;
    json["encryption"] = "aes-256-gcm";
    json["key_check"] = check;
    json["key"] = json_spirit::Object();
    return json;
  }
  void expect_refused(const std::string& why) {
    EXPECT_FALSE(open());
    EXPECT_NE(std::string::npos, error_.find("is refused: " + why)) << error_;
  }

  std::string folder_, url_, error_;
  std::unique_ptr<Store> store_;
};

TEST_F(Known_Pools, encrypted_pool_that_turned_plain_is_refused) {
  make_known(encrypted("0123456789abcdef"));
  file(plain());
  expect_refused("it was encrypted");
  // The right file makes it usable again.
  file(encrypted("0123456789abcdef"));
  EXPECT_TRUE(open()) << error_;
}

TEST_F(Known_Pools, pool_of_an_earlier_version_is_known_by_its_row) {
  make_known(encrypted("0123456789abcdef"));
  ASSERT_TRUE(forget_known_pool(*store_, "uuid", error_)) << error_;
  file(plain());
  expect_refused("it was encrypted when it was made known here");
}

TEST_F(Known_Pools, pool_with_another_key_is_refused) {
  make_known(encrypted("0123456789abcdef"));
  file(encrypted("0123456789abcdee"));
  expect_refused("it has another key");
}

TEST_F(Known_Pools, plain_pool_that_turned_encrypted_is_refused) {
  make_known(plain());
  file(encrypted("0123456789abcdef"));
  expect_refused("it was not encrypted");
}

TEST_F(Known_Pools, pool_of_an_older_format_than_before_is_refused) {
  make_known(encrypted("0123456789abcdef"));
  json_spirit::Object older = encrypted("0123456789abcdef");
  older["format"] = 1;
  file(older);
  expect_refused("it is of format 1, and was of format 2");
}

TEST_F(Known_Pools, pool_that_is_not_made_known_leaves_nothing) {
  fs::create_directories(folder_ + "/pool");
  file(plain());
  EXPECT_TRUE(open()) << error_;
  file(encrypted("0123456789abcdef"));
  EXPECT_TRUE(open()) << error_;
}

TEST_F(Known_Pools, forgotten_pool_may_be_taken_up_as_it_is) {
  make_known(encrypted("0123456789abcdef"));
  file(plain());
  EXPECT_FALSE(open());
  ASSERT_TRUE(store_->remove_pool("uuid", error_) && forget_known_pool(*store_, "uuid", error_)) << error_;
  EXPECT_TRUE(open()) << error_;
}

} // namespace
