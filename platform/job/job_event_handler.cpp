#include "sdk/job/job.h"

#include "sdk/base/clock.h"

#include <cstdarg>
#include <cstdio>

Job_Event_Handler::Job_Event_Handler(Job& job) : job_(job) {}

Job_Event_Handler::~Job_Event_Handler() = default;

void Job_Event_Handler::handle_start_job() {
  Job_Activity& activity = job_.activity();
  const time_t now = Clock::instance().now();
  activity.start_time = now;
  activity.last_run_time = now;
  // A request to stop that came before the work began still counts.
  Job_State state = activity.state;
  while (state != JOB_STATE_CANCELING && state != JOB_STATE_PAUSING && state != JOB_STATE_ABORTING)
    if (activity.state.compare_exchange_weak(state, JOB_STATE_RUNNING))
      break;
  job_.sync(nullptr);
}

namespace {

void end(Job& job, Job_State state) {
  job.activity().end_time = Clock::instance().now();
  job.state(state);
  job.sync(nullptr);
}

} // namespace

void Job_Event_Handler::handle_success() {
  const bool clean = job_.alerts().empty() && job_.activity().problems == 0;
  end(job_, clean ? JOB_STATE_COMPLETED : JOB_STATE_COMPLETED_WITH_ERRORS);
}

void Job_Event_Handler::handle_paused() {
  end(job_, JOB_STATE_PAUSED);
}

void Job_Event_Handler::handle_canceled() {
  end(job_, JOB_STATE_CANCELED);
}

void Job_Event_Handler::handle_failure(int code, const char* format, ...) {
  if (format != nullptr) {
    va_list arguments;
    va_start(arguments, format);
    va_list again;
    va_copy(again, arguments);
    const int length = vsnprintf(nullptr, 0, format, arguments);
    va_end(arguments);
    std::string text(format);
    if (length >= 0) {
      text.assign(static_cast<size_t>(length) + 1, '\0');
      vsnprintf(&text[0], text.size(), format, again);
      text.pop_back();
    }
    va_end(again);
    job_.set_result("failure", text);
  }
  if (code != -1)
    job_.set_result("failure_code", code);
  end(job_, JOB_STATE_ERROR);
}

int Job_Event_Handler::handle_progress(int, unsigned long long, unsigned long long, unsigned long long) {
  return 0;
}
