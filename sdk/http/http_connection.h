#pragma once

#include <ace/Intrusive_Auto_Ptr.h>
#include <ace/Time_Value.h>

#include <atomic>
#include <cstddef>

/// The answer to one HTTP request, whose body is read piece by piece. Reference-counted from inside; one thread at a
/// time. Letting go of the last reference before the body's end drops the connection, after it the connection goes
/// back for the next request.
class HTTP_Connection {
public:
  /// States 9, 11 and 12 are those in which a body can be read.
  enum State {
    IDLE = 0,
    RESOLVING = 1,
    CONNECTING = 2,
    HANDSHAKE = 3,
    CONNECTED = 4,
    SENDING_HEADERS = 5,
    SENDING_BODY = 6,
    SENT = 7,
    READING_HEADERS = 8,
    HEADERS_READ = 9, ///< a successful answer; no byte of the body was read yet
    REDIRECTED = 10,
    READING_BODY = 11,
    BODY_READ = 12, ///< the whole announced body was handed out
    CLOSED = 13,    ///< closed by us, or broken off by the peer in the middle of the body
    FAILED = 14     ///< never got as far as a successful answer
  };
  /// What `recv` returns when it could not read at all.
  static constexpr size_t RECV_FAILED = static_cast<size_t>(-1);

  HTTP_Connection() = default;
  HTTP_Connection(const HTTP_Connection&) = delete;
  HTTP_Connection& operator=(const HTTP_Connection&) = delete;

  virtual State state() const = 0;
  /// Reads up to `size` bytes of the body, filling the buffer unless the body ends first. `timeout` bounds the wait for
  /// each piece; null: the service's own idle time-out. Returns the number of bytes, 0 at the end of the body.
  /// Where the body breaks off, or stalls for longer than the time-out, what had come is returned first, the state
  /// becomes CLOSED and further calls return 0: the caller who wants the rest asks again from where it stands.
  /// RECV_FAILED for a null buffer or in a state without a body.
  virtual size_t recv(void* buffer, size_t size, const ACE_Time_Value* timeout) = 0;
  /// Gives the connection up. Idempotent.
  virtual void close() = 0;

  // Null is ignored: the pointer class hands an empty pointer's old value over as it is.
  static void intrusive_add_ref(HTTP_Connection* c) {
    if (c != nullptr)
      c->references_.fetch_add(1, std::memory_order_relaxed);
  }
  static void intrusive_remove_ref(HTTP_Connection* c) {
    if (c != nullptr && c->references_.fetch_sub(1, std::memory_order_acq_rel) == 1)
      delete c;
  }

protected:
  virtual ~HTTP_Connection();

private:
  std::atomic<long> references_{0};
};

typedef ACE_Intrusive_Auto_Ptr<HTTP_Connection> HTTP_Connection_var;
