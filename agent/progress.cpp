#include "agent/progress.h"

#include "agent/outcome.h"

#include <unistd.h>

#include <cstdio>

namespace {

constexpr double TERMINAL_INTERVAL = 0.2; ///< seconds
constexpr double LOG_INTERVAL = 10;

} // namespace

Progress::Progress(bool enabled)
    : enabled_(enabled), terminal_(isatty(STDERR_FILENO) != 0), started_(Steady::now()), last_shown_(started_) {}

void Progress::show(const Job_Activity& activity) {
  if (!enabled_)
    return;
  const Steady::time_point now = Steady::now();
  const std::chrono::duration<double> since_last = now - last_shown_;
  if (since_last.count() < (terminal_ ? TERMINAL_INTERVAL : LOG_INTERVAL))
    return;
  last_shown_ = now;

  const std::chrono::duration<double> elapsed = now - started_;
  const unsigned long long objects = activity.objects;
  const unsigned long long listed = activity.listed;
  const unsigned long long bytes = activity.size;
  const std::string rate = human_bytes(static_cast<unsigned long long>(static_cast<double>(bytes) / elapsed.count()));
  std::fprintf(stderr, "%s%llu objects, %s, %s/s, %llu listed ahead, %llu problems%s", terminal_ ? "\r\033[K" : "",
               objects, human_bytes(bytes).c_str(), rate.c_str(), listed > objects ? listed - objects : 0ull,
               static_cast<unsigned long long>(activity.problems), terminal_ ? "" : "\n");
  std::fflush(stderr);
  line_open_ = terminal_;
}

void Progress::finish() {
  if (line_open_) {
    std::fputs("\r\033[K", stderr);
    std::fflush(stderr);
    line_open_ = false;
  }
}
