#pragma once

#include <ace/Log_Msg_Callback.h>
#include <ace/Log_Priority.h>

#include <memory>
#include <string>

/// Writes one line of an engine to its job's log, or to the program's where there is no job. Any thread.
void engine_log(const std::shared_ptr<ACE_Log_Msg_Callback>& log, ACE_Log_Priority priority, const std::string& text);
