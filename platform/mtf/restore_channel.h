#pragma once

#include "platform/mtf/media_feed.h"
#include "platform/mtf/memory_shares.h"
#include "platform/mtf/run_account.h"
#include "sdk/mtf/restore_callback.h"

#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

/// An object on its way from the thread that read and verified it to the one that writes it. Whatever way it takes out,
/// the account has it once.
struct Prepared_Object {
  Media_Task task;
  std::string path; ///< of the target
  std::optional<Memory_Shares::Share> share;
  std::vector<char> buffer;
  size_t filled = 0; ///< bytes of content in `buffer`
  Stored_Reading reading;
  Read_Outcome outcome = Read_Outcome::MORE; ///< of the last read of `reading`
  bool whole = false;                        ///< `buffer` holds all of it, so that it can be written more than once
};

/// Where objects change hands: who brings one waits until it is taken. Any thread.
class Restore_Handover {
public:
  /// Before the first thread comes: how many threads bring objects. Each leaves once.
  void open(unsigned givers) { givers_ = givers; }
  /// False when it was stopped before the object was taken; the object is then let go.
  bool give(std::unique_ptr<Prepared_Object> object);
  void leave();
  /// The next object; null when nobody brings one any more, or once stopped.
  std::unique_ptr<Prepared_Object> take();
  void stop();

private:
  std::mutex mutex_; ///< guards what follows
  std::condition_variable changed_;
  std::deque<std::unique_ptr<Prepared_Object>> waiting_;
  unsigned long long given_ = 0;
  unsigned long long taken_ = 0;
  unsigned givers_ = 0;
  bool stopped_ = false;
};

/// What all channels of a restore share. Outlives them.
struct Restore_Shared {
  MTF_FS::IPath_Converter_var converter;
  bool only_different = false; ///< what is known to be there already is left as it is
  Media_Feed* feed = nullptr;
  Run_Account* account = nullptr;
  std::shared_ptr<S3_Ledger> ledger; ///< of the job; null where there is none
  /// Memory for what is verified before its target is touched: objects whole, or the first chunk of those that are
  /// larger than all of it.
  Memory_Shares memory;
  std::function<bool()> wait_while_paused; ///< false once the run has to end
  /// Waits so many seconds, and while paused. False once the run has to end.
  std::function<bool(double)> rest = [](double) { return false; };
  /// Whether the run is being cut short, so that an object which fails says nothing about itself.
  std::function<bool()> cut = [] { return false; };
  Restore_Handover handover;
};

/// Takes objects from the feed, applies the policy for what is there, reads and verifies them, and hands them over. It
/// touches no target, so that it may be ahead of the channels.
class Restore_Reading {
public:
  explicit Restore_Reading(Restore_Shared& shared) : shared_(shared) {}

  /// Body of the thread.
  void run();

private:
  std::unique_ptr<Prepared_Object> prepare(const Media_Task& task);
  bool is_wanted(const Media_Task& task, std::string& path);
  bool is_there(const Prepared_Object& object);
  bool could_look(const Media_Task& task, const std::string& path, const std::function<void()>& look);

  Restore_Shared& shared_;
};

/// One channel of a restore: takes the objects that are handed over and gives them to its callback's writers, one at a
/// time.
class Restore_Channel {
public:
  Restore_Channel(Restore_Shared& shared, MTF::IRestore_Callback_var callback) : shared_(shared), callback_(callback) {}

  /// Body of the channel's thread.
  void run();

private:
  /// Why an object could not be put into its place, for the account.
  struct Refusal {
    bool skipped = false; ///< else it failed
    std::string message;
    std::optional<S3_Error> reason; ///< what the service said
  };
  /// REFUSED: the account does not have it yet. ACCOUNTED: it has, or the run ends.
  enum class Writing { WRITTEN, ACCOUNTED, REFUSED };

  void put(Prepared_Object& object);
  Writing write(Prepared_Object& object, std::vector<std::string>& not_given, Refusal& refusal);

  Restore_Shared& shared_;
  MTF::IRestore_Callback_var callback_;
};
