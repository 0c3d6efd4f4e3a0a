#include "platform/job/current_job.h"

// Targets run in no job: what asks whether its own is being cancelled goes on.
bool is_current_job_canceling() {
  return false;
}
