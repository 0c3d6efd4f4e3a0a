#include "platform/s3/part_sender.h"

#include <cerrno>
#include <utility>

namespace s3 {

Part_Sender::Part_Sender(std::shared_ptr<Endpoint> endpoint, const std::string& bucket, const std::string& key,
                         int max_retry_seconds)
    : endpoint_(std::move(endpoint)), bucket_(bucket), key_(key), max_retry_seconds_(max_retry_seconds) {}

Part_Sender::~Part_Sender() {
  stop();
}

void Part_Sender::stop() {
  threads_.stop();
  for (const Part& part : waiting_)
    endpoint_->ledger()->part_memory.give_back(part.data.size());
  waiting_.clear();
  take_spare();
}

/// Memory of a part that was sent, which counts as the job's until here; or none.
std::string Part_Sender::take_spare() {
  std::string memory;
  const std::lock_guard<std::mutex> guard(mutex_);
  memory.swap(spare_);
  endpoint_->ledger()->part_memory.give_back(std::exchange(spare_charge_, 0));
  return memory;
}

bool Part_Sender::failed() const {
  const std::lock_guard<std::mutex> guard(mutex_);
  return error_.number() != 0;
}

S3_Error Part_Sender::error() const {
  const std::lock_guard<std::mutex> guard(mutex_);
  return error_;
}

bool Part_Sender::send(const std::string& id, std::string& data, const Name_Values& headers) {
  if (failed())
    return false;
  Part part;
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    etags_.emplace_back();
    part.number = etags_.size();
  }
  part.id = id;
  part.headers = headers;
  part.at = sent_;
  sent_ += data.size();
  part.data.swap(data);
  std::string spare = take_spare();
  if (hand_over(part)) {
    data.swap(spare);
    return true;
  }
  const bool done = send_now(part);
  // Its memory serves the next part.
  part.data.clear();
  data.swap(part.data);
  return done;
}

/// True when a thread has taken the part upon itself.
bool Part_Sender::hand_over(Part& part) {
  const size_t size = part.data.size();
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    if (waiting_.size() + busy_ >= endpoint_->ranges().parts)
      return false;
  }
  if (!endpoint_->ledger()->part_memory.take(size))
    return false;
  std::unique_lock<std::mutex> lock(mutex_);
  if (waiting_.size() + busy_ >= threads_.count() && !threads_.start([this] { work(); })) {
    endpoint_->ledger()->part_memory.give_back(size);
    return false;
  }
  waiting_.push_back(std::move(part));
  // All: one of them may be waiting to repeat its part.
  work_.notify_all();
  return true;
}

bool Part_Sender::finish() {
  {
    std::unique_lock<std::mutex> lock(mutex_);
    done_.wait(lock, [this] { return (waiting_.empty() && busy_ == 0) || error_.number() != 0; });
  }
  take_spare();
  return !failed();
}

void Part_Sender::work() {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    work_.wait(lock, [this] { return threads_.stopping() || !waiting_.empty(); });
    if (threads_.stopping())
      return;
    Part part = std::move(waiting_.front());
    waiting_.pop_front();
    ++busy_;
    const size_t size = part.data.size();
    lock.unlock();
    send_now(part);
    part.data.clear();
    lock.lock();
    // Fresh memory costs more than the copy into it.
    if (spare_charge_ == 0) {
      spare_.swap(part.data);
      spare_charge_ = size;
    } else {
      lock.unlock();
      std::string().swap(part.data);
      lock.lock();
      endpoint_->ledger()->part_memory.give_back(size);
    }
    --busy_;
    done_.notify_all();
  }
}

bool Part_Sender::send_now(const Part& part) {
  Outcome outcome;
  try {
    Request put{"PUT", bucket_, key_, {}, part.headers, true, part.data};
    put.query.emplace_back("partNumber", std::to_string(part.number));
    put.query.emplace_back("uploadId", part.id);
    Transport transport(endpoint_);
    transport.stop_on(&threads_.stopping());
    outcome = retried(
        max_retry_seconds_,
        [&] {
          Outcome attempt;
          if (threads_.stopping())
            attempt.error = S3_Error(ECANCELED, 0, "Cancelled", "the upload was given up", false);
          else
            attempt = transport.ask(put);
          return attempt;
        },
        [&](unsigned seconds) { threads_.pause(seconds); });
    if (outcome.ok() && outcome.head.value("etag").empty())
      outcome.error = S3_Error(EPROTO, outcome.head.status, "MissingETag", "it was stored without an ETag", false);
  } catch (const std::exception& error) {
    outcome.error = S3_Error(ENOMEM, 0, "OutOfMemory", error.what(), false);
  }
  return keep(part, outcome);
}

/// Notes how a part came out. Of several failures the first one counts.
bool Part_Sender::keep(const Part& part, const Outcome& outcome) {
  const std::lock_guard<std::mutex> guard(mutex_);
  if (outcome.ok()) {
    endpoint_->ledger()->bytes_written.fetch_add(part.data.size(), std::memory_order_relaxed);
    etags_[part.number - 1] = outcome.head.value("etag");
    return true;
  }
  if (error_.number() == 0) {
    const S3_Error& error = outcome.error;
    error_ = S3_Error(error.number(), error.status(), error.code(),
                      "part " + std::to_string(part.number) + ", " + std::to_string(part.data.size()) + " bytes from " +
                          std::to_string(part.at) + " on: " + error.message(),
                      false);
    threads_.tell_to_stop();
  }
  done_.notify_all();
  return false;
}

} // namespace s3
