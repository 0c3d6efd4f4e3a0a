#include "platform/job/script.h"

#include "platform/job/job_log.h"
#include "sdk/base/check.h"

#include <ace/Log_Record.h>
#include <ace/OS_NS_sys_time.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace {

constexpr size_t MAX_LINE = 2048; ///< longer ones are cut into several; the log facility carries 4 KiB
constexpr int LOOK_FOR_END = 50;  ///< milliseconds

std::vector<std::string> copy_environment() {
  std::vector<std::string> copy;
  for (char** at = environ; at != nullptr && *at != nullptr; ++at)
    copy.emplace_back(*at);
  return copy;
}

// Taken while the library is loaded, before the agent itself adds anything.
const std::vector<std::string> first_environment = copy_environment();

class File {
public:
  File() = default;
  explicit File(int handle) : handle_(handle) {}
  File(const File&) = delete;
  File& operator=(const File&) = delete;
  ~File() { close(); }
  int get() const { return handle_; }
  bool is_open() const { return handle_ >= 0; }
  void reset(int handle) {
    close();
    handle_ = handle;
  }
  void close() {
    if (handle_ >= 0)
      ::close(handle_);
    handle_ = -1;
  }

private:
  int handle_ = -1;
};

bool make_pipe(File& in, File& out) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0)
    return false;
  in.reset(ends[0]);
  out.reset(ends[1]);
  return fcntl(in.get(), F_SETFL, O_NONBLOCK) == 0;
}

// Input comes from memory, so that a script which does not read all of it costs neither a blocked write nor a SIGPIPE.
bool make_input(const std::string* input, File& file) {
  if (input == nullptr) {
    file.reset(open("/dev/null", O_RDONLY | O_CLOEXEC));
    return file.is_open();
  }
  file.reset(memfd_create("script_input", MFD_CLOEXEC));
  if (!file.is_open())
    return false;
  for (size_t at = 0; at < input->size();) {
    const ssize_t written = write(file.get(), input->data() + at, input->size() - at);
    if (written < 0 && errno != EINTR)
      return false;
    if (written > 0)
      at += static_cast<size_t>(written);
  }
  return lseek(file.get(), 0, SEEK_SET) == 0;
}

/// Cuts a stream into lines for the log.
class Line_Log {
public:
  explicit Line_Log(ACE_Log_Msg_Callback* log) : log_(log) {}

  void add(const char* data, size_t size) {
    for (const char* const end = data + size; data != end;) {
      const char* const newline = std::find(data, end, '\n');
      const size_t room = MAX_LINE - line_.size();
      const size_t length = std::min(static_cast<size_t>(newline - data), room);
      line_.append(data, length);
      data += length;
      if (data != end && *data == '\n') {
        ++data;
        flush(true);
      } else if (line_.size() == MAX_LINE) {
        flush(false);
      }
    }
  }

  void finish() { flush(false); }

private:
  void flush(bool even_empty) {
    if (line_.empty() && !even_empty)
      return;
    std::replace(line_.begin(), line_.end(), '\0', ' ');
    ACE_Log_Record record(LM_INFO, ACE_OS::gettimeofday(), getpid());
    record.msg_data(line_.c_str());
    if (log_ != nullptr)
      log_->log(record);
    else
      write_program_log(record);
    line_.clear();
  }

  ACE_Log_Msg_Callback* log_;
  std::string line_;
};

class Spawn_Settings {
public:
  Spawn_Settings() {
    posix_spawn_file_actions_init(&actions);
    posix_spawnattr_init(&attributes);
    // The agent's own handling of signals is no business of the script's.
    sigset_t none;
    sigset_t defaults;
    sigemptyset(&none);
    sigemptyset(&defaults);
    for (const int number : {SIGPIPE, SIGINT, SIGQUIT, SIGTERM, SIGHUP, SIGCHLD})
      sigaddset(&defaults, number);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    // A group of its own: an interrupt from the keyboard asks the agent to cancel, and does not tear its scripts down.
    posix_spawnattr_setpgroup(&attributes, 0);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
  }
  ~Spawn_Settings() {
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
  }

  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attributes;
};

int spawn_shell(const Script_Run& run, int in, int out, int err, pid_t& pid) {
  Spawn_Settings settings;
  posix_spawn_file_actions_adddup2(&settings.actions, in, STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&settings.actions, out, STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&settings.actions, err, STDERR_FILENO);
  // Whatever else is open is the agent's: its database, its connections, what its own parent left open.
  posix_spawn_file_actions_addclosefrom_np(&settings.actions, STDERR_FILENO + 1);

  std::vector<std::string> environment = run.keep_environment ? copy_environment() : first_environment;
  std::vector<char*> variables;
  for (std::string& variable : environment)
    variables.push_back(&variable[0]);
  variables.push_back(nullptr);

  std::string shell("sh");
  std::string option("-c");
  std::string text(run.text);
  char* arguments[] = {&shell[0], &option[0], &text[0], nullptr};
  return posix_spawn(&pid, "/bin/sh", &settings.actions, &settings.attributes, arguments, variables.data());
}

/// One output stream of the running script.
struct Stream {
  File file;
  std::string* kept = nullptr; ///< null: to the log
  size_t limit = 0;
  Line_Log lines;

  explicit Stream(ACE_Log_Msg_Callback* log) : lines(log) {}

  void take(const char* data, size_t size) {
    if (kept == nullptr)
      lines.add(data, size);
    else
      kept->append(data, std::min(size, limit - kept->size()));
  }

  // Reads what there is; closes the file at its end.
  void drain() {
    char buffer[16 * 1024];
    while (file.is_open()) {
      const ssize_t got = read(file.get(), buffer, sizeof buffer);
      if (got > 0)
        take(buffer, static_cast<size_t>(got));
      else if (got == 0 || (errno != EINTR && errno != EAGAIN))
        file.close();
      else if (errno == EAGAIN)
        return;
    }
  }
};

int wait_for(pid_t pid, int flags, int& status) {
  for (;;) {
    const pid_t ended = waitpid(pid, &status, flags);
    if (ended >= 0 || errno != EINTR)
      return ended;
  }
}

// Reads both streams until the shell has ended. Both are often open for longer than that, held by a process that the
// script left in the background, so their end is not what is waited for.
int follow(pid_t pid, Stream& out, Stream& err, int& status) {
  for (;;) {
    pollfd files[2] = {{out.file.get(), POLLIN, 0}, {err.file.get(), POLLIN, 0}};
    const bool any = out.file.is_open() || err.file.is_open();
    if (any)
      poll(files, 2, LOOK_FOR_END);
    const int ended = wait_for(pid, any ? WNOHANG : 0, status);
    out.drain();
    err.drain();
    if (ended != 0)
      return ended;
  }
}

bool judge(int status) {
  if (WIFEXITED(status)) {
    if (WEXITSTATUS(status) == 0)
      return true;
    ACE_ERROR((LM_ERROR, ACE_TEXT("Script failed with exit code %d.\n"), WEXITSTATUS(status)));
  } else if (WIFSIGNALED(status)) {
    ACE_ERROR((LM_ERROR, ACE_TEXT("Script was ended by signal %d.\n"), WTERMSIG(status)));
  }
  return false;
}

bool fail(const char* what, int error) {
  ACE_ERROR((LM_ERROR, ACE_TEXT("Failed to run script, %C: %C.\n"), what, strerror(error)));
  return false;
}

} // namespace

bool run_script(const Script_Run& run) {
  if (run.text.find('\0') != std::string::npos)
    return fail("its text has a NUL byte in it", EINVAL);

  Stream out(run.log.get());
  Stream err(run.log.get());
  out.kept = run.output;
  out.limit = run.output_limit;
  if (run.output != nullptr)
    run.output->clear();

  File in;
  File out_end;
  File err_end;
  if (!make_input(run.input, in))
    return fail("cannot set up its input", errno);
  // Without a stream to keep, both outputs share one pipe and so stay in order.
  const bool apart = run.output != nullptr;
  if (!make_pipe(out.file, out_end) || (apart && !make_pipe(err.file, err_end)))
    return fail("cannot make a pipe", errno);

  pid_t pid = 0;
  const int error = spawn_shell(run, in.get(), out_end.get(), apart ? err_end.get() : out_end.get(), pid);
  if (error != 0)
    return fail("cannot start /bin/sh", error);
  in.close();
  out_end.close();
  err_end.close();

  int status = 0;
  const int ended = follow(pid, out, err, status);
  const int wait_error = errno;
  out.lines.finish();
  err.lines.finish();
  return ended == pid ? judge(status) : fail("cannot wait for its end", wait_error);
}
