#include "obs/agent/job/obs_mtf_event_handler.h"

#include "sdk/job/job.h"

OBS_MTF_Event_Handler::OBS_MTF_Event_Handler(Job_Event_Handler* handler, Job_Activity& activity)
    : MTF::Event_Handler(0), handler_(handler), act_(activity) {}

OBS_MTF_Event_Handler::~OBS_MTF_Event_Handler() = default;

int OBS_MTF_Event_Handler::handle_progress(int code, unsigned long long, unsigned long long, unsigned long long) {
  return handler_ ? handler_->handle_progress(code, 0, 0, 0) : 0;
}

bool OBS_MTF_Event_Handler::canceling() {
  return act_.state == JOB_STATE_CANCELING;
}
