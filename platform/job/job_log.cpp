#include "platform/job/job_log.h"

#include <ace/Log_Msg.h>
#include <ace/Log_Record.h>

#include <cstring>

void write_program_log(ACE_Log_Record& record) {
  const char* text = record.msg_data();
  const size_t length = std::strlen(text);
  const bool ended = length > 0 && text[length - 1] == '\n';
  const ACE_Log_Priority priority = static_cast<ACE_Log_Priority>(record.type());
  ACE_DEBUG((priority, ended ? ACE_TEXT("%C") : ACE_TEXT("%C\n"), text));
}

void Job_Log::sink(std::shared_ptr<ACE_Log_Msg_Callback> sink) {
  const std::lock_guard<std::mutex> guard(mutex_);
  sink_.swap(sink);
}

void Job_Log::log(ACE_Log_Record& record) {
  write_program_log(record);
  std::shared_ptr<ACE_Log_Msg_Callback> sink;
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    sink = sink_;
  }
  if (sink)
    sink->log(record);
}
