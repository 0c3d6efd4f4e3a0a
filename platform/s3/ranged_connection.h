#pragma once

#include "platform/s3/range_growth.h"
#include "platform/s3/side_threads.h"
#include "platform/s3/transport.h"

#include <atomic>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace s3 {

/// Which object a connection reads: all its requests must be answered from this generation.
struct Ranged_Object {
  std::string bucket;
  std::string key;
  std::string etag; ///< strong
  ACE_UINT64 size = 0;
};

/// The body of a large object from some byte to its end, in order, over one stream or several.
///
/// It begins with the answer that the request for the body got. While whoever reads it has to wait, threads of its own
/// ask for the ranges that come next, into memory of the job's budget (the ledger's); where the budget gives none, the
/// body goes on over one stream. Each range's request carries If-Match, and its answer is held against the object's tag
/// and size. A range that fails twice is a connection that breaks off there: what came before is handed out, then the
/// state is CLOSED, and the caller asks again from where it stands, over one stream at first.
///
/// One thread at a time, as every connection. The threads work for the job of the thread that made it, and have ended
/// when `close` returns.
class Ranged_Connection final : public HTTP_Connection {
public:
  /// `stream`: the accepted answer that begins at byte `offset`.
  Ranged_Connection(std::shared_ptr<Endpoint> endpoint, Ranged_Object object, ACE_UINT64 offset,
                    Curl_Connection_ref stream);

  State state() const override { return state_; }
  size_t recv(void* buffer, size_t size, const ACE_Time_Value* timeout) override;
  void close() override;

private:
  /// A range on its way. Filled by one thread; the reader may take what is there. Holds its share of the budget.
  struct Piece {
    ~Piece();
    std::shared_ptr<S3_Ledger> ledger; ///< whose budget it is
    ACE_UINT64 begin = 0;
    size_t size = 0;
    size_t got = 0;
    bool failed = false;
    bool unwanted = false;
    std::unique_ptr<char[]> bytes;
  };
  typedef std::shared_ptr<Piece> Piece_ptr;

  ~Ranged_Connection() override;
  size_t take(char* buffer, size_t size, const ACE_Time_Value* timeout);
  size_t take_stream(char* buffer, size_t size, const ACE_Time_Value* timeout);
  size_t take_piece(std::unique_lock<std::mutex>& lock, char* buffer, size_t size);
  void keep_stream();
  void adapt();
  void plan();
  bool start_threads(unsigned count);
  bool reopen();
  void work();
  bool fetch(Piece& piece);
  bool fetch_rest(Piece& piece);
  Curl_Connection_ref open(Transport& transport, ACE_UINT64 first, ACE_UINT64 end);
  void drop_front();
  void drop_back();

  const std::shared_ptr<Endpoint> endpoint_;
  const Ranged_Object object_;
  State state_ = HEADERS_READ;
  ACE_UINT64 position_; ///< of the next byte to hand out
  Curl_Connection_ref stream_;
  ACE_UINT64 stream_end_; ///< where the ranges take over from the stream
  Range_Growth growth_;
  double taking_ = 0; ///< seconds that the reader has been at it

  std::atomic<unsigned long long> received_{0};
  std::mutex mutex_; ///< guards what follows
  std::condition_variable arrived_;
  std::condition_variable work_;
  std::deque<Piece_ptr> pieces_; ///< in order, from position_ on; empty while everything comes by the stream
  size_t taken_ = 0;             ///< bytes handed out of the front piece
  size_t begun_ = 0;             ///< of `pieces_`, from the front, that a thread has
  unsigned busy_ = 0;            ///< threads at a piece
  unsigned allowed_ = 0;         ///< of them at the same time
  ACE_UINT64 planned_;           ///< end of the last piece
  bool broken_ = false;
  Side_Threads threads_{"Range", mutex_, work_}; ///< the last: they use the others
};

} // namespace s3
