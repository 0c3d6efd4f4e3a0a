#include "platform/http/cancellation.h"

#include "sdk/job/job.h"

bool current_job_cancelled() {
  Job* job = Job::current();
  return job && job->activity().state.load(std::memory_order_relaxed) == JOB_STATE_CANCELING;
}

Callers_Job::Callers_Job() : job_(Job::current()) {}

void Callers_Job::adopt() const {
  Job::current(job_);
}
