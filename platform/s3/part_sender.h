#pragma once

#include "platform/s3/side_threads.h"
#include "platform/s3/transport.h"

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace s3 {

/// Sends the parts of one multipart upload, several at the same time: each on a thread of its own as long as there are
/// few of them and the job's budget (the ledger's) has memory for a part beside the one that is being filled; else
/// `send` sends it itself before it returns. Each request is repeated while its waits add up to less than
/// `max_retry_seconds`. Once a part has failed for good nothing more is sent, and what is on its way is broken off.
///
/// One thread calls it. Its own threads work for that one's job, and have ended when `stop` returns.
class Part_Sender {
public:
  Part_Sender(std::shared_ptr<Endpoint> endpoint, const std::string& bucket, const std::string& key,
              int max_retry_seconds);
  ~Part_Sender();
  Part_Sender(const Part_Sender&) = delete;
  Part_Sender& operator=(const Part_Sender&) = delete;

  /// Sends the next part of the upload `id`; `data` is empty afterwards, often with memory for another part.
  /// False when this part or one before it failed.
  bool send(const std::string& id, std::string& data, const Name_Values& headers = {});
  /// Waits until all parts were sent. False when one failed.
  bool finish();
  /// Breaks off what is being sent. Idempotent.
  void stop();

  /// The ETags of the parts in order, after `finish`.
  const std::vector<std::string>& etags() const { return etags_; }
  /// Why a part failed, and which one it was.
  S3_Error error() const;

private:
  struct Part {
    std::string id;
    std::string data;
    Name_Values headers;
    size_t number = 0;         ///< from 1
    unsigned long long at = 0; ///< its first byte in the object
  };

  bool hand_over(Part& part);
  std::string take_spare();
  bool send_now(const Part& part);
  bool keep(const Part& part, const Outcome& outcome);
  void work();
  bool failed() const;

  const std::shared_ptr<Endpoint> endpoint_;
  const std::string bucket_;
  const std::string key_;
  const int max_retry_seconds_;
  unsigned long long sent_ = 0; ///< bytes of the parts that were given to `send`

  mutable std::mutex mutex_; ///< guards what follows
  std::condition_variable work_;
  std::condition_variable done_;
  std::deque<Part> waiting_;
  unsigned busy_ = 0; ///< threads at a part
  std::vector<std::string> etags_;
  S3_Error error_;
  std::string spare_;                           ///< the memory of a part that was sent, for the next one
  size_t spare_charge_ = 0;                     ///< bytes of the job's budget that it holds; 0: there is none
  Side_Threads threads_{"Part", mutex_, work_}; ///< the last: they use the others
};

} // namespace s3
