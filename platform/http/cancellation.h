#pragma once

/// True when the job that the calling thread works for is being cancelled; false for a thread without a job.
bool current_job_cancelled();

class Job;

/// The job of the thread that makes this, for threads that do a part of its work. The job outlives them.
class Callers_Job {
public:
  Callers_Job();
  /// The calling thread works for that job, too, from now on.
  void adopt() const;

private:
  Job* const job_;
};
