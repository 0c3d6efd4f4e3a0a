#include "tests/transfer/transfer_fixture.h"

#include "obs/agent/job/obs_restore_callback.h"
#include "platform/mtf/medium_reader.h"
#include "platform/pool/set_record.h"

#include <ace/Log_Msg.h>

#include <cstring>
#include <filesystem>

using namespace MTF;

Transfer_Test::Transfer_Test() {
  // A line per listed object would bury what a test has to say.
  ACE_Log_Msg::instance()->priority_mask(LM_WARNING | LM_ERROR | LM_CRITICAL | LM_ALERT | LM_EMERGENCY,
                                         ACE_Log_Msg::PROCESS);
  char name[] = "/tmp/transfer_test.XXXXXX";
  if (!mkdtemp(name))
    throw std::runtime_error("no folder for the test");
  root_ = name;
  url_ = "file://" + root_ + "/pool";
  std::string error;
  if (!Pool::create(url_, "pool-uuid", error) || !Pool::open(url_, "", pool_, error))
    throw std::runtime_error(error);
  order.sources = {"/bucket/"};
  order.channels = 2;
  order.scan_threads = 4;
  order.io.readers = 8;
  new_job();
  new_events();
}

Transfer_Test::~Transfer_Test() {
  Job::current(nullptr);
  Job::intrusive_remove_ref(job_);
  std::filesystem::remove_all(root_);
}

void Transfer_Test::new_job(const std::string& archived, int max_seconds_retry) {
  if (job_) {
    Job::current(nullptr);
    Job::intrusive_remove_ref(job_);
  }
  Job_Definition::Settings settings;
  settings.archived = archived;
  settings.max_seconds_retry = max_seconds_retry;
  job_ = new Job(Job_Definition_var(new Job_Definition(settings)));
  Job::current(job_);
  ledger = job_->ledger();
}

void Transfer_Test::new_events() {
  events = new Fake_Events;
  handler_ = Event_Handler_var(events);
}

bool Transfer_Test::backup() {
  keys(access);
  new_events();
  metadata_ = Metadata();
  Backup_Order one = order;
  one.uuid = "set-" + std::to_string(++sets_);
  one.uri_prefix = "host/res/" + one.uuid;
  auto* const factory = new OBS_Backup_Callback_Factory(server.url(), S3_Client_Options(access, secret, 0), 0);
  factory->wishes(wishes);
  one.factory = IBackup_Callback_Factory_var(factory);
  Backup_Engine engine(one, handler_, metadata_, nullptr);
  const bool done = engine.run(url_, "pool-uuid");
  failure = engine.failure();
  code = engine.err_code();
  EXPECT_TRUE(events->adds_up());
  if (!done)
    return false;
  Set_Record record;
  record.uuid = one.uuid;
  record.seq = metadata_.seq;
  record.uri = metadata_.set_uri;
  std::string error;
  EXPECT_TRUE(write_set_record(pool_.set_folder(metadata_.set_uri), record, error)) << error;
  return true;
}

bool Transfer_Test::restore(const Buckets_Mapper& mapper) {
  keys(access);
  new_events();
  Restore_Order one;
  one.uri_prefix = metadata_.set_uri;
  one.seq = metadata_.seq;
  one.factory = IRestore_Callback_Factory_var(
      new OBS_Restore_Callback_Factory(server.url(), S3_Client_Options(access, secret, 0), mapper));
  one.converter = converter;
  Restore_Engine engine(one, handler_, nullptr);
  const bool done = engine.run(url_, "pool-uuid");
  failure = engine.failure();
  code = engine.err_code();
  EXPECT_TRUE(events->adds_up());
  return done;
}

std::map<std::string, Catalog_Object> Transfer_Test::catalog() {
  std::map<std::string, Catalog_Object> objects;
  std::string error;
  const auto reader = Catalog_Reader::open(pool_.set_folder(metadata_.set_uri), error);
  if (!reader) {
    ADD_FAILURE() << error;
    return objects;
  }
  const auto take = [&](const Catalog_Object& object) { return objects.emplace(object.path, object).second; };
  EXPECT_TRUE(reader->walk("", take, error)) << error;
  return objects;
}

std::string Transfer_Test::content(const Catalog_Object& object) {
  char name[32];
  std::snprintf(name, sizeof name, "/channel-%04u.mtf", object.channel);
  std::string error, data;
  const auto medium = Medium_Reader::open(pool_.set_folder(metadata_.set_uri) + name, 0, error);
  const auto reader = medium ? medium->object(object.offset, error) : nullptr;
  if (!reader) {
    ADD_FAILURE() << object.path << ": " << error;
    return data;
  }
  EXPECT_EQ(object.path, reader->head().path);
  EXPECT_EQ(object.size, reader->head().size) << object.path;
  char buffer[16384];
  for (;;) {
    size_t got = 0;
    const Read_Outcome outcome = reader->read(buffer, sizeof buffer, got);
    data.append(buffer, got);
    if (outcome == Read_Outcome::MORE)
      continue;
    EXPECT_EQ(Read_Outcome::END, outcome) << object.path << ": " << reader->error();
    EXPECT_EQ(0, std::memcmp(reader->sha256(), object.sha256, sizeof object.sha256)) << object.path;
    return data;
  }
}

std::string Transfer_Test::reason(const std::string& path) {
  const json_spirit::Value* errors = json_spirit::find(events->outcome, "errors");
  if (errors)
    for (const json_spirit::Value& error : errors->get_array())
      if (json_spirit::optional_str(error.get_obj(), "name") == path)
        return json_spirit::optional_str(error.get_obj(), "message");
  return std::string();
}
