#pragma once

#include "platform/mtf/backup_base.h"
#include "platform/mtf/backup_queue.h"
#include "platform/mtf/backup_reading.h"
#include "platform/mtf/medium_writer.h"
#include "platform/mtf/run_account.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

/// What all channels of a run share. Outlives them.
struct Backup_Shared {
  Backup_Limits limits;
  Codec_Options codec;
  unsigned seq = 0; ///< of the set that is being written
  MTF::IBackup_Callback_var callback;
  Backup_Queue* queue = nullptr;
  Run_Account* account = nullptr;
  Catalog_Writer* catalog = nullptr;
  Backup_Base* base = nullptr;       ///< null where there is none
  std::shared_ptr<S3_Ledger> ledger; ///< of the job; null where there is none
  /// Whether the run is being cut short, so that an object which cannot be had says nothing about itself.
  std::function<bool()> cut = [] { return false; };
  /// Ends the run for the reason given. Any thread; the first one counts.
  std::function<void(MTF::Error_Code, const std::string&)> fail;
};

/// One channel of a backup: a medium, the readers that fetch small objects ahead for it, and the writer that appends in
/// the order of the listing and reads large objects itself.
class Backup_Channel {
public:
  Backup_Channel(Backup_Shared& shared, unsigned number, std::unique_ptr<Medium_Writer> medium)
      : shared_(shared), number_(number), medium_(std::move(medium)) {}

  /// Bodies of a reader's and of the writer's thread; return at the end of the listing and once the run is stopped.
  void read();
  void write();

  /// For the time after all threads have ended. Ends the medium; false, the run having failed, when that cannot be
  /// done.
  bool finish(const Set_Copy* copy = nullptr);
  /// For the same time of a run that was stopped: what is whole on the medium can be taken up by another run. False
  /// when the medium has failed.
  bool keep() { return medium_->flush(); }
  /// How large it is.
  unsigned long long size() const { return medium_->size(); }
  /// Closes the medium's file.
  void release() { medium_.reset(); }

private:
  /// Why one object had to be read again from its start so far.
  struct Tries {
    unsigned changes = 0; ///< it was replaced while it was read
    unsigned failures = 0;
  };

  Reading_Outcome fetch(Backup_Item& item, MTF::IFile_Reader_var& reader, std::vector<char>& buffer);
  void ask(Backup_Item& item, MTF::IFile_Reader_var& reader);
  bool keep(Backup_Item& item);
  bool append(Backup_Item& item);
  bool stream(Backup_Item& item, std::vector<char>& buffer);
  Reading_Outcome stream_once(Backup_Item& item, Object_Reading& reading, std::vector<char>& buffer,
                              Stored_Object& stored);
  bool enter_folder(const Backup_Item& item);
  bool record(const Backup_Item& item, const Stored_Object& stored);
  void skip(Backup_Item& item, const std::string& message);
  void fail(Backup_Item& item, int number, const std::string& message);
  std::string keep_older(Backup_Item& item);
  bool keep_same(Backup_Item& item);
  bool fits(Backup_Item& item);
  bool is_cut_short(const Backup_Item& item) const;
  bool was_away_since(unsigned long long outages);
  bool service_is_back(const std::optional<S3_Error>& reason);
  bool read_again(Backup_Item& item, Reading_Outcome outcome, const Object_Reading& reading, Tries& tries);
  /// Takes over what the answer that the open object comes from said about it.
  void take_status(Backup_Item& item, Object_Reading& reading);
  Object_Head head_of(const Backup_Item& item) const;
  bool medium_failed();

  Backup_Shared& shared_;
  const unsigned number_;
  std::unique_ptr<Medium_Writer> medium_;
  std::shared_ptr<const std::string> folder_; ///< of the object written last
};
