#include "agent/agent_log.h"

#include "agent/run_errors.h"
#include "platform/base/printable.h"
#include "platform/mtf/engine_log.h"
#include "sdk/base/time_format.h"

#include <ace/Log_Msg.h>
#include <ace/Log_Record.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>

namespace {

constexpr size_t MAX_ERRORS = 1000;

const char* priority_name(ACE_UINT32 type) {
  switch (type) {
  case LM_DEBUG:
  case LM_TRACE:
    return "debug";
  case LM_INFO:
  case LM_NOTICE:
    return "info";
  case LM_WARNING:
    return "warning";
  case LM_EMERGENCY:
    return "emergency";
  default:
    return "error";
  }
}

bool is_error(ACE_UINT32 type) {
  return type == LM_ERROR || type == LM_CRITICAL || type == LM_ALERT || type == LM_EMERGENCY;
}

void write_all(int file, const std::string& text) {
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = ::write(file, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR)
      continue;
    if (n <= 0)
      return; // a log that cannot be written must not stop the work
    done += static_cast<size_t>(n);
  }
}

} // namespace

bool Agent_Log::start(const std::string& file, Verbosity verbosity, std::string& error) {
  verbosity_ = verbosity;
  if (!file.empty()) {
    file_ = ::open(file.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
    if (file_ < 0) {
      error = "the log file '" + file + "' cannot be opened: " + std::strerror(errno);
      return false;
    }
  }
  ACE_Log_Msg::msg_backend(this);
  if (ACE_LOG_MSG->open(ACE_TEXT("obs-agent"), ACE_Log_Msg::CUSTOM) != 0) {
    error = "the log cannot be put in place";
    return false;
  }
  u_long mask = LM_INFO | LM_NOTICE | LM_WARNING | LM_ERROR | LM_CRITICAL | LM_ALERT | LM_EMERGENCY;
  if (verbosity == DEBUG)
    mask |= LM_DEBUG;
  ACE_LOG_MSG->priority_mask(mask, ACE_Log_Msg::PROCESS);
  ACE_LOG_MSG->priority_mask(0, ACE_Log_Msg::THREAD);
  // Threads begin with their own mask; it adds to the process's, so it must be empty by default.
  ACE_Log_Msg::disable_debug_messages(verbosity == DEBUG ? static_cast<ACE_Log_Priority>(0) : LM_DEBUG);
  return true;
}

Agent_Log::~Agent_Log() {
  ACE_LOG_MSG->clr_flags(ACE_Log_Msg::CUSTOM);
  ACE_Log_Msg::msg_backend(nullptr);
  if (file_ >= 0)
    ::close(file_);
}

int Agent_Log::open(const ACE_TCHAR*) {
  return 0;
}
int Agent_Log::reset() {
  return 0;
}
int Agent_Log::close() {
  return 0;
}

ssize_t Agent_Log::log(ACE_Log_Record& record) {
  std::string text(record.msg_data());
  while (!text.empty() && text.back() == '\n')
    text.pop_back();
  note(record, text);
  const std::string line = POSIX_Time_To_ISO8601(std::time(nullptr)).str() + " " + priority_name(record.type()) + " " +
                           printable(text) + "\n";
  if (file_ >= 0)
    write_all(file_, line);
  if (verbosity_ != QUIET)
    write_all(STDERR_FILENO, line);
  return 0;
}

void Agent_Log::note(const ACE_Log_Record& record, const std::string& text) {
  const char* const file = ACE_LOG_MSG->file();
  const std::lock_guard<std::mutex> guard(mutex_);
  const auto before = attempts_.find(std::this_thread::get_id());
  if (before != attempts_.end()) {
    const bool repeated = text.compare(0, 6, "Retry(") == 0 && file != nullptr && before->second.file == file;
    if (!repeated && errors_.size() < MAX_ERRORS)
      errors_.emplace(before->second.number, std::move(before->second.text));
    attempts_.erase(before);
  }
  if (text.compare(0, std::strlen(AGAIN_LINE), AGAIN_LINE) == 0)
    forget(text.substr(std::strlen(AGAIN_LINE)));
  if (!is_error(record.type()))
    return;
  last_error_ = text;
  attempts_.emplace(std::this_thread::get_id(), Attempt{++numbers_, file != nullptr ? file : "", text});
}

/// Under the lock: what was said about an object that is tried again, by whichever thread.
void Agent_Log::forget(const std::string& path) {
  std::erase_if(errors_, [&](const auto& error) { return is_about(error.second, path); });
  std::erase_if(attempts_, [&](const auto& attempt) { return is_about(attempt.second.text, path); });
}

void Agent_Log::clear_errors() {
  const std::lock_guard<std::mutex> guard(mutex_);
  errors_.clear();
  attempts_.clear();
  last_error_.clear();
}

std::vector<std::string> Agent_Log::errors() const {
  const std::lock_guard<std::mutex> guard(mutex_);
  std::map<unsigned long long, std::string> all = errors_;
  for (const auto& attempt : attempts_)
    all.emplace(attempt.second.number, attempt.second.text);
  std::vector<std::string> texts;
  for (const auto& numbered : all)
    if (texts.size() < MAX_ERRORS)
      texts.push_back(numbered.second);
  return texts;
}

std::string Agent_Log::first_error() const {
  const std::vector<std::string> all = errors();
  return all.empty() ? std::string() : all.front();
}

std::string Agent_Log::last_error() const {
  const std::lock_guard<std::mutex> guard(mutex_);
  return last_error_;
}
