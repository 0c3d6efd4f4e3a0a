#pragma once

#include "platform/mtf/media_feed.h"
#include "platform/mtf/memory_shares.h"
#include "platform/mtf/run_account.h"
#include "sdk/mtf/restore_callback.h"

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

/// Lets a number of threads pass at the same time. Any thread.
class Write_Gate {
public:
  /// Before the first thread comes.
  void open(unsigned count) { left_ = count; }
  void enter() {
    std::unique_lock<std::mutex> lock(mutex_);
    freed_.wait(lock, [this] { return left_ != 0; });
    --left_;
  }
  void leave() {
    const std::lock_guard<std::mutex> guard(mutex_);
    ++left_;
    freed_.notify_one();
  }

private:
  std::mutex mutex_; ///< guards `left_`
  std::condition_variable freed_;
  unsigned left_ = 1;
};

/// What all channels of a restore share. Outlives them.
struct Restore_Shared {
  MTF_FS::IPath_Converter_var converter;
  Media_Feed* feed = nullptr;
  Run_Account* account = nullptr;
  std::shared_ptr<S3_Ledger> ledger; ///< of the job; null where there is none
  /// Memory for what is verified before its target is touched: objects whole, or the first chunk of those that are
  /// larger than all of it.
  Memory_Shares memory;
  std::function<bool()> wait_while_paused; ///< false once the run has to end
  /// Whether the run is being cut short, so that an object which fails says nothing about itself.
  std::function<bool()> cut = [] { return false; };
  /// Of the channels only so many write: while these wait for their service, as many others read and verify the next
  /// objects and clear the way for them, which is a request of its own.
  Write_Gate writing;
};

/// One channel of a restore: takes objects from the feed, verifies them and hands them to its callback's writers.
class Restore_Channel {
public:
  Restore_Channel(Restore_Shared& shared, MTF::IRestore_Callback_var callback) : shared_(shared), callback_(callback) {}

  /// Body of the channel's thread.
  void run();

private:
  void restore(const Media_Task& task);
  bool replace(const Media_Task& task, const std::string& path, Stored_Reading& reading, size_t first,
               Read_Outcome outcome, std::vector<std::string>& not_given);
  bool write(const Media_Task& task, const std::string& path, Stored_Reading& reading, size_t first,
             Read_Outcome outcome, std::vector<std::string>& not_given);
  void skip(const Media_Task& task, const std::string& message);
  void fail(const Media_Task& task, const std::string& message, int number = 0);
  std::optional<S3_Error> take_failure();

  Restore_Shared& shared_;
  MTF::IRestore_Callback_var callback_;
  std::vector<char> buffer_;
};
