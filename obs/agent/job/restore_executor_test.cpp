#include "obs/agent/job/restore_executor.h"

#include "sdk/mtf/file_attributes.h"
#include "testing/module/attributed_service.h"
#include "testing/module/executor_fixture.h"

using json_spirit::Array;
using json_spirit::Object;
using module_testing::fake_client;

namespace {

typedef std::vector<std::string> Texts;

struct Open_Executor : OBS_Restore_Executor {
  using OBS_Restore_Executor::execute_i;
  using OBS_Restore_Executor::execute_post_action;
  using OBS_Restore_Executor::execute_pre_action;
  using OBS_Restore_Executor::OBS_Restore_Executor;
};

struct restore_executor : module_testing::Executor_Fixture {
  restore_executor() {
    settings.type = JOB_DEFINITION_RESTORE;
    source->pool_uuid_ = "pool";
    source->backup_host_id_ = "their-host";
    source->backup_minor_resource_id_ = "their-resource";
    source->seq_ = 6;
    source->entries_ = {Object{{"dir", "/a/"}}};
    options->channels_ = 4;
    options->mapper_.mappers()["a"].bucket = "b";
    platform().incarnation = "chain";
    platform().channels = 2;
    platform().uri_prefix = "prefix";
    platform().pool_url = "file:///pool";
  }

  void dr_test() {
    settings.subtype = JOB_DEFINITION_SUBTYPE_DR_TEST;
    file_backup::File_DR_Test_Context& context = platform().dr_context;
    context.update = true;
    context.incarnation = 12;
    context.seq = 9;
    context.minor_resource_id = "unused";
    context.host_uuid = "unused";
    context.channels = 3;
    context.pool_uuid = "dr-pool";
    context.uri = "dr-prefix";
  }
  bool run() {
    executor.reset(new Open_Executor(make_job(source.release(), options.release())));
    return executor->execute_i(nullptr);
  }
  bool engine_called(const std::string& call) { return platform().called("engine." + call); }

  // The definition's, once it is made.
  std::unique_ptr<OBS_Restore_Job_Source> source = std::make_unique<OBS_Restore_Job_Source>();
  std::unique_ptr<OBS_Restore_Job_Options> options = std::make_unique<OBS_Restore_Job_Options>();
  std::unique_ptr<Open_Executor> executor;
};

TEST_F(restore_executor, whole_run_goes_in_order) {
  platform().size = 11;
  platform().set_size = 22;
  ASSERT_TRUE(run());
  EXPECT_EQ((Texts{"get_incarnation(pool,their-resource,6,0)",
                   "get_url_by_pool_uuid(pool,false)",
                   "engine.make(true)",
                   "engine.path_converter(true)",
                   "engine.action_handler(true)",
                   "engine.callback_factory(true)",
                   "engine.backup_uri_prefix(prefix)",
                   "engine.pool_uuid(pool)",
                   "engine.definition_uuid(def)",
                   "engine.backup_host_uuid(their-host)",
                   "engine.backup_minor_resource_id(their-resource)",
                   "engine.seq(6)",
                   "engine.restore_select([{\"dir\":\"/a/\"}])",
                   "engine.extra_client_io_opts()",
                   "engine.extra_client_io_opts()",
                   "engine.incarnation(chain)",
                   "engine.channel_num(2)",
                   "engine.concurrent(4)",
                   "engine.standalone(false)",
                   "engine.restore()"}),
            platform().calls);
  EXPECT_EQ((Texts{"{\"uuid\":\"account\"}"}), entries.asked);
  EXPECT_EQ("key of the host", platform().io_options.access_key);
  EXPECT_EQ(11u, job->activity().size);
  EXPECT_EQ(22u, job->activity().set_size);
  EXPECT_TRUE(alerts().empty());
}

TEST_F(restore_executor, optional_settings_reach_the_engine_where_they_are_set) {
  settings.target = Job_Target("t", "", "/elsewhere");
  settings.rate_limit = 300;
  options->standalone_ = true;
  options->cache_dir_ = "/cache";
  platform().uri_prefix.clear();
  ASSERT_TRUE(run());
  EXPECT_TRUE(engine_called("target_location(/elsewhere)"));
  EXPECT_TRUE(engine_called("standalone(true)"));
  EXPECT_TRUE(engine_called("cache_path(/cache)"));
  EXPECT_TRUE(engine_called("backup_uri_prefix(their-host/their-resource)"));
  EXPECT_EQ(150u, platform().io_options.channel_rate_limit);
}

TEST_F(restore_executor, large_number_of_a_set_is_cut_for_the_lookup_only) {
  source->seq_ = (ACE_INT64(1) << 32) + 5;
  ASSERT_TRUE(run());
  EXPECT_TRUE(platform().called("get_incarnation(pool,their-resource,5,0)"));
  EXPECT_TRUE(engine_called("seq(4294967301)"));
}

TEST_F(restore_executor, unknown_set_is_an_alert) {
  platform().incarnation_found = false;
  EXPECT_FALSE(run());
  EXPECT_EQ(1u, log.count(LM_ERROR, "Failed to get incarnation to restore.\n"));
  EXPECT_EQ((Texts{"7000000000000031 [] 1"}), alerts());
}

TEST_F(restore_executor, unknown_pool_is_an_alert) {
  platform().pool_url_found = false;
  EXPECT_FALSE(run());
  EXPECT_EQ(1u, log.count(LM_ERROR, "Failed to get info of pool pool\n"));
  EXPECT_EQ((Texts{"7000100000000030 [\"pool\"] 1"}), alerts());
}

TEST_F(restore_executor, merge_is_waited_for_in_a_pool_of_that_kind_only) {
  platform().merging = 5;
  ASSERT_TRUE(run());
  EXPECT_TRUE(clock.sleeps().empty());
  EXPECT_FALSE(platform().called("is_merging(file:///pool,pool,their-resource)"));
}

TEST_F(restore_executor, merge_is_waited_for_without_bound) {
  platform().merging = 50;
  platform().pool_url = "mtfs://pool.test/x";
  ASSERT_TRUE(run());
  EXPECT_EQ(std::vector<unsigned>(50, 30), clock.sleeps());
  EXPECT_TRUE(platform().called("is_merging(mtfs://pool.test/x,pool,their-resource)"));
}

TEST_F(restore_executor, cancelled_job_waits_for_a_merge_as_well) {
  platform().merging = 50;
  platform().pool_url = "mtf://pool.test/x";
  clock.on_sleep([this](unsigned) {
    job->activity().state = JOB_STATE_CANCELING;
    EXPECT_EQ(nullptr, Job::current()) << "the clock would cut the sleep short";
  });
  EXPECT_TRUE(run());
  EXPECT_EQ(std::vector<unsigned>(50, 30), clock.sleeps());
  EXPECT_EQ(job.get(), Job::current());
}

TEST_F(restore_executor, unknown_account_fails) {
  entries.refuse = true;
  EXPECT_FALSE(run());
  EXPECT_EQ(1u, log.count(LM_ERROR, "Failed to get obs entry with uuid 'account'.\n"));
  EXPECT_FALSE(engine_called("restore()"));
}

TEST_F(restore_executor, failed_connection_is_the_jobs_error) {
  service->buckets = {};
  EXPECT_FALSE(run());
  EXPECT_EQ("70000031E0100001 [\"Failed to get all buckets, errcode: NoSuchBucket.\"]", last_error());
  EXPECT_EQ(1700000000, job->last_error().time);
  EXPECT_EQ(1u, log.count(LM_ERROR, "Failed to get all buckets, errcode: NoSuchBucket.\n"));
}

TEST_F(restore_executor, mapped_buckets_are_tried_and_the_default_one_is_not) {
  options->mapper_.default_mapper().bucket = "default";
  options->mapper_.mappers()["c"].bucket = "";
  service->buckets = {};
  EXPECT_FALSE(run());
  std::sort(service->asked_buckets.begin(), service->asked_buckets.end());
  EXPECT_EQ((Texts{"", "b"}), service->asked_buckets);
}

TEST_F(restore_executor, factory_writes_to_the_account_under_the_mapping) {
  entries.entry["region"] = "r";
  entries.entry["vendor"] = "v";
  entries.entry["sign_method"] = "v2";
  settings.max_seconds_retry = 77;
  ASSERT_TRUE(run());
  const MTF::IRestore_Callback_var callback = platform().restore_factory->make();
  ASSERT_FALSE(callback.null());
  EXPECT_EQ((Texts{"http s3.test 80 plain direct ak plain sk r v v2 77"}), fake_client().connections);
  EXPECT_EQ(MTF::E_OK, callback->make_file_writer()->open("/a/k", 1));
  EXPECT_EQ((Texts{"b|k|1"}), fake_client().uploaded);
}

TEST_F(restore_executor, nothing_restored_is_the_jobs_error) {
  platform().err_code = MTF::E_NO_FILES_RESTORED;
  platform().engine = false;
  platform().on_run = [this] { clock.advance(60); };
  EXPECT_FALSE(run());
  EXPECT_EQ("70000031E0200004 []", last_error());
  EXPECT_EQ(1700000060, job->last_error().time);
  EXPECT_TRUE(alerts().empty());
  EXPECT_EQ(0u, job->activity().size);
}

TEST_F(restore_executor, skipped_objects_are_an_alert_with_their_number) {
  platform().err_code = MTF::E_END_WITH_SKIPPED_FILES;
  platform().skipped_files = 3;
  EXPECT_TRUE(run());
  EXPECT_EQ((Texts{"50000031E0200005 [3] 1"}), alerts());
  EXPECT_EQ("0 []", last_error());
}

TEST_F(restore_executor, engine_without_its_pool_is_an_alert) {
  platform().err_code = MTF::E_GET_POOL_INFO;
  platform().engine = false;
  EXPECT_FALSE(run());
  EXPECT_EQ((Texts{"7000100000000030 [\"pool\"] 1"}), alerts());
}

TEST_F(restore_executor, rehearsal_restores_the_set_that_is_due) {
  dr_test();
  options->standalone_ = true;
  ASSERT_TRUE(run());
  EXPECT_EQ((Texts{"load_dr_test_context(def)", "get_dr_test_seqs(their-resource,0,pool)",
                   "get_url_by_pool_uuid(dr-pool,false)"}),
            Texts(platform().calls.begin(), platform().calls.begin() + 3));
  for (const char* call :
       {"pool_uuid(dr-pool)", "seq(9)", "incarnation(12)", "channel_num(3)", "backup_uri_prefix(dr-prefix)",
        "backup_host_uuid(their-host)", "backup_minor_resource_id(their-resource)"})
    EXPECT_TRUE(engine_called(call)) << call;
  EXPECT_FALSE(engine_called("standalone(true)"));
  EXPECT_FALSE(engine_called("standalone(false)"));
  EXPECT_EQ("save_dr_test_context(def)", platform().calls.back());
  EXPECT_EQ(9, platform().saved_context.seq);
}

TEST_F(restore_executor, rehearsal_with_nothing_due_succeeds_at_once) {
  dr_test();
  platform().dr_context.update = false;
  EXPECT_TRUE(run());
  EXPECT_EQ(2u, platform().calls.size());
  EXPECT_TRUE(entries.asked.empty());
}

TEST_F(restore_executor, rehearsal_without_sets_fails) {
  dr_test();
  platform().dr_sets = false;
  EXPECT_FALSE(run());
  EXPECT_EQ(1u, log.count(LM_ERROR, "Failed to get dr test sets by context.\n"));
  EXPECT_EQ(2u, platform().calls.size());
}

TEST_F(restore_executor, rehearsal_that_fails_is_not_remembered) {
  dr_test();
  platform().engine = false;
  EXPECT_FALSE(run());
  EXPECT_FALSE(platform().called("save_dr_test_context(def)"));
}

TEST_F(restore_executor, engine_gets_the_actions_of_the_definition_with_the_jobs_log) {
  settings.pre_action = "echo before";
  ASSERT_TRUE(run());
  EXPECT_EQ("before\n", lines_of_the_pre_action());
}

TEST_F(restore_executor, post_action_is_the_engines_though_it_ended_for_want_of_memory) {
  settings.post_action = "exit 1";
  settings.run_post_action_always = true;
  platform().on_run = [] { throw std::bad_alloc(); };
  EXPECT_FALSE(run());
  EXPECT_TRUE(executor->execute_post_action());
}

TEST_F(restore_executor, post_action_runs_when_the_engine_was_made_and_not_started) {
  settings.post_action = "exit 1";
  settings.run_post_action_always = true;
  service->buckets = {};
  EXPECT_FALSE(run());
  EXPECT_FALSE(executor->execute_post_action());
}

TEST_F(restore_executor, post_action_is_the_engines_once_that_was_started) {
  settings.post_action = "exit 1";
  settings.run_post_action_always = true;
  platform().engine = false;
  run();
  EXPECT_TRUE(executor->execute_pre_action());
  EXPECT_TRUE(executor->execute_post_action());
}

TEST_F(restore_executor, post_action_runs_when_the_engine_was_never_started) {
  settings.post_action = "exit 1";
  settings.run_post_action_always = true;
  platform().incarnation_found = false;
  run();
  EXPECT_FALSE(executor->execute_post_action());
  job->activity().state = JOB_STATE_CANCELING;
  EXPECT_TRUE(executor->execute_post_action());
}

TEST_F(restore_executor, post_action_that_does_not_always_run_is_left_out) {
  settings.post_action = "exit 1";
  platform().incarnation_found = false;
  run();
  EXPECT_TRUE(executor->execute_post_action());
}

TEST_F(restore_executor, wait_of_the_definition_bounds_every_lookup) {
  settings.max_seconds_retry = 77;
  entries.refuse = true;
  EXPECT_FALSE(run());
  EXPECT_TRUE(platform().called("get_incarnation(pool,their-resource,6,77)"));
  unsigned waited = 0;
  for (const unsigned seconds : clock.sleeps())
    waited += seconds;
  EXPECT_GE(waited, 77u);
  EXPECT_LT(waited, 77u + 60u);
}

TEST_F(restore_executor, wait_of_the_definition_bounds_the_lookup_of_a_rehearsal) {
  dr_test();
  settings.max_seconds_retry = 77;
  EXPECT_TRUE(run());
  EXPECT_TRUE(platform().called("get_dr_test_seqs(their-resource,77,pool)"));
}

/// A service of the account in which every object is there.
struct Full_Service : module_testing::Fake_S3_Service {
  bool head_object(const char* bucket, const char* key, S3_Object& object) override {
    heads.push_back(std::string(bucket) + "|" + key);
    object.exists = true;
    return true;
  }
  Texts heads;
};

TEST_F(restore_executor, converter_protects_the_mapped_object_by_the_jobs_policy) {
  const auto full = std::make_shared<Full_Service>();
  full->buckets = {"b"};
  module_testing::service_maker() = [&](const S3_Service_Options&) { return full; };
  options->existing_ = OBS_PCT_EXISTING_SKIP;
  ASSERT_TRUE(run());
  std::string path = "/a/k";
  EXPECT_EQ(MTF::E_SKIP, platform().converter->convert(path, 1, false));
  EXPECT_EQ((Texts{"b|k"}), full->heads);
}

TEST_F(restore_executor, factory_keeps_to_the_jobs_policy_for_attributes) {
  const auto attributed = std::make_shared<module_testing::Attributed_Service>(fake_client().store);
  fake_client().makes = [&] { return attributed; };
  options->no_acl_ = true;
  options->drop_tags_ = true;
  options->storage_class_ = "COLD";
  ASSERT_TRUE(run());
  const MTF::IRestore_Callback_var callback = platform().restore_factory->make();
  ASSERT_FALSE(callback.null());
  const MTF::IFile_Writer_var writer = callback->make_file_writer();
  dynamic_cast<MTF::IFile_Attributes_Sink&>(*writer).attributes(
      {R"({"tags":{"t":"1"},"owner":"o","grants":[{"type":"Group","grantee":"g","permission":"READ"}]})", ""});
  ASSERT_EQ(MTF::E_OK, writer->open("/a/k", 1));
  EXPECT_TRUE(attributed->given.tags.empty());
  EXPECT_TRUE(attributed->given.grants.empty());
  EXPECT_EQ("", attributed->given.owner);
  EXPECT_EQ("COLD", attributed->given.storage_class);
}

TEST_F(restore_executor, post_action_that_expects_the_jobs_data_does_not_run) {
  settings.post_action = "exit 1";
  settings.run_post_action_always = true;
  settings.redirect_post_action_stdin = true;
  platform().incarnation_found = false;
  run();
  EXPECT_TRUE(executor->execute_post_action());
}

} // namespace
