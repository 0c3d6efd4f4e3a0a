#pragma once

#include <ace/Log_Msg.h>
#include <ace/Log_Msg_Callback.h>
#include <ace/Log_Record.h>

#include <mutex>
#include <string>
#include <vector>

namespace module_testing {

struct Log_Line {
  unsigned long priority; ///< LM_DEBUG, LM_INFO, ...
  std::string text;
};

/// Keeps every log line of the calling thread, instead of printing it, while it lives. Another thread joins in by
/// `attach`. All operations may be called from any thread.
class Log_Sink : public ACE_Log_Msg_Callback {
public:
  Log_Sink() : flags_(ACE_LOG_MSG->flags()), previous_(ACE_LOG_MSG->msg_callback(this)) { attach(); }
  ~Log_Sink() override {
    ACE_LOG_MSG->msg_callback(previous_);
    ACE_LOG_MSG->clr_flags(ACE_Log_Msg::MSG_CALLBACK);
    ACE_LOG_MSG->set_flags(flags_);
  }

  /// Makes the calling thread log into this sink alone. The sink has to outlive what the thread logs.
  void attach() {
    ACE_LOG_MSG->msg_callback(this);
    ACE_LOG_MSG->set_flags(ACE_Log_Msg::MSG_CALLBACK);
    ACE_LOG_MSG->clr_flags(ACE_Log_Msg::STDERR);
  }

  void log(ACE_Log_Record& record) override {
    const std::lock_guard<std::mutex> guard(lock_);
    lines_.push_back(Log_Line{record.type(), record.msg_data()});
  }

  std::vector<Log_Line> lines() const {
    const std::lock_guard<std::mutex> guard(lock_);
    return lines_;
  }

  /// How many lines of that priority begin with `text`.
  size_t count(unsigned long priority, const std::string& text) const {
    const std::lock_guard<std::mutex> guard(lock_);
    size_t found = 0;
    for (const Log_Line& line : lines_)
      if (line.priority == priority && line.text.compare(0, text.size(), text) == 0)
        ++found;
    return found;
  }
  /// How many lines of any priority hold `text` somewhere.
  size_t count(const std::string& text) const {
    const std::lock_guard<std::mutex> guard(lock_);
    size_t found = 0;
    for (const Log_Line& line : lines_)
      if (line.text.find(text) != std::string::npos)
        ++found;
    return found;
  }
  bool empty() const {
    const std::lock_guard<std::mutex> guard(lock_);
    return lines_.empty();
  }
  void clear() {
    const std::lock_guard<std::mutex> guard(lock_);
    lines_.clear();
  }

private:
  mutable std::mutex lock_;
  std::vector<Log_Line> lines_;
  unsigned long flags_;
  ACE_Log_Msg_Callback* previous_;
};

} // namespace module_testing
