#pragma once

#include <ace/Log_Msg_Callback.h>

#include <memory>
#include <mutex>

/// A job's log: every line goes to the program's log and, where one is set, to a sink of the job's own. Any thread; it
/// may outlive its job.
class Job_Log : public ACE_Log_Msg_Callback {
public:
  void sink(std::shared_ptr<ACE_Log_Msg_Callback> sink);
  void log(ACE_Log_Record& record) override;

private:
  std::mutex mutex_; ///< guards `sink_`
  std::shared_ptr<ACE_Log_Msg_Callback> sink_;
};

/// Writes one line to the program's log.
void write_program_log(ACE_Log_Record& record);
