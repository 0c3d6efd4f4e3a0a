#include "platform/s3/transport.h"

#include "platform/http/http_date.h"
#include "platform/s3/redirect.h"
#include "sdk/base/clock.h"
#include "sdk/base/exponential_backoff.h"

#include <ace/Log_Msg.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>

namespace s3 {
namespace {

constexpr size_t MAX_ERROR_DOCUMENT = 64 * 1024;
constexpr size_t PIECE = 32 * 1024;
/// A service may ask for a longer wait than this; no restore should sleep through it.
constexpr unsigned MAX_RETRY_AFTER = 300;
constexpr unsigned TIDY_UP_SECONDS = 5;
/// Services take requests that are a quarter of an hour off; below this the clock is not what they complain about.
constexpr long long LARGE_OFFSET = 300;

/// Seconds, or a date: then it is the service's own clock that counts.
unsigned retry_after(const HTTP_Head& head, time_t now) {
  const std::string& text = head.value("retry-after");
  ACE_UINT64 seconds = 0;
  if (!parse_size(text, seconds)) {
    const time_t until = text.empty() ? -1 : parse_http_date(text);
    const time_t theirs = parse_http_date(head.value("date"));
    const time_t from = theirs > 0 ? theirs : now;
    if (until <= from)
      return 0;
    seconds = static_cast<ACE_UINT64>(until - from);
  }
  return static_cast<unsigned>(std::min<ACE_UINT64>(seconds, MAX_RETRY_AFTER));
}

/// Whether the answer may be about the request's date: it says so, or refuses while the clocks are far apart.
bool blames_clock(const HTTP_Head& head, const Error_Document& document, long long offset) {
  if (document.code == "RequestTimeTooSkewed")
    return true;
  return (head.status == 400 || head.status == 401 || head.status == 403) && std::llabs(offset) > LARGE_OFFSET;
}

double monotonic_seconds() {
  const ACE_Time_Value now = Clock::instance().monotonic();
  return static_cast<double>(now.sec()) + static_cast<double>(now.usec()) / 1e6;
}

/// Asks for one key of the bucket, in whose listings the run has seen keys before unless it was denied them. The
/// service's watch hears of it.
void probe_service(const std::shared_ptr<Endpoint>& endpoint, const std::string& bucket) {
  Transport transport(endpoint);
  const Outcome outcome = transport.ask(Request{"GET", bucket, "", {{"max-keys", "1"}}, {}, false, {}});
  if (blames(outcome.error) != Blame::DENIAL)
    return;
  if (endpoint->ledger()->listed_keys == 0)
    endpoint->ledger()->service.answered();
}

/// A request inside the gate; it leaves at the latest with this object.
class Within {
public:
  Within(Request_Gate& gate, const Request_Gate::Ticket& ticket) : gate_(gate), ticket_(ticket) {}
  ~Within() { leave(false); }
  Within(const Within&) = delete;
  Within& operator=(const Within&) = delete;
  void leave(bool refused) {
    if (ticket_.valid)
      gate_.leave(ticket_, refused);
    ticket_.valid = false;
  }

private:
  Request_Gate& gate_;
  Request_Gate::Ticket ticket_;
};

} // namespace

Curl_Connection_ref Transport::open(const Request& request, Outcome& outcome) {
  if (endpoint_->ledger()->service.gone()) {
    outcome.error =
        S3_Error(EHOSTDOWN, 0, "ServiceGone", "the service was given up (" + describe(request) + ")", false);
    return Curl_Connection_ref();
  }
  Curl_Connection_ref connection = open_i(request, outcome);
  note(request, outcome.error);
  return connection;
}

/// Has the watch of the run's service hear of it.
void Transport::note(const Request& request, const S3_Error& error) {
  Service_Watch& service = endpoint_->ledger()->service;
  const Blame blame = blames(error);
  if (blame == Blame::OBJECT) {
    if (error.number() == 0 || error.status() != 0)
      service.answered();
    return;
  }
  const auto probe = [endpoint = std::weak_ptr<Endpoint>(endpoint_), bucket = request.bucket] {
    if (const std::shared_ptr<Endpoint> there = endpoint.lock())
      probe_service(there, bucket);
  };
  if (blame == Blame::SERVICE)
    service.failed(error.text(), monotonic_seconds(), probe);
  else
    service.denied(request.bucket + '/' + request.key, error.text(), monotonic_seconds(), probe);
}

Curl_Connection_ref Transport::open_i(const Request& request, Outcome& outcome) {
  // The counter lives inside the ledger, which it keeps alive.
  const std::shared_ptr<std::atomic<unsigned long long>> bytes_read(endpoint_->ledger(),
                                                                    &endpoint_->ledger()->bytes_read);
  Address address = endpoint_->address(request.bucket);
  bool may_follow = true, may_set_clock = true;
  for (;;) {
    Curl_Connection_ref connection(new (std::nothrow) Curl_Connection(endpoint_->pool(), bytes_read));
    if (!connection) {
      outcome.error = S3_Error(ENOMEM, 0, "OutOfMemory", "no memory for a request", false);
      return connection;
    }
    if (despite_cancel_)
      connection->finish_despite_cancel(TIDY_UP_SECONDS);
    connection->stop_on(stop_);
    connection->share(std::shared_ptr<Rate_Limit>(endpoint_->ledger(), &endpoint_->ledger()->rate));
    Request_Gate& gate = endpoint_->gate();
    Within within(gate, last_ticket_ = despite_cancel_ ? Request_Gate::Ticket() : gate.enter(stop_));
    const time_t now = endpoint_->now();
    const HTTP_Request http = build(request, address, endpoint_->credentials(), endpoint_->v4_key(address, now), now);
    if (connection->wanted())
      endpoint_->ledger()->requests.fetch_add(1, std::memory_order_relaxed);
    if (!connection->send(http)) {
      outcome.error = map_failure(connection->failure(), http.method + ' ' + http.url);
      return connection;
    }
    outcome.head = connection->head();
    if (outcome.head.status >= 200 && outcome.head.status < 300) {
      outcome.error = S3_Error();
      outcome.retry_after = 0;
      connection->accept();
      return connection;
    }

    const Error_Document document = parse_error(connection->refuse(MAX_ERROR_DOCUMENT));
    outcome.retry_after = retry_after(outcome.head, now);
    outcome.error = map_answer(outcome.head.status, document, http.method + ' ' + http.url);
    outcome.storage_class = document.storage_class;
    within.leave(is_busy(outcome.error));
    if (outcome.error.retriable())
      gate.close_for(outcome.retry_after);
    if (may_follow) {
      if (const std::optional<Address> to = redirected(address, request.bucket, outcome.head, document)) {
        may_follow = false;
        // A temporary redirection holds for this request alone.
        if (outcome.head.status != 307 && outcome.head.status != 302)
          endpoint_->learn_address(request.bucket, *to);
        address = *to;
        continue;
      }
    }
    if (may_set_clock) {
      const time_t server = parse_http_date(outcome.head.value("date"));
      if (server > 0 &&
          blames_clock(outcome.head, document, static_cast<long long>(server) - static_cast<long long>(now))) {
        may_set_clock = false;
        endpoint_->learn_clock(static_cast<long long>(server) - static_cast<long long>(Clock::instance().now()));
        continue;
      }
    }
    return connection;
  }
}

Outcome Transport::ask(const Request& request) {
  Outcome outcome;
  const Curl_Connection_ref connection = open(request, outcome);
  if (connection && outcome.ok()) {
    connection->refuse(MAX_ERROR_DOCUMENT);
    const HTTP_Failure& failure = connection->failure();
    if (failure.code || failure.cancelled)
      outcome.error = map_failure(failure, describe(request));
  }
  return outcome;
}

Outcome Transport::ask(const Request& request, Answer_Reader& reader) {
  Outcome outcome;
  const Curl_Connection_ref connection = open(request, outcome);
  if (!connection || !outcome.ok())
    return outcome;
  // Kept: a listing thread asks again and again, and freeing this much has the allocator tidy up each time.
  thread_local const std::unique_ptr<char[]> piece(new char[PIECE]);
  size_t got;
  while ((got = connection->read(piece.get(), PIECE)) > 0 && reader.feed(piece.get(), got)) {
  }
  const HTTP_Failure& failure = connection->failure();
  if (failure.code || failure.cancelled)
    outcome.error = map_failure(failure, describe(request));
  else if (!reader.finish())
    outcome.error = S3_Error(EPROTO, outcome.head.status, "MalformedAnswer",
                             reader.problem() + " (" + describe(request) + ")", false);
  else if (reader.is_error()) {
    outcome.error = map_answer(outcome.head.status, reader.error(), describe(request));
    outcome.retry_after = retry_after(outcome.head, endpoint_->now());
    if (is_busy(outcome.error) && last_ticket_.valid)
      endpoint_->gate().refuse(last_ticket_);
    if (outcome.error.retriable())
      endpoint_->gate().close_for(outcome.retry_after);
  }
  return outcome;
}

std::string Transport::describe(const Request& request) const {
  return request.method + ' ' + url_of(request, endpoint_->address(request.bucket));
}

Outcome retried(int max_seconds, const std::function<Outcome()>& attempt, const std::function<void(unsigned)>& pause) {
  Exponential_Backoff_Iterator wait(1, UNLIMITED_RETRIES, 30, true);
  unsigned long long waited = 0;
  for (int count = 1;; ++count) {
    Outcome outcome = attempt();
    if (outcome.ok() || !outcome.error.retriable() || wait == Exponential_Backoff_Iterator() ||
        (max_seconds != -1 && waited >= static_cast<unsigned long long>(std::max(max_seconds, 0))))
      return outcome;
    const unsigned seconds = std::max(*wait, outcome.retry_after);
    ++wait;
    ACE_DEBUG((LM_INFO, ACE_TEXT("Retry(%d) %N:%l at %u second(s) later.\n"), count, seconds));
    if (pause)
      pause(seconds);
    else
      Clock::instance().sleep(seconds);
    waited += seconds;
  }
}

} // namespace s3
