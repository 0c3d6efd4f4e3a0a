#pragma once

#include "platform/pool/lock_order.h"

#include <memory>
#include <string>

/// A folder that one process at a time may change: the agent's state, or a pool. The threads of the process share the
/// lock, which is held as long as any of them has a share. The kernel lets go of it when the process ends, however
/// that happens; the file stays and says who held it last, by process id and host.
class Process_Lock {
public:
  static constexpr const char* FILE_NAME = ".lock";

  /// A share of this process' lock on `folder`, which is called `what` in messages ("the pool ..."). Null at once, with
  /// a message that names the holder, when another process has it. Any thread.
  static std::shared_ptr<Process_Lock> acquire(const std::string& folder, const std::string& what, std::string& error,
                                               Lock_Rank rank = Lock_Rank::POOL);
  ~Process_Lock();
  Process_Lock(const Process_Lock&) = delete;
  Process_Lock& operator=(const Process_Lock&) = delete;

private:
  Process_Lock(int fd, Lock_Order::Held_ptr order) : fd_(fd), order_(std::move(order)) {}
  const int fd_;
  const Lock_Order::Held_ptr order_;
};
