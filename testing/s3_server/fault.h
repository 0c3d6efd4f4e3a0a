#pragma once

#include "testing/s3_server/http_message.h"

#include <cstdint>
#include <functional>
#include <limits>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace s3_testing {

// What is known of a request; what the log keeps and what a fault's predicate sees.
struct Request_Info {
  std::string operation;           // "GetObject", ...: see S3_Server::count
  std::string method, path, query; // path and query as sent, still encoded
  std::string bucket;
  std::string key;              // decoded; of a listing: its prefix
  Headers headers;              // names in lower case
  std::uint64_t connection = 0; // 1 for the first that was opened
};

// One rule of the script: which requests it meets and what then happens. Made by one of the static functions and
// narrowed by the chained ones:
//   server.add_fault(Fault::error(503, "SlowDown").on("GetObject").key("a/*").times(2));
// Of several rules that meet a request, the first that replaces the reply wins; delays add up, faults of the body
// are combined.
class Fault {
public:
  static constexpr std::uint64_t forever = std::numeric_limits<std::uint64_t>::max();

  // An error document under `status`. 503 and 429 carry Retry-After where `retry_after` (seconds) is not negative.
  static Fault error(int status, std::string code, int retry_after = -1);
  // The same document under HTTP 200.
  static Fault error_in_200(std::string code);
  // 301 or 307 to `location` ("http://host:port", the request's path is added; empty: no Location), naming `region`.
  static Fault redirect(int status, std::string region, std::string location = {});
  // Ends the connection without any reply.
  static Fault no_reply();
  // Ends the connection after so many bytes of the request's body, resp. of the reply's body.
  static Fault cut_upload(std::uint64_t bytes);
  static Fault cut(std::uint64_t body_bytes);
  // Sends so many bytes of the reply's body, then nothing for `milliseconds` (0: until release_stalls or the
  // server's end; the connection is closed then).
  static Fault stall(std::uint64_t body_bytes, int milliseconds = 0);
  // Content-Length is off by `delta`; the true body follows and the connection ends.
  static Fault wrong_length(std::int64_t delta);
  // After so many bytes of the body another generation replaces the object: `content`, or where that is not given
  // synthetic bytes of the same length. The reply goes on with the old one, or is cut off there where `then_cut`.
  static Fault change_object(std::uint64_t body_bytes, bool then_cut, std::optional<std::string> content = {});
  // Inverts one byte of the body.
  static Fault flip_byte(std::uint64_t offset);
  static Fault empty_body();
  static Fault garbage_body();
  // Leaves of the body only so many bytes, with a Content-Length that agrees.
  static Fault truncated_body(std::uint64_t bytes);
  static Fault delay(int milliseconds);
  // A listing that never advances: every page is the first one and calls itself truncated.
  static Fault repeat_page();
  // A truncated page without its marker or token, or with an empty one.
  static Fault no_next_marker();
  static Fault empty_next_marker();
  // Resets the connection as soon as it is accepted. Only `times`, `from_nth` and `probability` narrow it.
  static Fault refuse_connection();

  // One more header of the reply of `error`, `error_in_200` and `redirect`; takes the place of one of that name.
  Fault& reply_header(std::string name, std::string value);

  Fault& on(std::string operation); // also "ListObjects*": a glob
  Fault& method(std::string method);
  Fault& bucket(std::string bucket);
  Fault& key(std::string glob); // "*" any bytes, "?" one byte; of a listing: over its prefix
  Fault& when(std::function<bool(const Request_Info&)> predicate); // called on server threads, one at a time
  Fault& from_nth(std::uint64_t nth); // the first so many - 1 requests that it would meet pass
  Fault& times(std::uint64_t count);  // how often it strikes; default: for ever
  Fault& probability(double chance);  // of each request that it would meet

  enum class Kind {
    error,
    error_in_200,
    redirect,
    no_reply,
    cut_upload,
    cut,
    stall,
    wrong_length,
    change_object,
    flip_byte,
    empty_body,
    garbage_body,
    truncated_body,
    delay,
    repeat_page,
    no_next_marker,
    empty_next_marker,
    refuse_connection
  };
  Kind kind() const { return kind_; }
  int status() const { return status_; }
  int retry_after() const { return retry_after_; }
  int milliseconds() const { return milliseconds_; }
  std::uint64_t bytes() const { return bytes_; }
  std::int64_t delta() const { return delta_; }
  bool then_cut() const { return then_cut_; }
  const std::string& code() const { return code_; }
  const std::string& location() const { return location_; }
  const std::optional<std::string>& content() const { return content_; }
  const std::vector<std::pair<std::string, std::string>>& reply_headers() const { return reply_headers_; }

private:
  friend class Fault_Script;
  explicit Fault(Kind kind) : kind_(kind) {}

  Kind kind_;
  int status_ = 0, retry_after_ = -1, milliseconds_ = 0;
  std::uint64_t bytes_ = 0;
  std::int64_t delta_ = 0;
  bool then_cut_ = false;
  std::string code_, location_; // of a redirect the code is the region
  std::optional<std::string> content_;
  std::vector<std::pair<std::string, std::string>> reply_headers_;

  std::string operation_, method_, bucket_, key_;
  std::function<bool(const Request_Info&)> predicate_;
  std::uint64_t from_nth_ = 1, left_ = forever, met_ = 0;
  double probability_ = 1;
};

bool glob_match(std::string_view pattern, std::string_view text);

// The rules in force. Any thread.
class Fault_Script {
public:
  explicit Fault_Script(std::uint64_t seed) : random_(seed) {}
  void add(Fault fault);
  void clear();
  // The rules that strike this request; each is counted as used.
  std::vector<Fault> strike(const Request_Info& request);
  bool strike_connection();
  std::uint64_t struck() const;

private:
  bool strikes(Fault& fault);

  mutable std::mutex lock_; // all below
  std::vector<Fault> faults_;
  std::mt19937_64 random_;
  std::uint64_t struck_ = 0;
};

} // namespace s3_testing
