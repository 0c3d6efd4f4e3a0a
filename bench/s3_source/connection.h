#pragma once

#include "bench/s3_source/pattern.h"
#include "bench/s3_source/service.h"

#include <string>

/// One keep-alive connection: reads a request, hands it out, and sends the answer when its time has come. Non-blocking.
class Connection {
public:
  enum State { READING, WAITING, SENDING, CLOSED };

  explicit Connection(int fd) : fd_(fd) {}
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  int fd() const { return fd_; }
  State state() const { return state_; }
  /// Takes what has come in. True when `request` is whole.
  bool receive();
  const Request& request() const { return request_; }
  /// Where the answer goes; sent by `send` from the moment in which `due` was called.
  Answer& answer() { return answer_; }
  void wait() { state_ = WAITING; }
  void due() { state_ = SENDING; }
  /// Sends as much as goes, of the `patterns` by their kind. When all is sent the next request is read.
  void send(const Pattern* patterns);

private:
  bool parse_head();
  bool next_request();

  int fd_;
  State state_ = READING;
  std::string in_;
  bool head_read_ = false;
  bool keep_body_ = false;
  uint64_t body_left_ = 0;
  Request request_;
  Answer answer_;
  size_t sent_ = 0;
};
