#pragma once

#include "platform/catalog/catalog_format.h"
#include "platform/mtf/backup_limits.h"
#include "platform/mtf/object_image.h"
#include "sdk/mtf/backup_callback.h"

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

/// A listed object on its way to a medium.
struct Backup_Item {
  enum State {
    READING, ///< a reader has it
    READY,   ///< `image` is whole
    STREAM,  ///< the channel's writer is to read it
    KEPT,    ///< `known` is for the catalog
    DROPPED  ///< it could not be read or need not be, which is accounted for
  };

  std::shared_ptr<const std::string> folder; ///< "bucket/a/", shared by the objects of one visit
  std::string name;
  unsigned long long ordinal = 0;
  unsigned long long listed_size = 0;
  long long listed_mtime = 0;
  unsigned long long size = 0;           ///< as listed, then as the answer said
  long long mtime = 0;                   ///< the same
  MTF::File_Attributes attributes;       ///< what else belongs to it
  std::vector<std::string> not_had;      ///< of that, a text each
  std::unique_ptr<Catalog_Object> known; ///< its data are stored: only attributes are asked for; null for all others
  bool continued = false;                ///< of `known`: an unfinished run has stored them
  std::unique_ptr<Catalog_Object> older; ///< what the base has of it; null: nothing that could be kept
  std::string md5;                       ///< what the content must have, in hexadecimal; empty: not known
  bool fresh = false;                    ///< by the service's clock it was modified just before it was read
  State state = READING;
  size_t reserved = 0;          ///< bytes of the budget that it holds
  MTF::IFile_Reader_var reader; ///< STREAM: already open on it; null: to be opened
  Object_Image image;           ///< READY

  std::string path() const { return *folder + name; }
};

/// The way of the objects from the lister to the channels, and the byte budget that bounds what is under way.
///
/// One queue, in the order of the listing. A channel's readers claim from its front; what a channel has claimed it
/// writes in the order of the claims, so offsets on a medium rise with the ordinals. An item gets its share of the
/// budget together with its claim, so whatever is claimed can be finished and the one at a channel's front never
/// waits for those behind it. Large objects need no budget; a channel claims one only while it has no other.
///
/// Any thread; `next` only the channel's writer.
class Backup_Queue {
public:
  Backup_Queue(const Backup_Limits& limits, unsigned channels);

  /// Appends an object; blocks while too many wait. False once stopped.
  bool push(std::unique_ptr<Backup_Item> item);
  /// No more will come.
  void close();

  /// The next small object for a reader of `channel`, its budget reserved; blocks. Null at the end and once stopped.
  /// Stays the queue's, and the reader's until `settle`. Large objects on the way go to the channel's writer.
  Backup_Item* claim(unsigned channel);
  /// Reserves `bytes` more for a claimed item, if that is possible at once.
  bool reserve(Backup_Item& item, size_t bytes);
  /// The reader is done with an item of `channel`, which holds `keep` bytes from now on.
  void settle(unsigned channel, Backup_Item& item, Backup_Item::State state, size_t keep);

  /// The channel's next object once it is no longer being read; blocks. Null at the end and once stopped (see `stop`).
  /// The caller gives it back to `done`.
  std::unique_ptr<Backup_Item> next(unsigned channel);
  void done(unsigned channel, std::unique_ptr<Backup_Item> item);

  /// Ends all waiting for good. With `drain` the writers still get what has been read, and nothing else.
  void stop(bool drain = false);
  bool stopped() const;
  /// While paused nothing is claimed.
  void pause(bool value);
  /// Blocks while paused, or until `seconds` have gone when that is not 0. False once stopped.
  bool wait_while_paused(double seconds = 0);

  size_t peak_bytes() const; ///< the most that was reserved at one time

private:
  struct Channel {
    std::deque<std::unique_ptr<Backup_Item>> claimed;
    unsigned streams = 0;          ///< claimed and not yet done
    std::condition_variable front; ///< the front one may be taken, or the end is reached
  };

  size_t need(const Backup_Item& item) const;
  bool large(const Backup_Item& item) const { return item.size > limits_.small_object; }
  void pass_on();
  void wake_all();
  void charge(Backup_Item& item, size_t bytes);
  void release(Backup_Item& item, size_t bytes);

  const Backup_Limits limits_;
  mutable std::mutex mutex_; ///< guards everything below
  std::condition_variable room_;
  std::condition_variable arrived_;
  std::condition_variable budget_;
  std::condition_variable streams_; ///< a large object left the front, or a channel is done with one
  std::condition_variable resumed_;
  std::deque<std::unique_ptr<Backup_Item>> waiting_;
  std::vector<std::unique_ptr<Channel>> channels_;
  size_t used_ = 0;
  size_t peak_ = 0;
  bool closed_ = false;
  bool stopped_ = false;
  bool draining_ = false; ///< `stopped_`, and the writers get what was read
  bool paused_ = false;
};
