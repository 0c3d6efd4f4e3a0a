#pragma once

#include <ace/Log_Msg_Callback.h>

#include <memory>
#include <string>

/// How one script is run and what becomes of its streams.
struct Script_Run {
  std::string text;                          ///< for /bin/sh
  bool keep_environment = false;             ///< false: the environment that the agent was started with
  const std::string* input = nullptr;        ///< what it reads; null: nothing
  std::shared_ptr<ACE_Log_Msg_Callback> log; ///< takes its output line by line; empty: the program's log
  std::string* output = nullptr;             ///< takes its standard output instead of the log
  size_t output_limit = 1024 * 1024;         ///< bytes kept of it; the rest is read and dropped
};

/// Runs it and waits for its end. True when it exits 0; else the log says what it did. What processes that the script
/// leaves behind still write is not waited for.
bool run_script(const Script_Run& run);
