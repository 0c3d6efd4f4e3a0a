#include "platform/mtf/engine_log.h"

#include <ace/Log_Msg.h>
#include <ace/Log_Record.h>
#include <ace/OS_NS_sys_time.h>
#include <ace/OS_NS_unistd.h>

void engine_log(const std::shared_ptr<ACE_Log_Msg_Callback>& log, ACE_Log_Priority priority, const std::string& text) {
  if (!log) {
    ACE_DEBUG((priority, ACE_TEXT("%C\n"), text.c_str()));
    return;
  }
  ACE_Log_Record record(priority, ACE_OS::gettimeofday(), ACE_OS::getpid());
  // msg_data has a fixed bound in some builds of ACE.
  const std::string line = text.substr(0, 3000) + "\n";
  record.msg_data(ACE_TEXT_CHAR_TO_TCHAR(line.c_str()));
  log->log(record);
}

void log_again(const std::string& path) {
  ACE_DEBUG((LM_INFO, ACE_TEXT("%C%C\n"), AGAIN_LINE, path.c_str()));
}
