#include "obs/agent/job/obs_job_creator.h"

#include "obs/agent/job_frame/exports.h"

OBS_DEFINE_FACTORY(OBS_Job_Creator, Job_Creator, OBS_Job_Creator)
