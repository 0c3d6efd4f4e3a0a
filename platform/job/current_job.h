#pragma once

/// Whether the job that the calling thread works for is being cancelled. False for a thread without a job.
bool is_current_job_canceling();
