#pragma once

#include "platform/http/channel_pool.h"
#include "platform/http/rate_limit.h"
#include "platform/http/slow_watch.h"
#include "sdk/http/http_connection.h"

#include <chrono>
#include <memory>

/// One request and its answer over a channel of a pool. The answer is pulled: bytes move only inside `send` and `recv`,
/// and no more than a bounded piece is held that nobody has asked for. Once the body's end is in, the channel goes back
/// to the pool at once, also while bytes still wait to be received; an answer given up before costs its connection.
///
/// One thread at a time. The pool is kept alive by this object, so it may outlive the service that made it.
class Curl_Connection final : public HTTP_Connection {
public:
  /// `bytes_read` (may be null) counts the bytes handed out by `recv`.
  Curl_Connection(std::shared_ptr<HTTP_Channel_Pool> pool, std::shared_ptr<std::atomic<unsigned long long>> bytes_read);

  /// Requests of this connection are finished even while the job is being cancelled; `seconds` then bounds every wait.
  void finish_despite_cancel(unsigned seconds);

  /// Every wait ends, as if the job were cancelled, once `flag` is true. It must outlive the transfer.
  void stop_on(const std::atomic<bool>* flag) { stop_ = flag; }

  /// Bytes of this connection, sent and received, count against `rate`, if it is on; null: none.
  void share(std::shared_ptr<Rate_Limit> rate);

  /// False once `send` would send nothing, because the job is being cancelled or the flag is true.
  bool wanted() const { return !cancelled(); }
  /// Sends the request, once per object, and waits for the answer's head. True when one came, whatever its status; else
  /// `failure` says why not and the state is FAILED. The request's body must stay valid until the answer is read,
  /// closed, or this object is gone.
  bool send(const HTTP_Request& request);
  /// Valid after `send` answered true.
  const HTTP_Head& head() const { return head_; }
  /// Opens the body to `recv`: state HEADERS_READ. For answers that the sender takes as successful.
  void accept();
  /// Reads what is left of an answer that is not accepted, at most `limit` bytes, and gives the rest up: state FAILED.
  std::string refuse(size_t limit);
  /// Reads what is left of an answer, as `recv` does, whatever its state and without counting it; 0 at its end, which
  /// `failure` tells from a break.
  size_t read(char* buffer, size_t size);
  /// Why `send` failed, or why the body broke off.
  const HTTP_Failure& failure() const { return failure_; }

  State state() const override { return state_; }
  size_t recv(void* buffer, size_t size, const ACE_Time_Value* timeout) override;
  void close() override;

private:
  typedef std::chrono::steady_clock::duration Duration;

  ~Curl_Connection() override;
  static size_t on_header(char* data, size_t size, size_t count, void* self);
  static size_t on_body(char* data, size_t size, size_t count, void* self);
  size_t header(std::string_view line);
  size_t body(const char* data, size_t size);
  bool prepare(const HTTP_Request& request);
  template <typename Until>
  void drive(Duration idle, Until until);
  void perform();
  void unpause();
  size_t receive(char* buffer, size_t size, Duration idle);
  size_t take_buffered(char* buffer, size_t size);
  void fail(int code, const std::string& text);
  void detach();
  /// What a transfer is at, for how slow it may be.
  enum Phase { SENDING, WAITING, HEAD, BODY };

  bool cancelled() const;
  Phase phase() const;
  bool too_slow();
  bool wait_for_turn();
  unsigned long long moved() const { return progress_ + sent_; }
  void count_sent();
  size_t buffered() const { return buffer_.size() - buffer_at_; }

  std::shared_ptr<HTTP_Channel_Pool> pool_;
  std::shared_ptr<std::atomic<unsigned long long>> bytes_read_;
  HTTP_Channel_ptr channel_; ///< null before and after the transfer
  Curl_List_ptr header_list_;
  State state_ = IDLE;
  HTTP_Head head_;
  HTTP_Failure failure_;
  size_t head_size_ = 0;
  bool head_complete_ = false;
  bool uploading_ = false;
  bool paused_ = false;
  bool cancellable_ = true;
  const std::atomic<bool>* stop_ = nullptr; ///< null: none
  unsigned idle_timeout_;                   ///< seconds
  std::shared_ptr<Rate_Limit> rate_;        ///< null: none
  unsigned long long progress_ = 0;         ///< bytes received
  unsigned long long sent_ = 0;             ///< bytes sent
  unsigned long long metered_ = 0;          ///< bytes that `rate_` knows of
  unsigned long long turn_left_ = 0;        ///< bytes of a body that may still be taken in this turn
  unsigned long long to_send_ = 0;          ///< bytes of the request's body
  unsigned long long body_sent_ = 0;        ///< of these
  unsigned long long longest_head_ = 0;     ///< of the request
  bool may_dawdle_ = false;                 ///< the answer may be held open with a byte now and then
  Slow_Watch watch_;
  Duration waited_{}; ///< for the peer, since `watch_` was asked
  Phase phase_ = SENDING;
  std::string buffer_; ///< received, not yet asked for, from buffer_at_ on
  size_t buffer_at_ = 0;
  char* direct_ = nullptr; ///< where the body goes while somebody waits for it
  size_t direct_left_ = 0;
};

typedef ACE_Intrusive_Auto_Ptr<Curl_Connection> Curl_Connection_ref;
