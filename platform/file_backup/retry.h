#pragma once

#include "sdk/base/clock.h"
#include "sdk/base/exponential_backoff.h"
#include "sdk/job/job.h"

#include <ace/Log_Msg.h>

#include <string>

/// Repeats `attempt(error)` with growing waits (1 second up to 60) until it answers true, the waits add up to
/// `max_seconds` (-1: no bound) or the job of the calling thread is being cancelled. Gives up with a log line:
/// "Failed to WHAT: error."
template <typename ATTEMPT>
bool retry_within(int max_seconds, const char* what, ATTEMPT attempt) {
  Exponential_Backoff_Iterator wait = exponential_backoff(1, UNLIMITED_RETRIES, 60, true);
  for (int count = 1;; ++count) {
    std::string error;
    if (attempt(error))
      return true;
    Job* const job = Job::current();
    const bool canceling = job != nullptr && job->activity().state == JOB_STATE_CANCELING;
    if (canceling || wait == Exponential_Backoff_Iterator() ||
        (max_seconds != -1 &&
         wait.cumulation() >= static_cast<unsigned long long>(max_seconds > 0 ? max_seconds : 0))) {
      ACE_ERROR((LM_ERROR, ACE_TEXT("Failed to %C: %C.\n"), what, error.c_str()));
      return false;
    }
    const unsigned seconds = *wait;
    ACE_DEBUG((LM_INFO, ACE_TEXT("Retry(%d) %N:%l at %u second(s) later: %C.\n"), count, seconds, error.c_str()));
    ++wait;
    Clock::instance().sleep(seconds);
  }
}
