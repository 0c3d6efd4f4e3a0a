#pragma once

#include "sdk/error/error.h"
#include "sdk/job/job.h"
#include "sdk/rpc/json_rpc.h"
#include "testing/module/fake_client.h"
#include "testing/module/fake_clock.h"
#include "testing/module/fake_platform.h"
#include "testing/module/fake_s3_service.h"
#include "testing/module/log_sink.h"

#include <gtest/gtest.h>

namespace module_testing {

/// Answers "obs.query" with a record that a test may change.
class Entry_Handler : public JSON_RPC_Handler {
public:
  int handle_object(JSON_RPC_Channel_var channel, JSON_RPC_Object_var object) override {
    const JSON_RPC_Request& request = dynamic_cast<const JSON_RPC_Request&>(*object);
    asked.push_back(json_spirit::write(request.params()));
    if (refuse)
      return channel->send_error(-1, request.id(), "no such entry", json_spirit::Value());
    return channel->send(count_references(std::make_unique<JSON_RPC_Response>(request.id(), entry)));
  }

  json_spirit::Object entry{{"access_key", "ak"}, {"secret_key", "sk"}, {"scheme", "http"}, {"endpoint", "s3.test"}};
  bool refuse = false;
  std::vector<std::string> asked;
};

class Fixture_Job : public Job {
public:
  using Job::Job;
};

/// A job whose executor runs on the test's thread, over a scripted platform, account and service.
struct Executor_Fixture : testing::Test {
  Executor_Fixture() {
    reset_fake_platform();
    reset_fake_client();
    fake_platform().pool_info.location = "file:///pool";
    channel->route("obs.query", &entries);
    previous_channel = Global_JSON_RPC_Channel::instance();
    Global_JSON_RPC_Channel::instance(channel);
    settings.id = "def";
    settings.uid = "uid";
    settings.name = "nightly";
    settings.agent = "agent";
    settings.host_id = "account";
    settings.max_seconds_retry = 0;
    settings.target = Job_Target("pool", "device", "");
    service->buckets = {"b"};
  }
  ~Executor_Fixture() override {
    Job::current(previous_job);
    Global_JSON_RPC_Channel::instance(previous_channel);
  }

  /// Makes the job; source and options are the test's.
  Job& make_job(Job_Source* source, Job_Options* options) {
    Job_Definition_var definition(new Job_Definition(settings));
    definition->source = Job_Source_var(source);
    definition->options = Job_Options_var(options);
    job = Job_var(new Fixture_Job(definition), false);
    job->activity().id = "activity";
    job->activity().start_time = 0;
    job->activity().state = JOB_STATE_RUNNING;
    previous_job = Job::current(job.get());
    return *job;
  }

  Fake_Platform_Script& platform() { return fake_platform(); }
  /// "id [params] count" of each alert in hexadecimal.
  std::vector<std::string> alerts() const {
    std::vector<std::string> texts;
    for (const Job_Alert& alert : job->alerts())
      texts.push_back(text(alert.error) + " " + std::to_string(alert.count));
    return texts;
  }
  /// What the pre-action of the engine's handler writes to the job's log.
  std::string lines_of_the_pre_action() {
    struct Lines : ACE_Log_Msg_Callback {
      void log(ACE_Log_Record& record) override { text += std::string(record.msg_data()) + "\n"; }
      std::string text;
    };
    const auto lines = std::make_shared<Lines>();
    job->log_sink(lines);
    EXPECT_TRUE(platform().action_handler->execute_pre_action());
    return lines->text;
  }
  std::string last_error() const { return text(job->last_error()); }
  static std::string text(const Error& error) {
    char id[32];
    snprintf(id, sizeof id, "%llX", static_cast<unsigned long long>(error.id.value()));
    return id + (" " + json_spirit::write(error.params));
  }

  Log_Sink log;
  Fake_Clock clock{1700000000};
  Entry_Handler entries;
  std::shared_ptr<In_Process_JSON_RPC_Channel> channel = std::make_shared<In_Process_JSON_RPC_Channel>();
  JSON_RPC_Channel_var previous_channel;
  std::shared_ptr<Fake_S3_Service> service = std::make_shared<Fake_S3_Service>();
  Service_Hook hook{service};
  Job_Definition::Settings settings;
  Job_var job;
  Job* previous_job = nullptr;
};

} // namespace module_testing
