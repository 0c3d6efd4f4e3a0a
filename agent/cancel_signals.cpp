#include "agent/cancel_signals.h"

#include "agent/outcome.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

namespace {

sigset_t both() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  return set;
}

extern "C" void end_now(int) {
  _exit(EXIT_CANCELLED);
}

} // namespace

void cancel_signals::exit_at_once() {
  for (const int signal : {SIGINT, SIGTERM}) {
    struct sigaction before = {};
    if (::sigaction(signal, nullptr, &before) != 0 || before.sa_handler != SIG_DFL)
      continue;
    struct sigaction action = {};
    action.sa_handler = end_now;
    ::sigaction(signal, &action, nullptr);
  }
}

void cancel_signals::block() {
  const sigset_t set = both();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

bool cancel_signals::take() {
  const sigset_t set = both();
  const timespec now = {0, 0};
  return sigtimedwait(&set, nullptr, &now) > 0;
}

bool Cancel_Request::asked() {
  const std::lock_guard<std::mutex> guard(mutex_);
  if (!committing_ && cancel_signals::take()) {
    if (asked_)
      _exit(EXIT_CANCELLED);
    asked_ = true;
  }
  return asked_;
}

bool Cancel_Request::begin_commit() {
  if (asked())
    return false;
  const std::lock_guard<std::mutex> guard(mutex_);
  committing_ = true;
  return true;
}
