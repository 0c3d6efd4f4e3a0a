#pragma once

#include <ace/Log_Msg_Backend.h>

#include <atomic>
#include <mutex>
#include <string>

/// Where all log lines of the process go: appended to a file, and to standard error as well when asked. While a job
/// runs it also keeps what its outcome needs: how many lines of priority error and above there were, and the first.
class Agent_Log : public ACE_Log_Msg_Backend {
public:
  enum Verbosity { QUIET, VERBOSE, DEBUG };

  /// Puts the log in place for the whole process. `file` may be empty. False with the reason when it cannot be opened.
  bool start(const std::string& file, Verbosity verbosity, std::string& error);
  ~Agent_Log() override;

  int open(const ACE_TCHAR* logger_key) override;
  int reset() override;
  int close() override;
  ssize_t log(ACE_Log_Record& record) override;

  /// Forgets the errors counted so far.
  void clear_errors();
  unsigned long long errors() const { return errors_; }
  /// The first line of priority error since `clear_errors`, without its end of line.
  std::string first_error() const;
  /// The last one.
  std::string last_error() const;

private:
  int file_ = -1;
  Verbosity verbosity_ = QUIET;
  std::atomic<unsigned long long> errors_{0};
  mutable std::mutex mutex_; ///< guards the texts
  std::string first_error_;
  std::string last_error_;
};
