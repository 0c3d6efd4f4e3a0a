#pragma once

#include <mutex>

/// The signals INT and TERM, with which an operator cancels. A command that can be cancelled ends with 130 from its
/// very beginning: at once until `block` was called, and afterwards when whoever asks `take` or `Cancel_Request` has
/// ended its work. Signals that the process was started to ignore stay ignored.
namespace cancel_signals {

/// Has them end the process at once, with 130. For the start of `main`.
void exit_at_once();
/// Blocks them for the calling thread and all that it starts afterwards. Before the first thread.
void block();
/// True when one is pending; takes it.
bool take();

} // namespace cancel_signals

/// Whether the operator has asked to cancel a command that is no job. A second signal ends the process at once, unless
/// the work can no longer be cancelled. Any thread.
class Cancel_Request {
public:
  Cancel_Request() { cancel_signals::block(); }
  bool asked();
  /// The work goes on to its end from here: false when it was asked to cancel before.
  bool begin_commit();

private:
  std::mutex mutex_;
  bool asked_ = false;
  bool committing_ = false;
};
