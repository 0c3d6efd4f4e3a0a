#pragma once

#include <ace/Log_Msg_Backend.h>

#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

/// Where all log lines of the process go: appended to a file, and to standard error as well when asked. While a job
/// runs it also keeps what its outcome needs: the lines of priority error and above.
///
/// An error line right before a line "Retry(" of the same thread and source file tells of an attempt that is repeated:
/// it is no error of the run. Whatever becomes of the operation in the end, the lines after it tell. The same holds for
/// all lines about an object that is tried again because the service was away (AGAIN_LINE, platform/mtf/engine_log.h).
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
  /// The errors since `clear_errors` in their order, without ends of line; at most 1,000 of them.
  std::vector<std::string> errors() const;
  /// The first of them, or empty.
  std::string first_error() const;
  /// The last line of priority error, also one of an attempt that was repeated.
  std::string last_error() const;

private:
  int file_ = -1;
  Verbosity verbosity_ = QUIET;
  /// A thread's error line while nothing has come after it.
  struct Attempt {
    unsigned long long number;
    std::string file;
    std::string text;
  };

  void note(const ACE_Log_Record& record, const std::string& text);
  void forget(const std::string& path);

  mutable std::mutex mutex_; ///< guards what follows
  unsigned long long numbers_ = 0;
  std::map<unsigned long long, std::string> errors_; ///< by their order
  std::map<std::thread::id, Attempt> attempts_;
  std::string last_error_;
};
