#include "tests/boundary/boundary_host.h"

#include <ace/Thread_Manager.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <map>

using namespace boundary;
using json_spirit::Object;
using json_spirit::Value;

namespace {

const char* const FACTORIES[] = {
    "_make_OBS_Instance_Handler",
    "_make_OBS_Job_Creator",
    "_make_OBS_Backup_Job_Options_Parser_Creator",
    "_make_OBS_Backup_Job_Source_Parser_Creator",
    "_make_OBS_Restore_Job_Options_Parser_Creator",
    "_make_OBS_Restore_Job_Source_Parser_Creator",
    "_make_JSON_RPC_OBS_List_Handler",
    "_make_JSON_RPC_OBS_Test_Handler",
};

const char* const BACKUP_SOURCE = R"({"id":"s","name":"n","minor_resource_id":"r","minor_resource_name":"a"})";
const char* const BACKUP_OPTIONS = R"({"compression":"zstd","channels":2,"exclusion":["*.tmp"],"scan_file_threads":3})";
const char* const RESTORE_SOURCE = R"({"id":"s","backup_host_id":"h","backup_minor_resource_id":"r","seq":3,)"
                                   R"("pool_uuid":"p","entries":[{"dir":"/b/"},{"file":"/b/k"}]})";
const char* const RESTORE_OPTIONS =
    R"({"channels":2,"existing":"newest","bucket_maps":[{"source":"*","target":"t"},{"source":"a","target":"b"}]})";

/// Loads the module for one test and sees to it that nothing of it is left behind.
struct module_boundary : testing::Test {
  module_boundary() : module(new Loaded_Module) {}
  void TearDown() override {
    unload();
    EXPECT_FALSE(is_module_loaded());
    EXPECT_FALSE(is_module_mapped());
  }
  void unload() {
    // Run threads are detached and in the module's code until they have ended.
    ACE_Thread_Manager::instance()->wait();
    module.reset();
  }

  std::unique_ptr<Loaded_Module> module;
};

Job_Definition_var definition(Job_Definition_Type type) {
  Job_Definition::Settings settings;
  settings.type = type;
  settings.uid = "00112233-4455-6677-8899-aabbccddeeff";
  settings.name = "boundary";
  settings.host_id = "no such account";
  settings.max_seconds_retry = 0;
  settings.target = Job_Target("no such pool", "", "");
  return Job_Definition_var(new Job_Definition(settings));
}

void drive_instances(const Loaded_Module& module) {
  const Made<Instance_Handler> handler(module, FACTORIES[0]);
  ASSERT_NE(nullptr, handler.get());
  EXPECT_EQ("obs", handler->type());
  std::map<std::string, std::shared_ptr<Instance>> instances;
  EXPECT_EQ(0, handler->init(0, nullptr));
  EXPECT_EQ(0, handler->probe_instances(instances));
  ASSERT_EQ(1u, instances.count("OBS"));
  EXPECT_TRUE(instances["OBS"]->options["is_proxy"].get_bool());
  std::string state;
  EXPECT_EQ(0, handler->get_state("any", state));
  EXPECT_EQ("enabled", state);
  std::map<std::string, std::string> states;
  EXPECT_EQ(0, handler->get_states(states));
  EXPECT_EQ("enabled", states["OBS"]);
  Object options;
  EXPECT_EQ(0, handler->logon("OBS", "user", "password", options));
  EXPECT_EQ(0, handler->fini());
}

void drive_parsers(const Loaded_Module& module) {
  bool accepted = false;
  {
    const Made<Parser_Creator> creator(module, FACTORIES[2]);
    EXPECT_EQ(0, creator->init(0, nullptr));
    EXPECT_FALSE(parse<Job_Options>(*creator.get(), BACKUP_OPTIONS, accepted).null());
    EXPECT_TRUE(accepted);
    parse<Job_Options>(*creator.get(), R"({"channels":"4"})", accepted);
    EXPECT_FALSE(accepted);
    creator->destroy(nullptr);
  }
  {
    const Made<Parser_Creator> creator(module, FACTORIES[3]);
    const Job_Source_var source = parse<Job_Source>(*creator.get(), BACKUP_SOURCE, accepted);
    EXPECT_TRUE(accepted);
    EXPECT_EQ("s", source->id());
    EXPECT_EQ("n", source->name());
    parse<Job_Source>(*creator.get(), "{}", accepted);
    EXPECT_FALSE(accepted);
  }
  {
    const Made<Parser_Creator> creator(module, FACTORIES[4]);
    EXPECT_FALSE(parse<Job_Options>(*creator.get(), RESTORE_OPTIONS, accepted).null());
    EXPECT_TRUE(accepted);
    parse<Job_Options>(*creator.get(), R"({"bucket_maps":[1]})", accepted);
    EXPECT_FALSE(accepted);
  }
  {
    const Made<Parser_Creator> creator(module, FACTORIES[5]);
    EXPECT_EQ("s", parse<Job_Source>(*creator.get(), RESTORE_SOURCE, accepted)->id());
    EXPECT_TRUE(accepted);
    parse<Job_Source>(*creator.get(), R"({"seq":"3"})", accepted);
    EXPECT_FALSE(accepted);
  }
}

/// Runs a job with these records to its end, which is a failure: there is neither pool nor account.
void run(Job_Creator& jobs, Job_Definition_Type type, Job_Source_var source, Job_Options_var options) {
  const Job_Definition_var def = definition(type);
  def->source = source;
  def->options = options;
  Job_var job = jobs.create(def);
  ASSERT_NE(nullptr, job.get());
  const Job_Run_Options opts{{"type", "full"}};
  ASSERT_EQ(0, job->start(&opts));
  ASSERT_TRUE(job->wait());
  EXPECT_EQ(JOB_STATE_ERROR, job->activity().state);
  EXPECT_EQ(0, job->remove(false, nullptr));
  EXPECT_EQ(0, job->rollback());
}

void drive_jobs(const Loaded_Module& module) {
  const Made<Job_Creator> jobs(module, FACTORIES[1]);
  ASSERT_NE(nullptr, jobs.get());
  EXPECT_EQ(0, jobs->init(0, nullptr));
  for (const Job_Definition_Type type : {JOB_DEFINITION_NONE, JOB_DEFINITION_STANDBY, JOB_DEFINITION_STORAGE}) {
    errno = 7;
    EXPECT_EQ(nullptr, jobs->create(definition(type)).get());
    EXPECT_EQ(7, errno);
  }
  for (const Job_Definition_Type type : {JOB_DEFINITION_BACKUP, JOB_DEFINITION_RESTORE}) {
    EXPECT_NE(nullptr, jobs->create(definition(type)).get());
    run(*jobs.get(), type, Job_Source_var(), Job_Options_var());
  }
  bool accepted = false;
  {
    const Made<Parser_Creator> sources(module, FACTORIES[3]);
    const Made<Parser_Creator> options(module, FACTORIES[2]);
    run(*jobs.get(), JOB_DEFINITION_BACKUP, parse<Job_Source>(*sources.get(), BACKUP_SOURCE, accepted),
        parse<Job_Options>(*options.get(), BACKUP_OPTIONS, accepted));
  }
  {
    const Made<Parser_Creator> sources(module, FACTORIES[5]);
    const Made<Parser_Creator> options(module, FACTORIES[4]);
    run(*jobs.get(), JOB_DEFINITION_RESTORE, parse<Job_Source>(*sources.get(), RESTORE_SOURCE, accepted),
        parse<Job_Options>(*options.get(), RESTORE_OPTIONS, accepted));
  }
  EXPECT_EQ(0, jobs->fini());
}

/// The error code and message of the answer to a request over `channel`; an empty text for a result.
std::string refusal(JSON_RPC_Channel& channel, const char* method, const Value& params) {
  JSON_RPC_Object_var reply;
  if (channel.request(JSON_RPC_Request(method, params, 1), reply) != 0 || reply.null())
    return "no answer";
  if (reply->type() != JSON_RPC_Object::TYPE_RESPONSE_ERROR)
    return std::string();
  const JSON_RPC_Error_Response& error = static_cast<const JSON_RPC_Error_Response&>(*reply);
  return std::to_string(error.code()) + " " + error.message();
}

void drive_web_services(const Loaded_Module& module) {
  const Made<JSON_RPC_Handler> browse(module, FACTORIES[6]);
  const Made<JSON_RPC_Handler> test(module, FACTORIES[7]);
  In_Process_JSON_RPC_Channel channel;
  channel.route("obs.list", browse.get());
  channel.route("obs.test", test.get());
  EXPECT_EQ("-32602 Params is not Object", refusal(channel, "obs.list", "text"));
  EXPECT_EQ("-32602 No OBS entry uuid", refusal(channel, "obs.list", Object{}));
  EXPECT_EQ("-1 Failed to get OBS entry info", refusal(channel, "obs.list", Object{{"uuid", "none"}}));
  EXPECT_EQ("-32602 Params is not Object", refusal(channel, "obs.test", Value()));
  EXPECT_EQ("-32602 Missing required attributes", refusal(channel, "obs.test", Object{{"scheme", "http"}}));
  // Port 1 of the loopback: nobody answers, which is an outcome and no error.
  EXPECT_EQ("",
            refusal(channel, "obs.test",
                    Object{{"scheme", "http"}, {"endpoint", "127.0.0.1:1"}, {"access_key", "a"}, {"secret_key", "s"}}));
}

TEST_F(module_boundary, every_factory_makes_an_object_and_hands_out_its_disposer) {
  for (const char* name : FACTORIES) {
    const Made<void> object(*module, name);
    EXPECT_NE(nullptr, object.get()) << name;
    EXPECT_NE(nullptr, object.disposer()) << name;
  }
}

TEST_F(module_boundary, factory_without_a_slot_makes_an_object_all_the_same) {
  for (const char* name : FACTORIES) {
    const Made<void> other(*module, name);
    void* const object = module->factory<void>(name)(nullptr);
    EXPECT_NE(nullptr, object) << name;
    EXPECT_NE(other.get(), object) << name;
    other.disposer()(object);
  }
}

TEST_F(module_boundary, disposers_ignore_a_missing_object) {
  for (const char* name : FACTORIES)
    Made<void>(*module, name).disposer()(nullptr);
}

TEST_F(module_boundary, disposers_are_not_found_by_name) {
  for (const char* name : FACTORIES) {
    const std::string disposer = "_gobble_" + std::string(name).substr(6);
    EXPECT_EQ(nullptr, module->symbol(disposer.c_str())) << disposer;
  }
}

TEST_F(module_boundary, instance_handler_answers_its_host) {
  drive_instances(*module);
}

TEST_F(module_boundary, parsers_read_definitions_and_refuse_bad_ones) {
  drive_parsers(*module);
}

TEST_F(module_boundary, records_stay_when_their_parser_and_its_creator_are_gone) {
  Job_Source_var source;
  {
    const Made<Parser_Creator> creator(*module, FACTORIES[5]);
    bool accepted = false;
    source = parse<Job_Source>(*creator.get(), RESTORE_SOURCE, accepted);
  }
  EXPECT_EQ("s", source->id());
}

TEST_F(module_boundary, jobs_of_every_definition_type_run_or_are_refused) {
  drive_jobs(*module);
}

TEST_F(module_boundary, web_services_answer_through_a_channel_in_the_process) {
  drive_web_services(*module);
}

TEST_F(module_boundary, module_is_gone_when_it_was_unloaded_and_works_when_it_is_loaded_again) {
  for (int round = 0; round < 5; ++round) {
    ASSERT_TRUE(is_module_loaded()) << round;
    ASSERT_TRUE(is_module_mapped()) << round;
    drive_instances(*module);
    drive_parsers(*module);
    drive_jobs(*module);
    drive_web_services(*module);
    unload();
    ASSERT_FALSE(is_module_loaded()) << round;
    ASSERT_FALSE(is_module_mapped()) << round;
    module.reset(new Loaded_Module);
  }
}

TEST_F(module_boundary, two_holders_share_one_module) {
  std::unique_ptr<Loaded_Module> second(new Loaded_Module);
  EXPECT_EQ(module->symbol(FACTORIES[0]), second->symbol(FACTORIES[0]));
  module.reset();
  EXPECT_TRUE(is_module_loaded());
  drive_instances(*second);
  second.reset();
}

} // namespace
