#include "platform/s3/ledger.h"
#include "sdk/file_backup/file_backup.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <type_traits>

namespace {

using json_spirit::Object;

Object item_error(const std::string& name) {
  Object error;
  error["type"] = "file";
  error["name"] = name;
  error["errno"] = 5;
  error["message"] = "message of " + name;
  return error;
}

/// Notes the progress that reaches the host.
class Host_Handler : public Job_Event_Handler {
public:
  using Job_Event_Handler::Job_Event_Handler;
  int handle_progress(int code, unsigned long long a, unsigned long long b, unsigned long long c) override {
    last_code = code;
    sum = a + b + c;
    return 7;
  }
  std::atomic<int> last_code{-1};
  std::atomic<unsigned long long> sum{1};
};

template <typename HANDLER>
class Event_Handler_Test : public testing::Test {
protected:
  Event_Handler_Test()
      : definition_(new Job_Definition), job_(new Job(definition_)), host_(*job_),
        handler_(*definition_, job_->activity(), host_, *job_) {}
  ~Event_Handler_Test() override { Job::intrusive_remove_ref(job_); }

  Job_Activity& activity() { return job_->activity(); }
  const Object& outcome() {
    results_ = job_->results();
    static const Object none;
    const json_spirit::Value* value = json_spirit::find(results_, "outcome");
    return value != nullptr ? value->get_obj() : none;
  }
  size_t error_count() { return json_spirit::find(outcome(), "errors")->get_array().size(); }

  Job_Definition_var definition_;
  Job* job_;
  Host_Handler host_;
  HANDLER handler_;
  Object results_;
};

typedef testing::Types<file_backup::Backup_Event_Handler, file_backup::Restore_Event_Handler> Handlers;
TYPED_TEST_SUITE(Event_Handler_Test, Handlers);

TYPED_TEST(Event_Handler_Test, progress_fills_the_activity_and_its_code_alone_reaches_the_host) {
  this->job_->ledger()->listed_keys = 40;
  this->job_->ledger()->head_objects = 2;
  EXPECT_EQ(7, this->handler_.handle_progress(3, 10, 20, 30));
  EXPECT_EQ(10u, this->activity().objects);
  // Objects are read by a backup and stored by a restore.
  const bool backup = std::is_same_v<TypeParam, file_backup::Backup_Event_Handler>;
  EXPECT_EQ(backup ? 20u : 30u, this->activity().size);
  EXPECT_EQ(backup ? 30u : 20u, this->activity().set_size);
  EXPECT_EQ(42u, this->activity().listed);
  EXPECT_EQ(0u, this->activity().problems);
  EXPECT_EQ(3, this->host_.last_code);
  EXPECT_EQ(0u, this->host_.sum);
}

TYPED_TEST(Event_Handler_Test, cancel_and_pause_follow_the_state) {
  for (int state = JOB_STATE_NONE; state <= JOB_STATE_OPENING; ++state) {
    this->activity().state = static_cast<Job_State>(state);
    EXPECT_EQ(state == JOB_STATE_CANCELING, this->handler_.canceling()) << state;
    EXPECT_EQ(state == JOB_STATE_PAUSING, this->handler_.pausing()) << state;
  }
}

TYPED_TEST(Event_Handler_Test, the_outcome_holds_figures_and_collected_errors) {
  this->handler_.notify_event(MTF::EVENT_ITEM_ERROR, item_error("/b/1"));
  EXPECT_EQ(1u, this->activity().problems);
  EXPECT_TRUE(this->outcome().empty());
  Object figures;
  figures["saved"] = 9;
  this->handler_.notify_event(MTF::EVENT_OUTCOME, figures);
  EXPECT_EQ(9, json_spirit::find(this->outcome(), "saved")->get_int());
  ASSERT_EQ(1u, this->error_count());
  EXPECT_TRUE(json_spirit::Value(item_error("/b/1")) == json_spirit::find(this->outcome(), "errors")->get_array()[0]);
}

TYPED_TEST(Event_Handler_Test, what_the_engine_lists_and_tells_is_there_once) {
  this->handler_.notify_event(MTF::EVENT_ITEM_ERROR, item_error("/b/1"));
  this->handler_.notify_event(MTF::EVENT_ITEM_ERROR, item_error("/b/2"));
  Object figures;
  figures["errors"] = json_spirit::Array{item_error("/b/1"), item_error("/b/3")};
  this->handler_.notify_event(MTF::EVENT_OUTCOME, figures);
  EXPECT_EQ(3u, this->error_count());
}

TYPED_TEST(Event_Handler_Test, errors_are_bounded_and_all_counted) {
  for (int i = 0; i < 1500; ++i)
    this->handler_.notify_event(MTF::EVENT_ITEM_ERROR, item_error("/b/" + std::to_string(i)));
  this->handler_.notify_event(MTF::EVENT_OUTCOME, Object());
  EXPECT_EQ(1000u, this->error_count());
  EXPECT_EQ(1500u, this->activity().problems);
  EXPECT_EQ(1500, json_spirit::find(this->outcome(), "problems")->get_int());
}

TYPED_TEST(Event_Handler_Test, skipped_ones_that_no_event_told_count_as_problems) {
  this->handler_.add_skipped_files(3);
  this->handler_.add_skipped_dirs(2);
  this->handler_.notify_event(MTF::EVENT_ITEM_ERROR, item_error("/b/1"));
  EXPECT_EQ(5u, this->activity().problems);
}

TYPED_TEST(Event_Handler_Test, an_error_with_odd_members_is_made_whole) {
  Object odd;
  odd["name"] = 5;
  this->handler_.notify_event(MTF::EVENT_ITEM_ERROR, odd);
  Object figures;
  figures["errors"] = "no list";
  this->handler_.notify_event(MTF::EVENT_OUTCOME, figures);
  ASSERT_EQ(1u, this->error_count());
  const Object error = json_spirit::find(this->outcome(), "errors")->get_array()[0].get_obj();
  EXPECT_EQ("", json_spirit::require_str(error, "name"));
  EXPECT_TRUE(json_spirit::find(error, "errno")->is_null());
}

TYPED_TEST(Event_Handler_Test, unknown_events_are_ignored) {
  EXPECT_EQ(0, this->handler_.notify_event(1, item_error("/b/1")));
  EXPECT_EQ(0u, this->activity().problems);
}

TYPED_TEST(Event_Handler_Test, many_threads_lose_no_error) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([this, t] {
      for (int i = 0; i < 200; ++i) {
        this->handler_.notify_event(MTF::EVENT_ITEM_ERROR, item_error(std::to_string(t) + "/" + std::to_string(i)));
        this->handler_.handle_progress(0, i, i, i);
      }
    });
  for (std::thread& thread : threads)
    thread.join();
  this->handler_.notify_event(MTF::EVENT_OUTCOME, Object());
  EXPECT_EQ(800u, this->error_count());
  EXPECT_EQ(800u, this->activity().problems);
}

} // namespace
