#pragma once

#include "sdk/base/clock.h"
#include "sdk/job/job.h"

/// Sleeps between two looks at a merge, for all of `seconds`, whatever becomes of the job meanwhile: a merge is waited
/// for to its end by a cancelled job too. The clock cuts the sleep of a thread short that works for a cancelled job, so
/// the thread works for none as long as it sleeps; otherwise such a job would look at the merge all the time.
inline void sleep_for_merge(unsigned seconds) {
  struct Without_Job {
    Without_Job() : job(Job::current(nullptr)) {}
    ~Without_Job() { Job::current(job); }
    Without_Job(const Without_Job&) = delete;
    Without_Job& operator=(const Without_Job&) = delete;
    Job* const job;
  } without_job;
  Clock::instance().sleep(seconds);
}
