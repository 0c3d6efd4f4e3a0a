#pragma once

#include "obs/agent/job_frame/object_creator_impl_t.h"
#include "sdk/job/job.h"

/// Makes a BACKUP_JOB or a RESTORE_JOB, by the type of the definition. Keeps no state; any thread.
template <typename BACKUP_JOB, typename RESTORE_JOB>
class Default_Job_Creator_T : public Job_Creator {
public:
  Job_var create(Job_Definition_var definition) override {
    Job* job = nullptr;
    switch (definition->type()) {
    case JOB_DEFINITION_BACKUP:
      job = make_without_throwing<BACKUP_JOB>(definition);
      break;
    case JOB_DEFINITION_RESTORE:
      job = make_without_throwing<RESTORE_JOB>(definition);
      break;
    default:
      break;
    }
    return Job_var(job, false);
  }
};
