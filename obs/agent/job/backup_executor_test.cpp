#include "obs/agent/job/backup_executor.h"

#include "obs/agent/job/obs_backup_callback.h"
#include "sdk/job/host_manager.h"
#include "sdk/mtf/file_attributes.h"
#include "testing/module/attributed_service.h"
#include "testing/module/executor_fixture.h"

using json_spirit::Array;
using json_spirit::Object;
using module_testing::fake_client;

namespace {

typedef std::vector<std::string> Texts;

struct Open_Executor : OBS_Backup_Executor {
  using OBS_Backup_Executor::execute_i;
  using OBS_Backup_Executor::execute_post_action;
  using OBS_Backup_Executor::execute_pre_action;
  using OBS_Backup_Executor::OBS_Backup_Executor;
};

struct backup_executor : module_testing::Executor_Fixture {
  backup_executor() {
    settings.type = JOB_DEFINITION_BACKUP;
    settings.subtype = JOB_DEFINITION_SUBTYPE_INCREMENTAL;
    platform().entries = {"/b/"};
    options->channels_ = 3;
    source->id("source");
    source->minor_resource_id_ = "resource";
    source->minor_resource_name_ = "name";
  }

  static Object instance(ACE_INT64 seq, const Array& state) {
    return Object{{"seq", seq},         {"state", state}, {"incarnation", "chain"},
                  {"uuid", "previous"}, {"channels", 5},  {"uri", "account/resource/previous"}};
  }

  bool run() {
    executor.reset(new Open_Executor(make_job(source.release(), options.release())));
    return executor->execute_i(nullptr);
  }
  bool engine_called(const std::string& call) { return platform().called("engine." + call); }
  /// Whether the steps from there on were not reached.
  bool engine_made() { return engine_called("make(true)"); }

  // The definition's, once it is made.
  std::unique_ptr<OBS_Backup_Job_Source> source = std::make_unique<OBS_Backup_Job_Source>();
  std::unique_ptr<OBS_Backup_Job_Options> options = std::make_unique<OBS_Backup_Job_Options>();
  std::unique_ptr<Open_Executor> executor;
};

TEST_F(backup_executor, whole_run_goes_in_order) {
  platform().merging = 1;
  ASSERT_TRUE(run());
  EXPECT_EQ((Texts{"mutex(resource)",
                   "mutex.acquire",
                   "get_pool_info(pool,device,false,0,false,true,false,false,false)",
                   "is_merging(file:///pool,pool,resource)",
                   "is_merging(file:///pool,pool,resource)",
                   "get_last_instance_info(resource,pool,0)",
                   "get_entries_from_backupd(resource)",
                   "engine.make(true)",
                   "engine.add_source(/b/)",
                   "make_filter()",
                   "engine.action_handler(true)",
                   "engine.callback_factory(true)",
                   "engine.filter(true)",
                   "engine.pool_uuid(pool)",
                   "engine.device_uuid(device)",
                   "engine.host_uuid(account)",
                   "engine.minor_resource_id(resource)",
                   "engine.uuid(activity)",
                   "engine.seq(0)",
                   "engine.channel_num(3)",
                   "engine.compression(0)",
                   "engine.compression_level(1)",
                   "engine.extra_client_io_opts()",
                   "engine.extra_client_io_opts()",
                   "engine.uri_prefix(account/resource/activity)",
                   "engine.incremental(false)",
                   "engine.backup()",
                   "build_file_catalog()",
                   "Catalog_Operator(-1,-1)",
                   "commit(activity,true)",
                   "mutex.release"}),
            platform().calls);
  EXPECT_EQ((Texts{"{\"uuid\":\"account\"}"}), entries.asked);
  EXPECT_EQ((std::vector<unsigned>{30}), clock.sleeps());
  EXPECT_EQ(1u, log.count(LM_DEBUG, "OBS resource is merging, retry backup after 30 seconds.\n"));
  EXPECT_EQ("[\"/b/\"]", json_spirit::write(job->results().at("source_entries")));
  EXPECT_EQ("activity", platform().set_incarnation);
  EXPECT_TRUE(platform().set_bases.empty());
  EXPECT_TRUE(alerts().empty());
}

TEST_F(backup_executor, optional_settings_reach_the_engine_where_they_are_set) {
  platform().last_record = instance(4, {"online"});
  options->cache_dir_ = "/cache";
  options->scan_file_threads_ = 2;
  options->compression_ = COMPR_ZSTD;
  options->compression_level_ = 9;
  ASSERT_TRUE(run());
  const Texts calls = platform().engine_calls();
  ASSERT_LT(6u, calls.size());
  EXPECT_EQ((Texts{"uri_prefix(account/resource/previous)", "base_seq(4)", "cache_path(/cache)", "scan_fs_threads(2)",
                   "incremental(true)", "backup()"}),
            Texts(calls.end() - 6, calls.end()));
  EXPECT_TRUE(engine_called("compression(3)"));
  EXPECT_TRUE(engine_called("compression_level(9)"));
  EXPECT_EQ("chain", platform().set_incarnation);
  EXPECT_EQ((std::list<std::string>{"previous"}), platform().set_bases);
}

TEST_F(backup_executor, one_scan_thread_keeps_the_engines_number) {
  options->scan_file_threads_ = 1;
  ASSERT_TRUE(run());
  EXPECT_FALSE(engine_called("scan_fs_threads(1)"));
}

struct Decision {
  const char* name;
  Job_Definition_Subtype subtype;
  Object record;
  size_t channels_option;
  const char* channels;
  const char* seq;
  const char* prefix;
  const char* kind;
};

TEST_F(backup_executor, full_or_incremental_is_decided_from_the_last_set) {
  const auto instance = backup_executor::instance;
  Object bare = instance(4, {"online"});
  bare.erase("uri");
  Object words = instance(4, {"offline", 5, "ONLINE"});
  Object no_state = instance(4, {"online"});
  no_state.erase("state");
  const char* const fresh = "account/resource/activity";
  const char* const kept = "account/resource/previous";
  const Decision table[] = {
      {"full as asked", JOB_DEFINITION_SUBTYPE_FULL, instance(4, {"online"}), 3, "3", "0", fresh, "false"},
      {"full without a number", JOB_DEFINITION_SUBTYPE_FULL, instance(4, {"online"}), 0, "1", "0", fresh, "false"},
      {"no set yet", JOB_DEFINITION_SUBTYPE_INCREMENTAL, Object(), 3, "3", "0", fresh, "false"},
      {"no set yet, no number", JOB_DEFINITION_SUBTYPE_INCREMENTAL, Object(), 0, "1", "0", fresh, "false"},
      {"incremental", JOB_DEFINITION_SUBTYPE_INCREMENTAL, instance(4, {"x", "online"}), 3, "5", "4", kept, "true"},
      {"merge", JOB_DEFINITION_SUBTYPE_MERGE, instance(4, {"online"}), 3, "5", "4", kept, "true"},
      {"without uri", JOB_DEFINITION_SUBTYPE_INCREMENTAL, bare, 3, "5", "4", "account/resource/", "true"},
      {"seq 0", JOB_DEFINITION_SUBTYPE_INCREMENTAL, instance(0, {"online"}), 3, "5", "0", fresh, "false"},
      {"seq 65534", JOB_DEFINITION_SUBTYPE_INCREMENTAL, instance(65534, {"online"}), 3, "5", "65534", kept, "true"},
      {"seq 65535", JOB_DEFINITION_SUBTYPE_INCREMENTAL, instance(65535, {"online"}), 3, "5", "0", fresh, "false"},
      {"seq 65536", JOB_DEFINITION_SUBTYPE_INCREMENTAL, instance(65536, {"online"}), 3, "5", "65536", kept, "true"},
      {"other states", JOB_DEFINITION_SUBTYPE_INCREMENTAL, words, 3, "5", "0", fresh, "false"},
      {"no state", JOB_DEFINITION_SUBTYPE_INCREMENTAL, no_state, 3, "5", "0", fresh, "false"},
      {"merge forced", JOB_DEFINITION_SUBTYPE_MERGE, words, 3, "5", "0", fresh, "false"},
      {"cumulative forced", JOB_DEFINITION_SUBTYPE_CUMULATIVE, Object(), 3, "3", "0", fresh, "false"},
  };
  for (const Decision& row : table) {
    SCOPED_TRACE(row.name);
    platform().calls.clear();
    platform().last_record = row.record;
    settings.subtype = row.subtype;
    source = std::make_unique<OBS_Backup_Job_Source>();
    source->minor_resource_id_ = "resource";
    options = std::make_unique<OBS_Backup_Job_Options>();
    options->channels_ = row.channels_option;
    ASSERT_TRUE(run());
    EXPECT_TRUE(engine_called(std::string("channel_num(") + row.channels + ")"));
    EXPECT_TRUE(engine_called(std::string("seq(") + row.seq + ")"));
    EXPECT_TRUE(engine_called(std::string("uri_prefix(") + row.prefix + ")"));
    EXPECT_TRUE(engine_called(std::string("incremental(") + row.kind + ")"));
    EXPECT_EQ(std::string(row.seq) != "0", engine_called(std::string("base_seq(") + row.seq + ")"));
    const bool full = std::string(row.kind) == "false";
    EXPECT_EQ(full ? "full" : job_def_subtype_to_string(row.subtype), platform().metadata.type);
    Job::current(previous_job);
  }
}

TEST_F(backup_executor, cumulative_is_refused_when_the_engine_is_configured_but_not_run) {
  settings.subtype = JOB_DEFINITION_SUBTYPE_CUMULATIVE;
  platform().last_record = instance(4, {"online"});
  EXPECT_FALSE(run());
  EXPECT_EQ(1u, log.count(LM_ERROR, "Invalid job type: 3\n"));
  EXPECT_TRUE(engine_called("base_seq(4)"));
  EXPECT_FALSE(engine_called("backup()"));
}

TEST_F(backup_executor, mutex_that_cannot_be_had_fails_silently) {
  platform().mutex = false;
  EXPECT_FALSE(run());
  EXPECT_EQ((Texts{"mutex(resource)", "mutex.acquire"}), platform().calls);
  EXPECT_EQ(0u, log.count(LM_ERROR, ""));
}

TEST_F(backup_executor, missing_pool_is_an_alert) {
  platform().pool = false;
  EXPECT_FALSE(run());
  EXPECT_EQ(1u, log.count(LM_ERROR, "Failed to get pool info with, pool_uuid='pool', device uuid='device'\n"));
  EXPECT_EQ((Texts{"7000100000000030 [\"pool\"] 1"}), alerts());
  EXPECT_EQ("mutex.release", platform().calls.back());
}

TEST_F(backup_executor, pool_location_that_is_no_uri_fails) {
  platform().pool_info.location = "nowhere";
  EXPECT_FALSE(run());
  EXPECT_EQ(1u, log.count(LM_ERROR, "Failed to parse 'nowhere'\n"));
}

TEST_F(backup_executor, merge_is_waited_for_without_bound) {
  platform().merging = 1000;
  EXPECT_TRUE(run());
  EXPECT_EQ(1000u, clock.sleeps().size());
}

TEST_F(backup_executor, cancelled_job_waits_for_a_merge_as_well) {
  platform().merging = 50;
  clock.on_sleep([this](unsigned) {
    job->activity().state = JOB_STATE_CANCELING;
    EXPECT_EQ(nullptr, Job::current()) << "the clock would cut the sleep short";
  });
  EXPECT_TRUE(run());
  EXPECT_EQ(std::vector<unsigned>(50, 30), clock.sleeps());
  EXPECT_EQ(50u, log.count(LM_DEBUG, "OBS resource is merging, retry backup after 30 seconds.\n"));
  EXPECT_EQ(job.get(), Job::current());
}

TEST_F(backup_executor, unknown_last_set_fails) {
  platform().last_instance = false;
  EXPECT_FALSE(run());
  EXPECT_EQ(1u, log.count(LM_ERROR, "Failed to get last instance info.\n"));
  EXPECT_TRUE(entries.asked.empty());
  EXPECT_EQ("get_last_instance_info(resource,pool,0)", platform().calls.end()[-2]);
}

TEST_F(backup_executor, unknown_account_fails) {
  entries.refuse = true;
  EXPECT_FALSE(run());
  EXPECT_EQ(1u, log.count(LM_ERROR, "Failed to get obs entry with uuid 'account'.\n"));
  EXPECT_FALSE(platform().called("get_entries_from_backupd(resource)"));
  EXPECT_EQ(0, hook.made);
  EXPECT_FALSE(engine_made());
}

TEST_F(backup_executor, exception_of_another_step_is_not_told_as_the_accounts) {
  platform().on_run = [] { throw std::runtime_error("no such luck"); };
  EXPECT_FALSE(run());
  EXPECT_EQ(1u, log.count(LM_ERROR, "Backup ended: no such luck.\n"));
  EXPECT_EQ(0u, log.count("Obs entry exception"));
  EXPECT_EQ("mutex.release", platform().calls.back());
}

TEST_F(backup_executor, unknown_entries_fail_silently) {
  platform().entries_found = false;
  EXPECT_FALSE(run());
  EXPECT_EQ(0u, log.count(LM_ERROR, ""));
  EXPECT_EQ(0, hook.made);
}

TEST_F(backup_executor, buckets_of_all_entries_are_tried) {
  platform().entries = {"/b/x/", "/", "/b/", "/c/k"};
  service->buckets = {};
  EXPECT_FALSE(run());
  std::sort(service->asked_buckets.begin(), service->asked_buckets.end());
  EXPECT_EQ((Texts{"b", "c"}), service->asked_buckets);
}

TEST_F(backup_executor, failed_connection_is_the_jobs_error) {
  service->buckets = {};
  EXPECT_FALSE(run());
  EXPECT_EQ("70000031E0100001 [\"Failed to get all buckets, errcode: NoSuchBucket.\"]", last_error());
  EXPECT_EQ(1700000000, job->last_error().time);
  EXPECT_EQ(1u, log.count(LM_ERROR, "Failed to get all buckets, errcode: NoSuchBucket.\n"));
  EXPECT_FALSE(engine_made());
}

TEST_F(backup_executor, factory_connects_to_the_account_and_keeps_to_its_buckets) {
  entries.entry["endpoint"] = "s3.test:81";
  entries.entry["region"] = "r";
  entries.entry["vendor"] = "v";
  entries.entry["sign_method"] = "v2";
  entries.entry["extended_attrs"] = Object{{"buckets", Array{"b", 5, "c"}}};
  settings.max_seconds_retry = 77;
  options->list_cache_limits_ = 500000;
  ASSERT_TRUE(run());
  EXPECT_EQ((std::set<std::string>{"b", "c"}),
            dynamic_cast<OBS_Backup_Callback_Factory&>(*platform().backup_factory).buckets());
  const MTF::IBackup_Callback_var callback = platform().backup_factory->make();
  ASSERT_FALSE(callback.null());
  EXPECT_EQ((Texts{"http s3.test 81 plain direct ak plain sk r v v2 77"}), fake_client().connections);
  EXPECT_EQ(500000u, dynamic_cast<OBS_Backup_Callback&>(*callback).cache_limit());
}

TEST_F(backup_executor, readers_ask_for_what_the_job_wishes_of_attributes) {
  const auto attributed = std::make_shared<module_testing::Attributed_Service>(fake_client().store);
  fake_client().store.put_data("b", "k", "content");
  fake_client().makes = [&] { return attributed; };
  for (const bool tags : {false, true}) {
    for (const bool acl : {false, true}) {
      options = std::make_unique<OBS_Backup_Job_Options>();
      options->tags_ = tags;
      options->acl_ = acl;
      source = std::make_unique<OBS_Backup_Job_Source>();
      ASSERT_TRUE(run());
      attributed->asked.clear();
      const MTF::IFile_Reader_var reader = platform().backup_factory->make()->make_file_reader();
      ASSERT_EQ(0, reader->open("/b/k"));
      MTF::File_Attributes told;
      Texts problems;
      dynamic_cast<MTF::IFile_Attributes_Source&>(*reader).attributes(told, problems);
      Texts asked;
      if (tags)
        asked.push_back("tags b|k");
      if (acl)
        asked.push_back("acl b|k");
      EXPECT_EQ(asked, attributed->asked);
      Job::current(previous_job);
    }
  }
}

TEST_F(backup_executor, own_rules_count_where_the_resource_has_no_exclusions) {
  options->exclusion_ = {"e"};
  options->inclusion_ = {"i"};
  platform().inclusions = {"theirs"};
  ASSERT_TRUE(run());
  EXPECT_EQ((Texts{"e"}), platform().filter_exclusions);
  EXPECT_EQ((Texts{"theirs", "i"}), platform().filter_inclusions);
}

TEST_F(backup_executor, exclusions_of_the_resource_leave_the_own_inclusions_out_too) {
  options->exclusion_ = {"e"};
  options->inclusion_ = {"i"};
  platform().exclusions = {"theirs"};
  ASSERT_TRUE(run());
  EXPECT_EQ((Texts{"theirs"}), platform().filter_exclusions);
  EXPECT_TRUE(platform().filter_inclusions.empty());
}

TEST_F(backup_executor, rules_that_make_no_filter_fail) {
  platform().filter = false;
  EXPECT_FALSE(run());
  EXPECT_EQ(1u, log.count(LM_ERROR, "Failed to make filter\n"));
  EXPECT_FALSE(engine_called("backup()"));
}

TEST_F(backup_executor, filter_of_the_rules_is_the_engines) {
  ASSERT_TRUE(run());
  EXPECT_NE(nullptr, platform().made_filter);
  EXPECT_EQ(platform().made_filter, platform().engine_filter);
}

TEST_F(backup_executor, engine_begins_with_the_metadata_of_the_activity) {
  platform().on_call = [this](const std::string& call) {
    if (call == "get_pool_info(pool,device,false,0,false,true,false,false,false)") {
      job->activity().start_time = 86400;
      job->activity().end_time = 172801;
    }
  };
  ASSERT_TRUE(run());
  EXPECT_EQ("1970-01-02 00:00:00", platform().engine_metadata.start_time);
  EXPECT_EQ("1970-01-03 00:00:01", platform().engine_metadata.end_time);
  EXPECT_EQ("activity", platform().engine_metadata.uuid);
  EXPECT_EQ("1970-01-02 00:00:00", platform().metadata.start_time);
  EXPECT_EQ(Host_Manager::instance()->name(), platform().metadata.host);
}

TEST_F(backup_executor, pool_with_an_encryption_that_nobody_knows_is_called_none) {
  platform().pool_info.encryption = static_cast<Encryption_Algorithm>(77);
  ASSERT_TRUE(run());
  EXPECT_EQ("none", platform().metadata.encryption);
}

TEST_F(backup_executor, wait_of_the_definition_bounds_every_lookup) {
  settings.max_seconds_retry = 77;
  entries.refuse = true;
  EXPECT_FALSE(run());
  EXPECT_TRUE(platform().called("get_last_instance_info(resource,pool,77)"));
  unsigned waited = 0;
  for (const unsigned seconds : clock.sleeps())
    waited += seconds;
  EXPECT_GE(waited, 77u);
  EXPECT_LT(waited, 77u + 60u);
}

TEST_F(backup_executor, entries_are_published_when_the_connection_stands_and_before_the_engine_is_made) {
  bool published = false;
  platform().on_call = [&](const std::string& call) {
    if (call == "engine.make(true)")
      published = job->results().count("source_entries") == 1;
  };
  ASSERT_TRUE(run());
  EXPECT_TRUE(published);
}

TEST_F(backup_executor, entries_without_a_connection_are_not_published) {
  service->buckets = {};
  EXPECT_FALSE(run());
  EXPECT_EQ(0u, job->results().count("source_entries"));
}

TEST_F(backup_executor, engine_gets_the_actions_of_the_definition_with_the_jobs_log) {
  settings.pre_action = "echo before";
  ASSERT_TRUE(run());
  EXPECT_EQ("before\n", lines_of_the_pre_action());
}

TEST_F(backup_executor, host_gives_the_channels_its_key) {
  ASSERT_TRUE(run());
  EXPECT_EQ("key of the host", platform().io_options.access_key);
}

TEST_F(backup_executor, metadata_says_what_was_backed_up) {
  platform().pool_info.multidevice = true;
  platform().pool_info.encryption = ENCRYPTION_AES_256_GCM;
  platform().minor_resource_name = "found name";
  platform().size = 1;
  platform().set_size = 2;
  platform().set_storage_size = 3;
  platform().on_run = [this] { clock.advance(60); };
  ASSERT_TRUE(run());
  const file_backup::File_Metadata& metadata = platform().metadata;
  EXPECT_EQ("pool", metadata.pool_uuid);
  EXPECT_EQ("account", metadata.host_uuid);
  EXPECT_EQ("def", metadata.definition_uuid);
  EXPECT_EQ("activity", metadata.uuid);
  EXPECT_EQ("account/resource/activity", metadata.uri);
  EXPECT_EQ("agent", metadata.agent);
  EXPECT_FALSE(metadata.host.empty());
  EXPECT_EQ("nightly", metadata.name);
  EXPECT_EQ("full", metadata.type);
  EXPECT_EQ("1970-01-01 00:00:00", metadata.start_time);
  EXPECT_EQ("2023-11-14 22:14:20", metadata.end_time);
  EXPECT_EQ("source", metadata.resource_uuid);
  EXPECT_EQ("resource", metadata.minor_resource_id);
  EXPECT_EQ("found name", metadata.minor_resource_name);
  EXPECT_EQ("uid", metadata.uid);
  EXPECT_EQ("file", metadata.pool_type);
  EXPECT_TRUE(metadata.multidevice);
  EXPECT_EQ("aes-256-gcm", metadata.encryption);
  EXPECT_EQ(1u, metadata.source_size);
  EXPECT_EQ(2u, metadata.backup_set_size);
  EXPECT_EQ(3u, metadata.backup_set_storage_size);
}

TEST_F(backup_executor, pool_without_encryption_is_called_none) {
  ASSERT_TRUE(run());
  EXPECT_EQ("none", platform().metadata.encryption);
}

TEST_F(backup_executor, job_settings_reach_the_channels) {
  settings.max_seconds_retry = 12;
  settings.rate_limit = 300;
  ASSERT_TRUE(run());
  EXPECT_EQ(12, platform().io_options.max_seconds_retry);
  EXPECT_EQ(100u, platform().io_options.channel_rate_limit);
}

TEST_F(backup_executor, nothing_backed_up_is_the_jobs_error) {
  platform().err_code = MTF::E_NO_FILES_BACKUPED;
  platform().engine = false;
  platform().on_run = [this] { clock.advance(60); };
  EXPECT_FALSE(run());
  EXPECT_EQ("70000031E0100002 []", last_error());
  EXPECT_EQ(1700000060, job->last_error().time);
  EXPECT_TRUE(alerts().empty());
  EXPECT_FALSE(platform().called("build_file_catalog()"));
}

TEST_F(backup_executor, skipped_objects_are_an_alert_with_their_number) {
  platform().err_code = MTF::E_END_WITH_SKIPPED_FILES;
  platform().skipped_files = 4;
  EXPECT_TRUE(run());
  EXPECT_EQ((Texts{"50000031E0100003 [4] 1"}), alerts());
}

TEST_F(backup_executor, engine_without_its_pool_is_an_alert_without_parameters) {
  platform().err_code = MTF::E_GET_POOL_INFO;
  platform().engine = false;
  EXPECT_FALSE(run());
  EXPECT_EQ((Texts{"7000100000000030 [] 1"}), alerts());
}

TEST_F(backup_executor, incomplete_catalog_fails_silently) {
  platform().catalog = 1;
  EXPECT_FALSE(run());
  EXPECT_EQ(0u, log.count(LM_ERROR, ""));
  EXPECT_FALSE(platform().called("commit(activity,true)"));
}

TEST_F(backup_executor, catalog_that_is_not_committed_is_an_alert) {
  platform().commit = false;
  EXPECT_FALSE(run());
  EXPECT_EQ(1u, log.count(LM_ERROR, "Failed to write catalog to backupd\n"));
  EXPECT_EQ((Texts{"700010000000002D [] 1"}), alerts());
}

TEST_F(backup_executor, missing_options_fail) {
  options.reset();
  EXPECT_FALSE(run());
  EXPECT_EQ(1u, log.count(", opts_ is NULL:\n"));
  EXPECT_EQ(1u, log.count(LM_EMERGENCY, "Unexpected error in obs/agent/job/backup_executor.cpp:"));
}

struct backup_post_action : backup_executor {
  backup_post_action() {
    settings.post_action = "echo ran";
    settings.run_post_action_always = true;
  }
  /// How often the script runs when the job has failed before (`started`: after) the engine began.
  size_t runs(bool started, Job_State state = JOB_STATE_RUNNING) {
    platform().pool = started;
    platform().engine = false;
    run();
    job->activity().state = state;
    struct Count : ACE_Log_Msg_Callback {
      void log(ACE_Log_Record& record) override { lines += std::string(record.msg_data()).find("ran") == 0; }
      size_t lines = 0;
    };
    const auto count = std::make_shared<Count>();
    job->log_sink(count);
    EXPECT_TRUE(executor->execute_pre_action());
    EXPECT_TRUE(executor->execute_post_action());
    return count->lines;
  }
};

TEST_F(backup_post_action, is_the_engines_though_it_ended_by_an_exception) {
  platform().on_run = [] { throw std::runtime_error("no such luck"); };
  EXPECT_EQ(0u, runs(true));
}
TEST_F(backup_post_action, runs_when_the_engine_was_configured_and_not_started) {
  settings.subtype = JOB_DEFINITION_SUBTYPE_CUMULATIVE;
  platform().last_record = instance(4, {"online"});
  EXPECT_EQ(1u, runs(true));
  EXPECT_TRUE(engine_called("base_seq(4)"));
}
TEST_F(backup_post_action, runs_once_when_the_engine_was_never_started) {
  EXPECT_EQ(1u, runs(false));
}
TEST_F(backup_post_action, is_the_engines_once_that_was_started) {
  EXPECT_EQ(0u, runs(true));
}
TEST_F(backup_post_action, does_not_run_for_a_cancelled_job) {
  EXPECT_EQ(0u, runs(false, JOB_STATE_CANCELING));
}
TEST_F(backup_post_action, does_not_run_when_it_expects_the_jobs_data) {
  settings.redirect_post_action_stdin = true;
  EXPECT_EQ(0u, runs(false));
}
TEST_F(backup_post_action, does_not_run_unless_asked_to_run_always) {
  settings.run_post_action_always = false;
  EXPECT_EQ(0u, runs(false));
}

} // namespace
