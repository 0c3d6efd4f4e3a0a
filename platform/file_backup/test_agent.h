#pragma once

#include "platform/pool/pool.h"
#include "platform/store/store.h"
#include "sdk/base/clock.h"
#include "sdk/file_backup/file_backup.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace file_backup_test {

/// Waits take no time and are counted.
class Counting_Clock : public Clock {
public:
  Counting_Clock() : before_(Clock::instance(this)) {}
  ~Counting_Clock() override { Clock::instance(before_); }
  time_t now() override { return 1700000000 + static_cast<time_t>(slept); }
  ACE_Time_Value monotonic() override { return ACE_Time_Value(static_cast<time_t>(slept)) + waited; }
  void sleep(unsigned seconds) override {
    ++sleeps;
    slept += seconds;
  }
  void wait(std::unique_lock<std::mutex>&, std::condition_variable&, const ACE_Time_Value& time) override {
    waited += time;
  }
  ACE_Time_Value waited;
  unsigned long long slept = 0;
  unsigned sleeps = 0;

private:
  Clock* before_;
};

/// A state folder with an account, a selection and a pool.
class Agent : public testing::Test {
protected:
  static constexpr const char* ACCOUNT = "11111111-1111-4111-8111-111111111111";
  static constexpr const char* RESOURCE = "22222222-2222-4222-8222-222222222222";
  static constexpr const char* POOL = "33333333-3333-4333-8333-333333333333";

  Agent() {
    char name[] = "/tmp/file_backup_test.XXXXXX";
    folder_ = ::mkdtemp(name);
    store_ = Store::open(folder_ + "/state", error_);
    Store::instance(store_.get());
  }
  ~Agent() override {
    Store::instance(nullptr);
    store_.reset();
    std::filesystem::remove_all(folder_);
  }
  void SetUp() override {
    ASSERT_TRUE(store_) << error_;
    Account account;
    account.uuid = ACCOUNT;
    account.name = "account";
    account.scheme = "https";
    account.endpoint = "s3.example:9000";
    account.access_key = "access";
    account.secret_key = "obs1:sealed";
    account.region = "region";
    account.vendor = "vendor";
    account.sign_method = "v2";
    account.addressing = "virtual";
    account.ca_file = "/ca.pem";
    account.buckets = {"one", "two"};
    ASSERT_TRUE(store_->add_account(account, error_)) << error_;
    Selection selection;
    selection.uuid = RESOURCE;
    selection.account_uuid = ACCOUNT;
    selection.name = "selection";
    selection.paths = {"/one/", "/two/\xff"};
    selection.exclusions = {"*.tmp"};
    selection.inclusions = {"keep.tmp"};
    ASSERT_TRUE(store_->add_selection(selection, error_)) << error_;
    Pool_Entry entry;
    entry.uuid = POOL;
    entry.name = "pool";
    entry.url = "file://" + folder_ + "/pool";
    ASSERT_TRUE(store_->add_pool(entry, error_)) << error_;
    ASSERT_TRUE(Pool::create(entry.url, POOL, error_)) << error_;
    ASSERT_TRUE(Pool::open(entry.url, POOL, pool_, error_)) << error_;
  }

  /// What an engine leaves of a set: a folder with one medium, and metadata.
  file_backup::File_Metadata write_set(const std::string& uuid, unsigned seq, const std::string& start) {
    file_backup::File_Metadata metadata;
    metadata.pool_uuid = POOL;
    metadata.host_uuid = ACCOUNT;
    metadata.minor_resource_id = RESOURCE;
    metadata.minor_resource_name = "selection";
    metadata.resource_uuid = ACCOUNT;
    metadata.definition_uuid = RESOURCE;
    metadata.uuid = uuid;
    metadata.name = "account: selection";
    metadata.agent = "agent";
    metadata.host = "machine";
    metadata.type = "full";
    metadata.start_time = start;
    metadata.end_time = start;
    metadata.encryption = "none";
    metadata.source_size = 10;
    metadata.backup_set_size = 11;
    metadata.backup_set_storage_size = 12;
    metadata.seq = seq;
    metadata.channels = 1;
    metadata.set_uri = std::string(ACCOUNT) + "/" + RESOURCE + "/" + uuid;
    json_spirit::Object medium;
    medium["name"] = "channel-0000.mtf";
    medium["size"] = 5;
    medium["family"] = 77;
    metadata.media.push_back(medium);
    metadata.figures["saved"] = 3;
    metadata.figures["unchanged"] = 4;
    EXPECT_TRUE(pool_.make_set_folder(metadata.set_uri, error_)) << error_;
    std::ofstream(pool_.set_folder(metadata.set_uri) + "/channel-0000.mtf") << "12345";
    return metadata;
  }

  /// `opened`: the run could compare with the `base`.
  bool commit(file_backup::File_Metadata metadata, const std::string& base = std::string(), bool opened = true) {
    file_backup::File_Backup_Set set;
    metadata.base_uuid = opened ? base : std::string();
    EXPECT_EQ(0, file_backup::build_file_catalog(metadata, set));
    set.incarnation = base.empty() ? metadata.uuid : "chain of " + base;
    if (!base.empty())
      set.bases.push_back(base);
    return Catalog_Operator(-1, -1).commit(set, true);
  }

  json_spirit::Object last_instance() {
    json_spirit::Object record;
    EXPECT_TRUE(file_backup::get_last_instance_info(RESOURCE, POOL, record, 0));
    return record;
  }

  std::string folder_;
  std::string error_;
  std::unique_ptr<Store> store_;
  Pool pool_;
  Counting_Clock clock_;
};

} // namespace file_backup_test
