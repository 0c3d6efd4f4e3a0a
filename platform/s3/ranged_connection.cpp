#include "platform/s3/ranged_connection.h"

#include "platform/s3/busy_time.h"

#include <ace/Log_Msg.h>

#include <algorithm>
#include <chrono>
#include <cstring>

namespace s3 {
namespace {

/// Bytes of a range that arrive before its reader is told.
constexpr size_t STEP = 256 * 1024;
/// Ranges asked for or waiting to be read, for each stream.
constexpr size_t AHEAD = 2;
/// Requests for one range; the second one goes on where the first broke off.
constexpr int ATTEMPTS = 2;

/// Lets the connection take notice of the body's end, so that it can be used again.
void see_end(HTTP_Connection& connection) {
  char none;
  connection.recv(&none, 1, nullptr);
}

double seconds_now() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

} // namespace

Ranged_Connection::Piece::~Piece() {
  if (ledger)
    ledger->range_memory.give_back(size);
}

Ranged_Connection::Ranged_Connection(std::shared_ptr<Endpoint> endpoint, Ranged_Object object, ACE_UINT64 offset,
                                     Curl_Connection_ref stream)
    : endpoint_(std::move(endpoint)), object_(std::move(object)), position_(offset), stream_(stream),
      stream_end_(object_.size), growth_(endpoint_->ranges().first, endpoint_->ranges().most), planned_(offset) {}

Ranged_Connection::~Ranged_Connection() {
  close();
}

void Ranged_Connection::close() {
  threads_.stop();
  while (!pieces_.empty())
    drop_front();
  stream_ = Curl_Connection_ref();
  if (state_ == HEADERS_READ || state_ == READING_BODY)
    state_ = CLOSED;
}

size_t Ranged_Connection::recv(void* buffer, size_t size, const ACE_Time_Value* timeout) {
  if (!buffer)
    return RECV_FAILED;
  if (state_ == BODY_READ || state_ == CLOSED)
    return 0;
  size_t got = 0;
  while (got < size && state_ != BODY_READ && state_ != CLOSED) {
    const double began = seconds_now();
    const size_t more = take(static_cast<char*>(buffer) + got, size - got, timeout);
    taking_ += seconds_now() - began;
    got += more;
    position_ += more;
    state_ = READING_BODY;
    if (position_ == object_.size) {
      close();
      state_ = BODY_READ;
    } else if (more == 0) {
      close();
    } else {
      adapt();
    }
  }
  return got;
}

/// Some bytes, from wherever the next ones come; 0 when nothing more is to be had.
size_t Ranged_Connection::take(char* buffer, size_t size, const ACE_Time_Value* timeout) {
  if (stream_) {
    if (stream_end_ != object_.size)
      keep_stream();
    return take_stream(buffer, size, timeout);
  }
  {
    std::unique_lock<std::mutex> lock(mutex_);
    plan();
    if (!pieces_.empty())
      return take_piece(lock, buffer, size);
  }
  return reopen() ? take_stream(buffer, size, timeout) : 0;
}

size_t Ranged_Connection::take_stream(char* buffer, size_t size, const ACE_Time_Value* timeout) {
  size_t got =
      stream_->recv(buffer, static_cast<size_t>(std::min<ACE_UINT64>({size, stream_end_ - position_, STEP})), timeout);
  if (got == RECV_FAILED)
    got = 0;
  received_ += got;
  if (position_ + got == stream_end_) {
    if (stream_end_ == object_.size)
      see_end(*stream_);
    stream_ = Curl_Connection_ref();
  }
  return got;
}

/// Where the ranges come to nothing while there is a stream, that goes on beyond where they were to take over.
void Ranged_Connection::keep_stream() {
  const std::lock_guard<std::mutex> guard(mutex_);
  if (!broken_ && !pieces_.empty())
    return;
  while (!pieces_.empty())
    drop_front();
  stream_end_ = planned_ = object_.size;
}

size_t Ranged_Connection::take_piece(std::unique_lock<std::mutex>& lock, char* buffer, size_t size) {
  Piece& piece = *pieces_.front();
  // Every wait of the thread that fills it has a bound.
  arrived_.wait(lock, [&] { return piece.got > taken_ || piece.failed; });
  const size_t got = std::min(size, piece.got - taken_);
  std::memcpy(buffer, piece.bytes.get() + taken_, got);
  taken_ += got;
  if (taken_ == piece.size) {
    drop_front();
    plan();
  }
  return got;
}

/// The front piece is read, or nobody will read it.
void Ranged_Connection::drop_front() {
  pieces_.front()->unwanted = true;
  pieces_.pop_front();
  taken_ = 0;
  if (begun_ > 0)
    --begun_;
}

/// A piece that no thread has begun with is not wanted any more.
void Ranged_Connection::drop_back() {
  planned_ = pieces_.back()->begin;
  pieces_.pop_back();
}

/// Asks for the next ranges as far as streams and memory allow. Under the lock.
void Ranged_Connection::plan() {
  const size_t range = endpoint_->ranges().size;
  while (allowed_ > 0 && !broken_ && planned_ < object_.size && pieces_.size() < AHEAD * allowed_) {
    const size_t length = static_cast<size_t>(std::min<ACE_UINT64>(range, object_.size - planned_));
    const Piece_ptr piece(std::make_shared<Piece>());
    if (!endpoint_->ledger()->range_memory.take(length))
      break;
    piece->ledger = endpoint_->ledger();
    piece->begin = planned_;
    piece->size = length;
    piece->bytes.reset(new (std::nothrow) char[length]);
    if (!piece->bytes)
      break;
    planned_ += length;
    pieces_.push_back(piece);
  }
  if (begun_ < pieces_.size())
    work_.notify_all();
}

/// More or fewer streams, by how reading goes.
void Ranged_Connection::adapt() {
  const bool alone = stream_ && stream_end_ == object_.size;
  const double now = seconds_now();
  const bool changed = growth_.due(now) && growth_.update(now, received_, taking_, busy_seconds());
  const unsigned streams = growth_.streams();
  if (!changed && !(alone && streams > 1))
    return;
  if (streams > 1 && streams > threads_.count() && !start_threads(streams))
    return;
  const std::lock_guard<std::mutex> guard(mutex_);
  if (broken_)
    return;
  allowed_ = streams > 1 ? streams : 0;
  while (allowed_ == 0 && pieces_.size() > begun_)
    drop_back();
  if (allowed_ > 0 && alone) {
    // The stream goes on up to where the ranges begin, which is about as far as each of them gets meanwhile.
    const ACE_UINT64 end = position_ + endpoint_->ranges().size;
    if (end >= object_.size)
      return;
    planned_ = end;
    plan();
    if (!pieces_.empty())
      stream_end_ = end;
  }
  work_.notify_all();
}

bool Ranged_Connection::start_threads(unsigned count) {
  while (threads_.count() < count && threads_.start([this] { work(); })) {
  }
  // What there is has to do.
  return threads_.count() > 1;
}

/// Back to one stream, where the ranges have been read and there is no memory for more, or no use.
bool Ranged_Connection::reopen() {
  Transport transport(endpoint_);
  stream_ = broken_ ? Curl_Connection_ref() : open(transport, position_, object_.size);
  stream_end_ = object_.size;
  planned_ = object_.size;
  return static_cast<bool>(stream_);
}

/// The accepted answer to a request for the bytes from `first` to before `end`; null when there is none of this
/// generation.
Curl_Connection_ref Ranged_Connection::open(Transport& transport, ACE_UINT64 first, ACE_UINT64 end) {
  const std::string range = std::to_string(first) + '-' + std::to_string(end - 1);
  Request request{"GET", object_.bucket, object_.key, {}, {}, false, {}};
  request.headers.emplace_back("range", "bytes=" + range);
  request.headers.emplace_back("if-match", object_.etag);
  Outcome outcome;
  Curl_Connection_ref connection = transport.open(request, outcome);
  if (!outcome.ok())
    return Curl_Connection_ref();
  if (outcome.head.status != 206)
    endpoint_->learn_no_ranges();
  if (outcome.head.status != 206 || outcome.head.value("etag") != object_.etag ||
      outcome.head.value("content-range") != "bytes " + range + '/' + std::to_string(object_.size) ||
      outcome.head.value("content-length") != std::to_string(end - first)) {
    connection->refuse(0);
    return Curl_Connection_ref();
  }
  return connection;
}

/// Body of the threads: takes the next piece that nobody has, in order, while there may be one more stream.
void Ranged_Connection::work() {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    work_.wait(lock, [&] { return threads_.stopping() || (!broken_ && begun_ < pieces_.size() && busy_ < allowed_); });
    if (threads_.stopping())
      break;
    const Piece_ptr piece = pieces_[begun_++];
    ++busy_;
    lock.unlock();
    bool whole = false;
    try {
      whole = fetch(*piece);
    } catch (const std::exception& error) {
      ACE_ERROR((LM_WARNING, ACE_TEXT("A part of '%C' cannot be read: %C.\n"), object_.key.c_str(), error.what()));
    }
    lock.lock();
    --busy_;
    if (!whole) {
      piece->failed = true;
      broken_ = true;
      arrived_.notify_all();
    }
    work_.notify_all();
  }
}

bool Ranged_Connection::fetch(Piece& piece) {
  for (int attempt = 1; attempt <= ATTEMPTS; ++attempt) {
    if (fetch_rest(piece))
      return true;
    if (threads_.stopping())
      break;
  }
  return false;
}

bool Ranged_Connection::fetch_rest(Piece& piece) {
  Transport transport(endpoint_);
  transport.stop_on(&threads_.stopping());
  const Curl_Connection_ref connection = open(transport, piece.begin + piece.got, piece.begin + piece.size);
  if (!connection)
    return false;
  while (piece.got < piece.size) {
    const size_t want = std::min(STEP, piece.size - piece.got);
    const size_t got = connection->recv(piece.bytes.get() + piece.got, want, nullptr);
    if (got == 0 || got == RECV_FAILED)
      return false;
    received_ += got;
    const std::lock_guard<std::mutex> guard(mutex_);
    if (piece.unwanted)
      return false;
    piece.got += got;
    arrived_.notify_all();
  }
  see_end(*connection);
  return true;
}

} // namespace s3
