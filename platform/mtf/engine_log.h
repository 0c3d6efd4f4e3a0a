#pragma once

#include <ace/Log_Msg_Callback.h>
#include <ace/Log_Priority.h>

#include <memory>
#include <string>

/// Writes one line of an engine to its job's log, or to the program's where there is no job. Any thread.
void engine_log(const std::shared_ptr<ACE_Log_Msg_Callback>& log, ACE_Log_Priority priority, const std::string& text);

/// Begins the line which says that what failed about an object is tried again, since the service was away meanwhile.
/// Then lines about it that came before are no errors of the run.
constexpr const char* AGAIN_LINE = "The service was away; again: ";
/// Writes that line to the program's log. `path`: the object's, as other lines have it, with or without a "/" before
/// it.
void log_again(const std::string& path);
