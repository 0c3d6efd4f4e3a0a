#include "obs/agent/job/obs_mtf_event_handler.h"

#include "sdk/job/job.h"

#include <gtest/gtest.h>

namespace {

class Recording_Handler : public Job_Event_Handler {
public:
  explicit Recording_Handler(Job& job) : Job_Event_Handler(job) {}
  int handle_progress(int code, unsigned long long a, unsigned long long b, unsigned long long c) override {
    last_code = code;
    sum = a + b + c;
    return 42;
  }
  int last_code = -1;
  unsigned long long sum = 99;
};

struct obs_mtf_event_handler : testing::Test {
  Job job{Job_Definition_var(new Job_Definition)};
  Recording_Handler host{job};
};

TEST_F(obs_mtf_event_handler, only_the_code_of_a_progress_report_is_forwarded) {
  OBS_MTF_Event_Handler handler(&host, job.activity());
  EXPECT_EQ(42, handler.handle_progress(7, 1, 2, 3));
  EXPECT_EQ(7, host.last_code);
  EXPECT_EQ(0u, host.sum);
}

TEST_F(obs_mtf_event_handler, progress_without_a_host_is_dropped) {
  OBS_MTF_Event_Handler handler(nullptr, job.activity());
  EXPECT_EQ(0, handler.handle_progress(7, 1, 2, 3));
}

TEST_F(obs_mtf_event_handler, canceling_is_the_one_state_and_no_other) {
  OBS_MTF_Event_Handler handler(&host, job.activity());
  for (int state = JOB_STATE_NONE; state <= JOB_STATE_OPENING; ++state) {
    job.activity().state = static_cast<Job_State>(state);
    EXPECT_EQ(state == JOB_STATE_CANCELING, handler.canceling()) << state;
    EXPECT_EQ(handler.canceling(), handler.is_canceling()) << state;
  }
}

TEST_F(obs_mtf_event_handler, progress_is_reported_as_it_comes) {
  EXPECT_EQ(0, OBS_MTF_Event_Handler(&host, job.activity()).mode());
}

} // namespace
