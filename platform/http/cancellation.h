#pragma once

/// True when the job that the calling thread works for is being cancelled; false for a thread without a job.
bool current_job_cancelled();
