#pragma once

#include "platform/s3/request_pace.h"

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>

namespace s3 {

/// The gate that all requests of this process to one endpoint pass with one key: open until the service asks for fewer,
/// then as wide as it turns out to take. It bounds nothing of its own: no more requests are in flight than there are
/// threads that send some. A request is within from its beginning to the head of its answer; reading the body is not
/// counted, so that a reader that is held up keeps nobody out. Any thread.
class Request_Gate {
public:
  /// The endpoint's gate; one that nobody holds any more begins anew.
  static std::shared_ptr<Request_Gate> of(const std::string& host, unsigned short port, const std::string& access_key);

  /// A request that is within.
  struct Ticket {
    unsigned long generation = 0;
    bool valid = false;
  };

  /// Waits until a request may begin, by the clock in force. Invalid when it has to wait while the calling thread's job
  /// is being cancelled or `stop` (may be null) is true.
  Ticket enter(const std::atomic<bool>* stop);
  void leave(const Ticket& ticket, bool refused);
  /// A request that has left was refused all the same.
  void refuse(const Ticket& ticket);
  /// The service asked for nothing more for so long.
  void close_for(unsigned seconds);

  /// For tests: what was learned so far.
  Request_Pace pace() const;

private:
  mutable std::mutex mutex_; ///< guards all
  std::condition_variable changed_;
  Request_Pace pace_;
  double closed_until_ = 0; ///< seconds, by the clock's monotonic time
};

} // namespace s3
