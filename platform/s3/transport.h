#pragma once

#include "platform/http/curl_connection.h"
#include "platform/s3/endpoint.h"
#include "platform/s3/error_map.h"

#include <atomic>
#include <functional>
#include <memory>
#include <string>

namespace s3 {

/// What became of a request.
struct Outcome {
  S3_Error error;           ///< number 0: success
  unsigned retry_after = 0; ///< seconds that the service asked for; 0: none
  HTTP_Head head;
  std::string body;          ///< of a small answer
  std::string storage_class; ///< that an error document names as the reason

  bool ok() const { return error.number() == 0; }
};

/// Sends requests to an endpoint: signs, follows a redirection or a hint at another region once, corrects the clock
/// once, and maps failures. Never repeats a request for any other reason. One thread at a time.
class Transport {
public:
  explicit Transport(std::shared_ptr<Endpoint> endpoint) : endpoint_(std::move(endpoint)) {}

  /// Sends and returns when a successful answer's head is in; its body is then open to be read. On failure the
  /// connection is in state FAILED. Null only when memory is short.
  Curl_Connection_ref open(const Request& request, Outcome& outcome);
  /// Sends; only the answer's head matters.
  Outcome ask(const Request& request);
  /// Sends and reads an answer into `reader`; an error document that comes under a success is a failure, and so is a
  /// document that is refused ("MalformedAnswer").
  Outcome ask(const Request& request, Answer_Reader& reader);
  /// Waits end early from now on, but not because the job is being cancelled: for tidying up.
  void finish_despite_cancel() { despite_cancel_ = true; }

  /// Waits of the requests that follow end early once `flag` is true; null: none. It must outlive their connections.
  void stop_on(const std::atomic<bool>* flag) { stop_ = flag; }

  Endpoint& endpoint() { return *endpoint_; }
  const std::shared_ptr<Endpoint>& shared_endpoint() const { return endpoint_; }
  /// "GET http://host/bucket/key" for messages.
  std::string describe(const Request& request) const;

private:
  Curl_Connection_ref open_i(const Request& request, Outcome& outcome);
  void note(const Request& request, const S3_Error& error);

  std::shared_ptr<Endpoint> endpoint_;
  bool despite_cancel_ = false;
  const std::atomic<bool>* stop_ = nullptr;
  Request_Gate::Ticket last_ticket_; ///< of the last request, whose body may yet turn out to be a refusal
};

/// Calls `attempt` until it succeeds, fails for good, or the waits have added up to `max_seconds` (-1: no bound).
/// `pause` waits for so many seconds; empty: by the clock in force, which ends it when the job is being cancelled.
Outcome retried(int max_seconds, const std::function<Outcome()>& attempt,
                const std::function<void(unsigned)>& pause = nullptr);

} // namespace s3
