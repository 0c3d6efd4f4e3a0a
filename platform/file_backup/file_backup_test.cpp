#include "sdk/file_backup/file_backup.h"

#include "platform/file_backup/merge_lock.h"
#include "platform/file_backup/set_catalog.h"
#include "platform/file_backup/test_agent.h"
#include "testing/module/log_sink.h"

namespace {

class file_backup_services : public file_backup_test::Agent {
protected:
  std::string state_of(const std::string& uuid) {
    Set set;
    bool found = false;
    EXPECT_TRUE(store_->find_set(uuid, set, found, error_)) << error_;
    return found ? set.state : "none";
  }
  Set_Record record_of(const std::string& uuid) {
    Set_Record record;
    EXPECT_TRUE(read_set_record(pool_.set_folder(std::string(ACCOUNT) + "/" + RESOURCE + "/" + uuid), record, error_))
        << error_;
    return record;
  }
  module_testing::Log_Sink log_;
};

TEST_F(file_backup_services, a_pool_is_looked_up_by_uuid) {
  Pool_Info info;
  EXPECT_TRUE(get_pool_info(POOL, "", info));
  EXPECT_EQ(POOL, info.uuid);
  EXPECT_EQ("pool", info.name);
  EXPECT_EQ("file://" + folder_ + "/pool", info.location);
  EXPECT_FALSE(info.multidevice);
  EXPECT_EQ(ENCRYPTION_NONE, info.encryption);
  Pool_Info by_device;
  EXPECT_TRUE(get_pool_info("", POOL, by_device));
  EXPECT_EQ(POOL, by_device.uuid);
  std::string url;
  EXPECT_TRUE(get_url_by_pool_uuid(POOL, nullptr, url, false, nullptr));
  EXPECT_EQ(info.location, url);
  EXPECT_TRUE(log_.empty());

  EXPECT_FALSE(get_pool_info("unknown", POOL, info));
  EXPECT_FALSE(get_url_by_pool_uuid("unknown", nullptr, url, false, nullptr));
  EXPECT_EQ(2u, log_.count("'unknown'"));
}

TEST_F(file_backup_services, without_a_database_everything_fails_with_a_line) {
  Store::instance(nullptr);
  Pool_Info info;
  EXPECT_FALSE(get_pool_info(POOL, "", info));
  std::vector<std::string> list;
  std::string name;
  EXPECT_FALSE(file_backup::get_entries_from_backupd(RESOURCE, list, list, list, name));
  json_spirit::Object record;
  EXPECT_FALSE(file_backup::get_last_instance_info(RESOURCE, POOL, record, 0));
  EXPECT_EQ(3u, log_.count("database is not open"));
}

TEST_F(file_backup_services, mtf_uris_are_known_by_their_scheme) {
  EXPECT_TRUE(is_mtf_uri("mtf://h/x"));
  EXPECT_TRUE(is_mtf_uri("mtfs://h/x"));
  EXPECT_FALSE(is_mtf_uri("mtf:/h"));
  EXPECT_FALSE(is_mtf_uri("file:///mtf://"));
  EXPECT_FALSE(is_mtf_uri(""));
}

TEST_F(file_backup_services, a_selection_gives_its_paths_rules_and_name) {
  std::vector<std::string> entries, exclusions, inclusions;
  std::string name;
  ASSERT_TRUE(file_backup::get_entries_from_backupd(RESOURCE, entries, exclusions, inclusions, name));
  EXPECT_EQ((std::vector<std::string>{"/one/", "/two/\xff"}), entries);
  EXPECT_EQ((std::vector<std::string>{"*.tmp"}), exclusions);
  EXPECT_EQ((std::vector<std::string>{"keep.tmp"}), inclusions);
  EXPECT_EQ("selection", name);
  EXPECT_FALSE(file_backup::get_entries_from_backupd("unknown", entries, exclusions, inclusions, name));
  EXPECT_EQ(1u, log_.count("'unknown'"));
}

TEST_F(file_backup_services, no_set_means_an_empty_record) {
  EXPECT_TRUE(last_instance().empty());
  EXPECT_EQ(0u, clock_.sleeps);
}

TEST_F(file_backup_services, a_committed_set_is_the_last_instance) {
  ASSERT_TRUE(commit(write_set("a", 1, "2026-01-01 00:00:00")));
  const json_spirit::Object last = last_instance();
  EXPECT_EQ(1, json_spirit::find(last, "seq")->get_int());
  EXPECT_EQ(1, json_spirit::find(last, "channels")->get_int());
  EXPECT_EQ("a", json_spirit::require_str(last, "uuid"));
  EXPECT_EQ("a", json_spirit::require_str(last, "incarnation"));
  EXPECT_EQ("", json_spirit::require_str(last, "uri"));
  ASSERT_EQ(1u, json_spirit::find(last, "state")->get_array().size());
  EXPECT_EQ("online", json_spirit::find(last, "state")->get_array()[0].get_str());

  Set set;
  bool found = false;
  ASSERT_TRUE(store_->find_set("a", set, found, error_));
  ASSERT_TRUE(found);
  EXPECT_EQ(7u, set.objects);
  EXPECT_EQ(10u, set.source_size);
  EXPECT_EQ(ACCOUNT, set.account_uuid);
  const Set_Record record = record_of("a");
  EXPECT_EQ("a", record.incarnation);
  ASSERT_EQ(1u, record.media.size());
  EXPECT_EQ(77u, record.media[0].family);
  EXPECT_EQ(5u, record.media[0].size);
}

TEST_F(file_backup_services, an_incremental_keeps_its_number_and_names_its_base) {
  ASSERT_TRUE(commit(write_set("a", 1, "2026-01-01 00:00:00")));
  ASSERT_TRUE(commit(write_set("b", 2, "2026-01-02 00:00:00"), "a"));
  EXPECT_EQ((std::vector<std::string>{"a"}), record_of("b").bases);
  EXPECT_EQ(2u, record_of("b").seq);
  EXPECT_EQ("b", json_spirit::require_str(last_instance(), "uuid"));
}

TEST_F(file_backup_services, a_new_chain_takes_no_number_of_another) {
  ASSERT_TRUE(commit(write_set("a", 1, "2026-01-01 00:00:00")));
  ASSERT_TRUE(commit(write_set("b", 2, "2026-01-02 00:00:00"), "a"));
  ASSERT_TRUE(commit(write_set("c", 1, "2026-01-03 00:00:00")));
  EXPECT_EQ(3u, record_of("c").seq);
  std::string incarnation, uri;
  unsigned channels = 0;
  const auto uri_of = [&](unsigned seq) {
    uri.clear();
    EXPECT_TRUE(file_backup::get_incarnation(POOL, RESOURCE, seq, incarnation, channels, uri, 0)) << seq;
    return uri;
  };
  const std::string prefix = std::string(ACCOUNT) + "/" + RESOURCE + "/";
  EXPECT_EQ(prefix + "a", uri_of(1));
  EXPECT_EQ("a", incarnation);
  EXPECT_EQ(1u, channels);
  EXPECT_EQ(prefix + "b", uri_of(2));
  EXPECT_EQ(prefix + "c", uri_of(3));
  EXPECT_FALSE(file_backup::get_incarnation(POOL, RESOURCE, 4, incarnation, channels, uri, 0));
}

TEST_F(file_backup_services, no_set_is_committed_with_the_number_of_another) {
  ASSERT_TRUE(commit(write_set("a", 5, "2026-01-01 00:00:00"), "base"));
  ASSERT_TRUE(commit(write_set("b", 5, "2026-01-02 00:00:00"), "base"));
  EXPECT_EQ(6u, record_of("b").seq);
  // A set that is gone may come back.
  ASSERT_TRUE(store_->set_state("b", Set::STATE_GONE, error_));
  ASSERT_TRUE(commit(write_set("c", 5, "2026-01-03 00:00:00"), "a"));
  EXPECT_EQ(7u, record_of("c").seq);
}

TEST_F(file_backup_services, behind_the_last_number_a_new_chain_takes_a_free_one) {
  const auto seq_of_new = [this](const char* uuid, unsigned seq, const char* base = "") {
    EXPECT_TRUE(commit(write_set(uuid, seq, "2026-01-01 00:00:00"), base));
    return record_of(uuid).seq;
  };
  EXPECT_EQ(65534u, seq_of_new("a", 65534));
  EXPECT_EQ(65535u, seq_of_new("b", 65535, "a"));
  EXPECT_EQ(1u, seq_of_new("c", 1));
  EXPECT_EQ(2u, seq_of_new("d", 2, "c"));
  EXPECT_EQ(3u, seq_of_new("e", 1));
  EXPECT_EQ(4u, seq_of_new("f", 2, "e"));
}

TEST_F(file_backup_services, a_set_without_media_is_not_committed) {
  const file_backup::File_Metadata metadata = write_set("a", 1, "2026-01-01 00:00:00");
  const std::string medium = pool_.set_folder(metadata.set_uri) + "/channel-0000.mtf";
  std::filesystem::resize_file(medium, 4);
  EXPECT_FALSE(commit(metadata));
  EXPECT_EQ(1u, log_.count("has 4 bytes instead of 5"));
  std::filesystem::remove(medium);
  EXPECT_FALSE(commit(metadata));
  EXPECT_TRUE(last_instance().empty());
}

TEST_F(file_backup_services, incomplete_metadata_make_no_set) {
  const file_backup::File_Metadata whole = write_set("a", 1, "2026-01-01 00:00:00");
  file_backup::File_Backup_Set set;
  EXPECT_EQ(0, file_backup::build_file_catalog(whole, set));
  EXPECT_EQ("a", set.uuid);
  EXPECT_EQ(1u, set.seq);
  const auto refused = [&whole](auto change) {
    file_backup::File_Metadata metadata = whole;
    change(metadata);
    file_backup::File_Backup_Set unused;
    return file_backup::build_file_catalog(metadata, unused) != 0;
  };
  EXPECT_TRUE(refused([](auto& m) { m.uuid.clear(); }));
  EXPECT_TRUE(refused([](auto& m) { m.set_uri.clear(); }));
  EXPECT_TRUE(refused([](auto& m) { m.pool_uuid.clear(); }));
  EXPECT_TRUE(refused([](auto& m) { m.seq = 0; }));
  EXPECT_TRUE(refused([](auto& m) { m.channels = 2; }));
  EXPECT_TRUE(refused([](auto& m) { m.media[0] = "no object"; }));
  EXPECT_TRUE(refused([](auto& m) { m.media[0].get_obj().erase("size"); }));
}

TEST_F(file_backup_services, a_set_whose_row_was_lost_is_taken_up_by_the_next_run) {
  // The agent ended between the record and the row.
  ASSERT_TRUE(commit(write_set("a", 1, "2026-01-01 00:00:00")));
  ASSERT_TRUE(store_->remove_set("a", error_));
  EXPECT_EQ("a", json_spirit::require_str(last_instance(), "uuid"));
  EXPECT_EQ("online", state_of("a"));
}

TEST_F(file_backup_services, a_set_without_record_does_not_exist) {
  // The agent ended before the record.
  write_set("a", 1, "2026-01-01 00:00:00");
  EXPECT_TRUE(last_instance().empty());
  EXPECT_EQ("none", state_of("a"));
}

TEST_F(file_backup_services, a_commit_whose_row_fails_is_reported_and_made_good) {
  const file_backup::File_Metadata metadata = write_set("a", 1, "2026-01-01 00:00:00");
  file_backup::File_Backup_Set set;
  ASSERT_EQ(0, file_backup::build_file_catalog(metadata, set));
  set.incarnation = "a";
  Store::instance(nullptr);
  EXPECT_FALSE(Catalog_Operator(-1, -1).commit(set, true));
  EXPECT_EQ(1u, log_.count("Failed to commit set 'a'"));
  Store::instance(store_.get());
  ASSERT_TRUE(Catalog_Operator(-1, -1).commit(set, true));
  // Once more is the same set.
  ASSERT_TRUE(Catalog_Operator(-1, -1).commit(set, true));
  std::vector<Set> sets;
  ASSERT_TRUE(store_->sets(POOL, "", "", true, sets, error_));
  EXPECT_EQ(1u, sets.size());
}

TEST_F(file_backup_services, a_set_that_was_compared_with_nothing_has_no_base_and_goes_on_in_its_chain) {
  ASSERT_TRUE(commit(write_set("a", 1, "2026-01-01 00:00:00")));
  ASSERT_TRUE(commit(write_set("b", 2, "2026-01-02 00:00:00"), "a", false));
  const Set_Record record = record_of("b");
  EXPECT_TRUE(record.bases.empty());
  EXPECT_EQ("chain of a", record.incarnation);
  EXPECT_EQ(2u, record.seq);
}

TEST_F(file_backup_services, a_row_has_the_number_of_objects_that_the_catalog_has) {
  file_backup::File_Metadata metadata = write_set("a", 1, "2026-01-01 00:00:00");
  metadata.figures["saved"] = 3;
  metadata.figures["unchanged"] = 4;
  metadata.figures["objects"] = 9;
  ASSERT_TRUE(commit(metadata));
  metadata = write_set("of an older version", 2, "2026-01-02 00:00:00");
  metadata.figures["saved"] = 3;
  metadata.figures["unchanged"] = 4;
  ASSERT_TRUE(commit(metadata));
  // As from the run, so from the records alone.
  for (const bool afresh : {false, true}) {
    std::vector<Set> sets;
    if (afresh) {
      ASSERT_TRUE(store_->remove_set("a", error_));
      ASSERT_TRUE(store_->remove_set("of an older version", error_));
      ASSERT_FALSE(last_instance().empty());
    }
    ASSERT_TRUE(store_->sets(POOL, "", "", true, sets, error_));
    ASSERT_EQ(2u, sets.size());
    EXPECT_EQ(9u, sets[0].objects);
    EXPECT_EQ(7u, sets[1].objects);
  }
}

TEST_F(file_backup_services, a_row_without_set_is_marked_gone_and_comes_back) {
  const file_backup::File_Metadata metadata = write_set("a", 1, "2026-01-01 00:00:00");
  ASSERT_TRUE(commit(metadata));
  const std::string folder = pool_.set_folder(metadata.set_uri);
  std::filesystem::rename(folder, folder_ + "/away");
  EXPECT_TRUE(last_instance().empty());
  EXPECT_EQ("gone", state_of("a"));
  std::string incarnation, uri;
  unsigned channels = 0;
  EXPECT_FALSE(file_backup::get_incarnation(POOL, RESOURCE, 1, incarnation, channels, uri, 0));
  std::filesystem::rename(folder_ + "/away", folder);
  EXPECT_EQ("a", json_spirit::require_str(last_instance(), "uuid"));
  EXPECT_EQ("online", state_of("a"));
}

TEST_F(file_backup_services, a_record_that_cannot_be_read_changes_nothing) {
  const file_backup::File_Metadata metadata = write_set("a", 1, "2026-01-01 00:00:00");
  ASSERT_TRUE(commit(metadata));
  std::ofstream(pool_.set_folder(metadata.set_uri) + "/set.json") << "{ torn";
  EXPECT_EQ("a", json_spirit::require_str(last_instance(), "uuid"));
  EXPECT_EQ("online", state_of("a"));
  EXPECT_GE(log_.count("Something is wrong with a pool's sets"), 1u);
}

TEST_F(file_backup_services, sets_of_an_unknown_pool_come_back_oldest_first) {
  ASSERT_TRUE(commit(write_set("b", 1, "2026-01-01 00:00:00")));
  ASSERT_TRUE(commit(write_set("a", 2, "2026-01-02 00:00:00"), "b"));
  ASSERT_TRUE(store_->remove_set("a", error_));
  ASSERT_TRUE(store_->remove_set("b", error_));
  ASSERT_TRUE(store_->remove_account(ACCOUNT, error_)) << error_;
  ASSERT_TRUE(reconcile_sets(*store_, POOL, "", error_)) << error_;
  std::vector<Set> sets;
  ASSERT_TRUE(store_->sets(POOL, "", "", false, sets, error_));
  ASSERT_EQ(2u, sets.size());
  EXPECT_EQ("b", sets[0].uuid);
  EXPECT_EQ("a", sets[1].uuid);
}

TEST_F(file_backup_services, a_pool_that_cannot_be_read_is_retried_within_the_bound) {
  std::filesystem::rename(folder_ + "/pool", folder_ + "/away");
  json_spirit::Object record;
  EXPECT_FALSE(file_backup::get_last_instance_info(RESOURCE, POOL, record, 0));
  EXPECT_EQ(0u, clock_.sleeps);
  EXPECT_FALSE(file_backup::get_last_instance_info(RESOURCE, POOL, record, 30));
  EXPECT_GT(clock_.sleeps, 2u);
  EXPECT_GE(clock_.slept, 30u);
  EXPECT_LT(clock_.slept, 100u);
  EXPECT_EQ(2u, log_.count(LM_ERROR, "Failed to find the last set"));
  EXPECT_EQ(1u, log_.count(LM_INFO, "Retry(1)"));
}

TEST_F(file_backup_services, merging_is_told_by_the_merge_s_lock) {
  const std::string url = "file://" + folder_ + "/pool";
  EXPECT_FALSE(file_backup::is_merging(url, POOL, RESOURCE));
  const std::string lock_folder = merge_lock_folder(pool_.folder(), RESOURCE);
  std::filesystem::create_directories(lock_folder);
  EXPECT_FALSE(file_backup::is_merging(url, POOL, RESOURCE));
  Set_Lock lock;
  ASSERT_TRUE(lock.acquire(lock_folder, false, error_)) << error_;
  EXPECT_TRUE(file_backup::is_merging(url, POOL, RESOURCE));
  EXPECT_FALSE(file_backup::is_merging(url, POOL, "other"));
  EXPECT_FALSE(file_backup::is_merging(url, POOL, "../.merging/" + std::string(RESOURCE)));
  lock.release();
  EXPECT_FALSE(file_backup::is_merging(url, POOL, RESOURCE));
}

TEST_F(file_backup_services, a_rehearsal_is_due_until_its_set_was_rehearsed) {
  const std::string pool_uuid = POOL;
  file_backup::File_DR_Test_Context context;
  file_backup::load_dr_test_context("definition", context);
  ASSERT_TRUE(file_backup::get_dr_test_seqs(RESOURCE, context, 0, &pool_uuid));
  EXPECT_FALSE(context.update);

  ASSERT_TRUE(commit(write_set("a", 1, "2026-01-01 00:00:00")));
  ASSERT_TRUE(file_backup::get_dr_test_seqs(RESOURCE, context, 0, &pool_uuid));
  EXPECT_TRUE(context.update);
  EXPECT_EQ("a", context.uuid);
  EXPECT_EQ(1, context.seq);
  EXPECT_EQ(1, context.channels);
  EXPECT_EQ(pool_uuid, context.pool_uuid);
  EXPECT_EQ(ACCOUNT, context.host_uuid);
  EXPECT_EQ(1767225600, context.backup_time);
  file_backup::save_dr_test_context("definition", context);

  file_backup::File_DR_Test_Context later;
  file_backup::load_dr_test_context("definition", later);
  EXPECT_EQ("a", later.uuid);
  EXPECT_EQ(context.uri, later.uri);
  EXPECT_EQ(context.backup_time, later.backup_time);
  ASSERT_TRUE(file_backup::get_dr_test_seqs(RESOURCE, later, 0, nullptr));
  EXPECT_FALSE(later.update);
  ASSERT_TRUE(commit(write_set("b", 2, "2026-01-02 00:00:00"), "a"));
  ASSERT_TRUE(file_backup::get_dr_test_seqs(RESOURCE, later, 0, nullptr));
  EXPECT_TRUE(later.update);
  EXPECT_EQ("b", later.uuid);

  file_backup::File_DR_Test_Context other;
  file_backup::load_dr_test_context("other definition", other);
  EXPECT_TRUE(other.uuid.empty());
  ASSERT_TRUE(store_->put_note("dr_test", "definition", "{ torn", error_));
  file_backup::load_dr_test_context("definition", other);
  EXPECT_TRUE(other.uuid.empty());
  EXPECT_EQ(1u, log_.count("makes no sense"));
}

TEST_F(file_backup_services, set_from_before_the_rehearsed_one_is_not_rehearsed) {
  ASSERT_TRUE(commit(write_set("a", 1, "2026-01-01 00:00:00")));
  ASSERT_TRUE(commit(write_set("b", 2, "2026-01-02 00:00:00"), "a"));
  const std::string pool_uuid = POOL;
  file_backup::File_DR_Test_Context context;
  ASSERT_TRUE(file_backup::get_dr_test_seqs(RESOURCE, context, 0, &pool_uuid));
  EXPECT_EQ("b", context.uuid);
  ASSERT_TRUE(pool_.remove_set(std::string(ACCOUNT) + "/" + RESOURCE + "/b", error_)) << error_;
  ASSERT_TRUE(file_backup::get_dr_test_seqs(RESOURCE, context, 0, &pool_uuid));
  EXPECT_FALSE(context.update);
  EXPECT_EQ("b", context.uuid);

  // A later number with an earlier time is new: the clock was set back. So is an earlier number with a later time.
  context.backup_time = 1900000000;
  context.seq = 0;
  ASSERT_TRUE(file_backup::get_dr_test_seqs(RESOURCE, context, 0, &pool_uuid));
  EXPECT_TRUE(context.update);
  context.uuid = "other";
  context.backup_time = 0;
  context.seq = 65535;
  ASSERT_TRUE(file_backup::get_dr_test_seqs(RESOURCE, context, 0, &pool_uuid));
  EXPECT_TRUE(context.update);
  // What was rehearsed of another selection says nothing about this one.
  context.minor_resource_id = "other";
  context.uuid = "other";
  context.backup_time = 1900000000;
  ASSERT_TRUE(file_backup::get_dr_test_seqs(RESOURCE, context, 0, &pool_uuid));
  EXPECT_TRUE(context.update);
}

} // namespace
