#pragma once

#include "obs/agent/job/backup_executor.h"
#include "obs/agent/job/restore_executor.h"
#include "obs/agent/job_frame/default_job_creator_t.h"
#include "obs/agent/job_frame/default_job_t.h"

/// Makes the backup and restore jobs of object storage.
typedef Default_Job_Creator_T<Controllable_Job_T<OBS_Backup_Executor>, Controllable_Job_T<OBS_Restore_Executor>>
    OBS_Job_Creator;
