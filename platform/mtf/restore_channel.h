#pragma once

#include "platform/mtf/media_feed.h"
#include "platform/mtf/run_account.h"
#include "sdk/mtf/restore_callback.h"

#include <functional>
#include <string>
#include <vector>

/// What all channels of a restore share. Outlives them.
struct Restore_Shared {
  MTF_FS::IPath_Converter_var converter;
  Media_Feed* feed = nullptr;
  Run_Account* account = nullptr;
  size_t whole_object = 0;                 ///< objects up to this size are verified whole before anything is touched
  std::function<bool()> wait_while_paused; ///< false once the run has to end
};

/// One channel of a restore: takes objects from the feed, verifies them and hands them to its callback's writers.
class Restore_Channel {
public:
  Restore_Channel(Restore_Shared& shared, MTF::IRestore_Callback_var callback) : shared_(shared), callback_(callback) {}

  /// Body of the channel's thread.
  void run();

private:
  void restore(const Media_Task& task);
  bool write(const Media_Task& task, const std::string& path, Stored_Reading& reading, size_t first,
             Read_Outcome outcome, std::vector<std::string>& not_given);
  void skip(const Media_Task& task, const std::string& message);
  void fail(const Media_Task& task, const std::string& message);

  Restore_Shared& shared_;
  MTF::IRestore_Callback_var callback_;
  std::vector<char> buffer_;
};
