// One request and its reply.
#include "testing/s3_server/server_impl.h"
#include "testing/s3_server/signature_check.h"
#include "testing/s3_server/xml_text.h"

#include <algorithm>
#include <cstdio>

namespace s3_testing {
namespace {

constexpr std::uint64_t max_put_bytes = std::uint64_t{5} << 30;
constexpr std::size_t send_chunk_bytes = 256 * 1024;
constexpr std::size_t paced_chunk_bytes = 8 * 1024;

} // namespace

struct S3_Server::Impl::Exchange {
  Http_Request request;
  Request_Info info;
  Target target;
  std::shared_ptr<const S3_Server_Settings> settings;
  std::vector<Fault> faults;
  Body_Faults body;
  std::uint64_t content_length = 0;
  bool expects_continue = false;
  bool no_reply = false;
  bool last = false; // the connection ends after this
  std::optional<std::uint64_t> cut_upload;
  std::optional<Fault> content; // what the body is replaced by
};

bool S3_Server::Impl::pause(std::chrono::milliseconds time) {
  std::unique_lock guard(lock);
  return !changed.wait_for(guard, time, [this] { return stopping; });
}

bool S3_Server::Impl::stall_here(int milliseconds) {
  std::unique_lock guard(lock);
  const std::uint64_t release = stall_release;
  const auto over = [&] { return stopping || stall_release != release; };
  ++stalled;
  changed.notify_all();
  bool go_on = false;
  if (milliseconds == 0)
    changed.wait(guard, over);
  else
    go_on = !changed.wait_for(guard, std::chrono::milliseconds(milliseconds), over);
  --stalled;
  return go_on;
}

// A tenth of a second's worth of requests may come at once.
bool S3_Server::Impl::admits(const S3_Server_Settings& current) {
  const std::uint32_t per_second = current.requests_per_second;
  if (per_second == 0)
    return true;
  const double now = current.limit_clock
                         ? current.limit_clock()
                         : std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
  const double most = std::max(1.0, per_second / 10.0);
  std::lock_guard guard(lock);
  const double passed = std::max(0.0, now - tokens_at);
  tokens_at = now;
  tokens = std::min(most, tokens + passed * per_second);
  if (tokens < 1)
    return false;
  tokens -= 1;
  return true;
}

void S3_Server::Impl::record(const Request_Info& info) {
  std::lock_guard guard(lock);
  ++counts[info.operation];
  ++total;
  if (logging)
    log.push_back(info);
  changed.notify_all();
}

void S3_Server::Impl::serve_peer(Connection& connection, std::uint64_t number) {
  if (tls && !connection.handshake(tls.get()))
    return;
  std::string head;
  for (;;) {
    const Connection::Head got = connection.read_head(head);
    if (got == Connection::Head::too_long)
      head = std::string("\x01"); // refused below as malformed
    else if (got != Connection::Head::complete)
      return;
    {
      std::lock_guard guard(lock);
      max_in_work = std::max(max_in_work, ++in_work);
    }
    const bool go_on = serve_one(connection, number, head);
    {
      std::lock_guard guard(lock);
      --in_work;
      if (stopping)
        return;
    }
    if (!go_on)
      return;
  }
}

// A reply that a fault puts in the place of the true one. Sorts the others of the faults into `exchange`.
std::optional<Http_Response> S3_Server::Impl::replaced_reply(Exchange& exchange) {
  std::optional<Http_Response> reply;
  for (const Fault& fault : exchange.faults) {
    switch (fault.kind()) {
    case Fault::Kind::error:
    case Fault::Kind::error_in_200:
      if (reply)
        break;
      reply = error_response(fault.status(), fault.code(), "Scripted fault.");
      if (fault.retry_after() >= 0)
        reply->set("Retry-After", std::to_string(fault.retry_after()));
      for (const auto& [name, value] : fault.reply_headers())
        reply->set(name, value);
      break;
    case Fault::Kind::redirect:
      if (reply)
        break;
      reply = error_response(fault.status(), fault.status() == 301 ? "PermanentRedirect" : "TemporaryRedirect",
                             "Please re-send this request to the specified endpoint.",
                             {{"Bucket", exchange.target.bucket}, {"Region", fault.code()}});
      if (!fault.code().empty())
        reply->set("x-amz-bucket-region", fault.code());
      if (!fault.location().empty())
        reply->set("Location", fault.location() + exchange.request.raw_path +
                                   (exchange.request.raw_query.empty() ? "" : "?" + exchange.request.raw_query));
      for (const auto& [name, value] : fault.reply_headers())
        reply->set(name, value);
      break;
    case Fault::Kind::no_reply:
      exchange.no_reply = true;
      break;
    case Fault::Kind::cut_upload:
      exchange.cut_upload = fault.bytes();
      break;
    case Fault::Kind::cut:
      exchange.body.cut = fault;
      break;
    case Fault::Kind::stall:
      exchange.body.stall = fault;
      break;
    case Fault::Kind::wrong_length:
      exchange.body.wrong_length = fault;
      break;
    case Fault::Kind::change_object:
      exchange.body.change = fault;
      break;
    case Fault::Kind::flip_byte:
      exchange.body.flip = fault;
      break;
    case Fault::Kind::empty_body:
    case Fault::Kind::garbage_body:
    case Fault::Kind::truncated_body:
      exchange.content = fault;
      break;
    case Fault::Kind::delay:
      pause(std::chrono::milliseconds(fault.milliseconds()));
      break;
    case Fault::Kind::repeat_page:
    case Fault::Kind::no_next_marker:
    case Fault::Kind::empty_next_marker:
    case Fault::Kind::refuse_connection:
      break;
    }
  }
  return reply;
}

bool S3_Server::Impl::receive_body(Connection& connection, Exchange& exchange) {
  if (exchange.cut_upload && *exchange.cut_upload < exchange.content_length) {
    connection.skip_body(*exchange.cut_upload);
    connection.close_with_reset();
    return false;
  }
  return connection.read_body(static_cast<std::size_t>(exchange.content_length), exchange.request.body);
}

bool S3_Server::Impl::serve_one(Connection& connection, std::uint64_t number, const std::string& head) {
  Exchange exchange;
  Http_Request& request = exchange.request;
  exchange.settings = settings();
  const S3_Server_Settings& current = *exchange.settings;
  exchange.info.connection = number;
  const auto malformed = [&](int status, const char* code, const std::string& why) {
    if (exchange.info.operation.empty())
      exchange.info.operation = "Malformed";
    record(exchange.info);
    Http_Response response = error_response(status, code, why);
    response.close = true;
    send(connection, exchange, response);
    return false;
  };

  if (const std::string wrong = parse_head(head, request); !wrong.empty())
    return malformed(400, "BadRequest", wrong);
  exchange.info.method = request.method;
  exchange.info.path = request.raw_path;
  exchange.info.query = request.raw_query;
  exchange.info.headers = request.headers;
  exchange.target = find_target(request, current);
  exchange.info.operation = exchange.target.operation;
  exchange.info.bucket = exchange.target.bucket;
  exchange.info.key = exchange.target.key;
  if (const std::string* text = request.header("content-length")) {
    const auto length = parse_number(*text);
    if (!length)
      return malformed(400, "BadRequest", "malformed Content-Length");
    exchange.content_length = *length;
    if (exchange.content_length > max_put_bytes || exchange.content_length > static_cast<std::size_t>(-1) / 2)
      return malformed(400, "EntityTooLarge", "Your proposed upload exceeds the maximum allowed size");
  } else if (request.header("transfer-encoding")) {
    return malformed(501, "NotImplemented", "Transfer-Encoding is not served here");
  } else if (request.method == "PUT") {
    return malformed(411, "MissingContentLength", "You must provide the Content-Length HTTP header.");
  }
  if (const std::string* expect = request.header("expect")) {
    if (to_lower(*expect) != "100-continue" || current.expect == Expect_Reply::refuse)
      return malformed(417, "ExpectationFailed", "This expectation is not met here.");
    exchange.expects_continue = true;
  }
  if (const std::string* wish = request.header("connection"))
    exchange.last = to_lower(*wish) == "close";
  if (exchange.info.operation.empty())
    exchange.info.operation = "Malformed";
  record(exchange.info);

  // A redirect comes before the signature is looked at: the signer may not know the region yet.
  exchange.faults = faults.strike(exchange.info);
  std::optional<Http_Response> reply = replaced_reply(exchange);
  if (exchange.no_reply) {
    return false;
  }
  if (!reply && !admits(current))
    reply = error_response(503, "SlowDown", "Please reduce your request rate.");
  const bool redirected = reply && (reply->status == 301 || reply->status == 307);
  if (!redirected) {
    if (std::optional<Http_Response> refusal = check_signature(request, exchange.target.host_bucket, current))
      reply = std::move(refusal);
    else if (!reply && exchange.target.refusal)
      reply = exchange.target.refusal;
    const std::string* const hash = request.header("x-amz-content-sha256");
    if (!reply && !current.unsigned_payload && hash && *hash == "UNSIGNED-PAYLOAD")
      reply = error_response(400, "InvalidRequest", "Unsigned payloads are not taken here.");
  }
  if (exchange.expects_continue) {
    if (reply) {
      // The body may or may not come: what follows on this connection could not be told apart.
      reply->close = true;
      send(connection, exchange, *reply);
      return false;
    }
    if (current.expect == Expect_Reply::send_continue && !connection.write("HTTP/1.1 100 Continue\r\n\r\n"))
      return false;
  }
  if (reply && !exchange.cut_upload ? !connection.skip_body(exchange.content_length)
                                    : !receive_body(connection, exchange))
    return false;
  if (!reply)
    reply = check_body_digests(request);
  if (!reply) {
    Call call{request, current, store, uploads, exchange.target.operation, exchange.target.bucket, exchange.target.key};
    for (const Fault& fault : exchange.faults) {
      call.repeat_page |= fault.kind() == Fault::Kind::repeat_page;
      call.no_next_marker |= fault.kind() == Fault::Kind::no_next_marker;
      call.empty_next_marker |= fault.kind() == Fault::Kind::empty_next_marker;
    }
    reply = serve(call);
  }
  return send(connection, exchange, *reply);
}

void S3_Server::Impl::replace_object(const Exchange& exchange, const Fault& fault) {
  const Object_Ptr old = store.find(exchange.target.bucket, exchange.target.key);
  if (!old)
    return;
  Object next = fault.content() ? make_object(*fault.content()) : make_synthetic_object(old->size, old->seed + 77);
  next.mtime = old->mtime + 1;
  next.content_type = old->content_type;
  next.headers = old->headers;
  store.put(exchange.target.bucket, exchange.target.key, std::move(next));
  ++objects_changed;
}

bool S3_Server::Impl::send(Connection& connection, Exchange& exchange, Http_Response& response) {
  const std::uint64_t number = ++request_number_;
  char id[17];
  std::snprintf(id, sizeof id, "%016llX", static_cast<unsigned long long>(number));
  if (exchange.settings->latency_milliseconds > 0 &&
      !pause(std::chrono::milliseconds(exchange.settings->latency_milliseconds)))
    return false;
  if (!response.error_code.empty()) {
    response.set("Content-Type", "application/xml");
    response.body = error_document(response, exchange.request.raw_path, id);
  }
  if (exchange.content) {
    std::string text = response.content ? response.content->bytes().substr(static_cast<std::size_t>(response.offset))
                                        : std::move(response.body);
    response.content = nullptr;
    if (exchange.content->kind() == Fault::Kind::truncated_body)
      text.resize(static_cast<std::size_t>(std::min<std::uint64_t>(text.size(), exchange.content->bytes())));
    else
      text = exchange.content->kind() == Fault::Kind::empty_body ? "" : "<html>\xff\xfe garbage & <b no end";
    response.body = std::move(text);
  }
  if (!response.content)
    response.length = response.body.size();
  exchange.last = exchange.last || response.close || exchange.body.wrong_length;

  std::uint64_t stated = response.length;
  if (exchange.body.wrong_length) {
    const std::int64_t off = static_cast<std::int64_t>(stated) + exchange.body.wrong_length->delta();
    stated = off < 0 ? 0 : static_cast<std::uint64_t>(off);
  }
  std::string head = "HTTP/1.1 " + std::to_string(response.status) + " " + status_text(response.status) + "\r\n";
  if (exchange.settings->dates)
    head += "Date: " + http_date(exchange.settings->clock() + exchange.settings->date_ahead) + "\r\n";
  head += std::string("Server: s3-testing\r\nx-amz-request-id: ") + id + "\r\n";
  for (const auto& [name, value] : response.headers)
    head += name + ": " + value + "\r\n";
  if (exchange.last)
    head += "Connection: close\r\n";
  const bool bodiless = response.status == 204 || response.status == 304;
  if (!bodiless)
    head += "Content-Length: " + std::to_string(stated) + "\r\n";
  head += "\r\n";
  if (bodiless || exchange.request.method == "HEAD")
    return connection.write(head) && !exchange.last;
  return send_body(connection, exchange, response, std::move(head)) && !exchange.last;
}

bool S3_Server::Impl::send_body(Connection& connection, Exchange& exchange, const Http_Response& response,
                                std::string out) {
  Body_Faults& faults_here = exchange.body;
  const std::uint64_t rate = exchange.settings->bytes_per_second;
  const auto started = std::chrono::steady_clock::now();
  std::uint64_t sent = 0;
  std::string piece;
  // The points at which something happens; a piece never crosses one.
  const auto piece_end = [&](std::uint64_t end) {
    for (const auto* fault : {&faults_here.cut, &faults_here.stall, &faults_here.change})
      if (*fault && (*fault)->bytes() > sent)
        end = std::min(end, (*fault)->bytes());
    return end;
  };
  for (;;) {
    const auto due = [&](const std::optional<Fault>& fault) { return fault && fault->bytes() <= sent; };
    const bool cut = due(faults_here.cut) || (due(faults_here.change) && faults_here.change->then_cut());
    if (due(faults_here.change)) {
      // What was promised so far is on its way before the object changes.
      if (!connection.write(out))
        return false;
      out.clear();
      replace_object(exchange, *faults_here.change);
      faults_here.change.reset();
    }
    if (cut) {
      connection.write(out);
      return false;
    }
    if (due(faults_here.stall)) {
      if (!connection.write(out) || !stall_here(faults_here.stall->milliseconds()))
        return false;
      out.clear();
      faults_here.stall.reset();
    }
    if (sent == response.length)
      break;
    const std::uint64_t step = rate ? paced_chunk_bytes : send_chunk_bytes;
    const std::uint64_t end = piece_end(std::min(sent + step, response.length));
    const std::size_t length = static_cast<std::size_t>(end - sent);
    if (response.content)
      response.content->read(response.offset + sent, length, piece);
    else
      piece.assign(response.body, static_cast<std::size_t>(sent), length);
    if (faults_here.flip && faults_here.flip->bytes() >= sent && faults_here.flip->bytes() < end) {
      char& byte = piece[static_cast<std::size_t>(faults_here.flip->bytes() - sent)];
      byte = static_cast<char>(~byte);
    }
    out += piece; // the head goes out with the first piece
    if (!connection.write(out))
      return false;
    out.clear();
    sent = end;
    body_bytes += length;
    if (rate) {
      const auto until = started + std::chrono::microseconds(sent * 1000000 / rate);
      std::unique_lock guard(lock);
      if (changed.wait_until(guard, until, [this] { return stopping; }))
        return false;
    }
  }
  return connection.write(out);
}

} // namespace s3_testing
