#include "obs/agent/job_frame/exports.h"

#include "obs/agent/job/backup_job_options_parser.h"
#include "obs/agent/job/backup_job_source_parser.h"
#include "obs/agent/job/restore_job_options_parser.h"
#include "obs/agent/job/restore_job_source_parser.h"
#include "obs/agent/job_frame/default_job_creator_t.h"
#include "obs/agent/job_frame/fake_executor.h"
#include "obs/agent/websvcs/obs_list_handler.h"
#include "obs/agent/websvcs/obs_test_handler.h"
#include "sdk/job/object_creator.h"
#include "testing/module/failing_allocator.h"
#include "testing/module/log_sink.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

MODULE_TESTING_DEFINE_FAILING_ALLOCATOR()

typedef Object_Creator_T<YAJL_Handler> Parser_Creator;

extern "C" {
Parser_Creator* _make_OBS_Backup_Job_Options_Parser_Creator(Gobbler*);
Parser_Creator* _make_OBS_Backup_Job_Source_Parser_Creator(Gobbler*);
Parser_Creator* _make_OBS_Restore_Job_Options_Parser_Creator(Gobbler*);
Parser_Creator* _make_OBS_Restore_Job_Source_Parser_Creator(Gobbler*);
JSON_RPC_Handler* _make_JSON_RPC_OBS_List_Handler(Gobbler*);
JSON_RPC_Handler* _make_JSON_RPC_OBS_Test_Handler(Gobbler*);
}

/// What the host asks a factory for.
struct Probe_Base {
  virtual ~Probe_Base() = default;
  virtual int fini() { return 0; }
};

/// Tells what its disposer does with it.
struct Probe : Probe_Base {
  ~Probe() override { events.push_back("~"); }
  int fini() override {
    events.push_back("fini");
    return 0;
  }
  static inline std::vector<std::string> events;
};

OBS_DEFINE_FACTORY_I(Probe_Factory, Probe_Base, Probe, OBS_FINI_BEFORE_DELETE)

struct Probe_Parser : YAJL_Handler {};

/// A parser creator that tells the same, as those of the module have nothing to do in `fini`.
template <>
class Object_Creator_Impl_T<Parser_Creator, Probe_Parser> : public Parser_Creator {
public:
  ~Object_Creator_Impl_T() override { Probe::events.push_back("~"); }
  int fini() override {
    Probe::events.push_back("fini");
    return 0;
  }
  YAJL_Handler* create() override { return make_without_throwing<Probe_Parser>(); }
  void destroy(YAJL_Handler* parser) override { delete parser; }
};

OBS_DEFINE_PARSER_CREATOR_FACTORY(Probe_Parser)

namespace {

/// Makes an object, looks at its class and gives it back; also without a slot and without memory.
template <typename CLASS, typename BASE>
void expect_factory(BASE* (*make)(Gobbler*)) {
  Gobbler gobbler = nullptr;
  BASE* const object = make(&gobbler);
  ASSERT_NE(nullptr, object);
  ASSERT_NE(nullptr, gobbler);
  EXPECT_NE(nullptr, dynamic_cast<CLASS*>(object));
  gobbler(object);
  gobbler(nullptr);

  BASE* const unasked = make(nullptr);
  ASSERT_NE(nullptr, unasked);
  gobbler(unasked);

  gobbler = nullptr;
  errno = 0;
  BASE* none = nullptr;
  {
    const module_testing::Short_Memory short_memory(1);
    none = make(&gobbler);
  }
  EXPECT_EQ(nullptr, none);
  EXPECT_EQ(ENOMEM, errno);
  EXPECT_NE(nullptr, gobbler);
}

template <typename PARSER>
void expect_parser_factory(Parser_Creator* (*make)(Gobbler*)) {
  expect_factory<Object_Creator_Impl_T<Parser_Creator, PARSER>>(make);

  Gobbler gobbler = nullptr;
  Parser_Creator* const creator = make(&gobbler);
  EXPECT_EQ(0, creator->init(0, nullptr));
  YAJL_Handler* const parser = creator->create();
  ASSERT_NE(nullptr, parser);
  EXPECT_NE(nullptr, dynamic_cast<PARSER*>(parser));
  creator->destroy(parser);
  creator->destroy(nullptr);

  // The parser itself, its record's pointer, the record, the pointer again: whichever is missing, nothing is thrown.
  int missing = 0;
  for (int nth = 1; nth < 20; ++nth) {
    errno = 0;
    YAJL_Handler* starved = nullptr;
    {
      const module_testing::Short_Memory short_memory(nth);
      starved = creator->create();
    }
    if (errno == ENOMEM)
      ++missing;
    if (starved) {
      EXPECT_TRUE(starved->handle_start_map_i());
      EXPECT_TRUE(starved->handle_map_key_i("channels", 8));
      EXPECT_TRUE(starved->handle_number_i("1", 1));
      creator->destroy(starved);
    } else {
      EXPECT_EQ(ENOMEM, errno);
    }
  }
  EXPECT_GE(missing, 3);
  EXPECT_LT(missing, 19);
  gobbler(creator);
}

TEST(exports, parser_creators_make_their_parsers) {
  module_testing::Log_Sink log;
  expect_parser_factory<OBS_Backup_Job_Options_Parser>(_make_OBS_Backup_Job_Options_Parser_Creator);
  expect_parser_factory<OBS_Backup_Job_Source_Parser>(_make_OBS_Backup_Job_Source_Parser_Creator);
  expect_parser_factory<OBS_Restore_Job_Options_Parser>(_make_OBS_Restore_Job_Options_Parser_Creator);
  expect_parser_factory<OBS_Restore_Job_Source_Parser>(_make_OBS_Restore_Job_Source_Parser_Creator);
  EXPECT_TRUE(log.empty());
}

TEST(exports, web_services_are_made_as_handlers) {
  expect_factory<JSON_RPC_OBS_List_Handler>(_make_JSON_RPC_OBS_List_Handler);
  expect_factory<JSON_RPC_OBS_Test_Handler>(_make_JSON_RPC_OBS_Test_Handler);
}

TEST(exports, disposer_calls_fini_once_and_deletes_then) {
  Probe::events.clear();
  Gobbler gobbler = nullptr;
  Probe_Base* const probe = _make_Probe_Factory(&gobbler);
  ASSERT_NE(nullptr, probe);
  gobbler(nullptr);
  EXPECT_TRUE(Probe::events.empty());
  gobbler(probe);
  EXPECT_EQ((std::vector<std::string>{"fini", "~"}), Probe::events);
}

TEST(exports, disposer_of_a_parser_creator_calls_fini_once_and_deletes_then) {
  Probe::events.clear();
  Gobbler gobbler = nullptr;
  Parser_Creator* const creator = _make_Probe_Parser_Creator(&gobbler);
  ASSERT_NE(nullptr, creator);
  gobbler(nullptr);
  EXPECT_TRUE(Probe::events.empty());
  gobbler(creator);
  EXPECT_EQ((std::vector<std::string>{"fini", "~"}), Probe::events);
}

TEST(exports, job_creator_without_memory_answers_none_with_errno) {
  using namespace frame_testing;
  Default_Job_Creator_T<Controllable_Job_T<Executor>, Controllable_Job_T<Executor>> creator;
  const Job_Definition_var def = definition();
  errno = 0;
  Job_var job;
  {
    const module_testing::Short_Memory short_memory(1);
    job = creator.create(def);
  }
  EXPECT_EQ(nullptr, job.get());
  EXPECT_EQ(ENOMEM, errno);
}

TEST(exports, start_without_memory_is_an_emergency_and_refused) {
  using namespace frame_testing;
  Plan plan;
  module_testing::Log_Sink log;
  Controllable_Job_T<Executor> job(definition());
  int started = 0;
  errno = 0;
  {
    const module_testing::Short_Memory short_memory(1);
    started = job.start_i(nullptr);
  }
  EXPECT_EQ(ENOMEM, errno);
  EXPECT_EQ(-1, started);
  EXPECT_EQ("", plan.story());
  EXPECT_EQ(1u, log.count(LM_EMERGENCY, "Unexpected error in obs/agent/job_frame/default_job_t.h:"));
  EXPECT_EQ(1u, log.count(", opt is NULL:\n"));
}

} // namespace
