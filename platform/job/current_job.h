#pragma once

/// Whether the job that the calling thread works for is being cancelled. False for a thread without a job.
bool is_current_job_canceling();

/// The work of the calling thread's job goes to its end from here on: what would stop or pause it from outside is
/// refused. False when a cancel came before. True for a thread without a job.
bool begin_commit_of_current_job();
