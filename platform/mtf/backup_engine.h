#pragma once

#include "platform/mtf/backup_limits.h"
#include "platform/mtf/deletion_guard.h"
#include "platform/mtf/object_image.h"
#include "platform/mtf/run_account.h"
#include "platform/pool/pool.h"
#include "platform/pool/set_numbers.h"
#include "sdk/mtf/mtf_backup.h"

#include <list>
#include <memory>
#include <string>

/// What one backup is told.
struct Backup_Order {
  std::list<std::string> sources;
  std::list<std::string> asked; ///< the operator's, before any was dropped that another one takes in; none: `sources`
  Deletion_Limits deletions;
  MTF::IBackup_Callback_Factory_var factory;
  const MTF::IFilter* filter = nullptr;
  Action_Handler_var actions;
  std::string uuid;       ///< of the set
  std::string uri_prefix; ///< "HOST/RESOURCE/ACTIVITY", or one of which only HOST and RESOURCE count
  unsigned base_seq = 0;  ///< of the last set of the chain; 0: none
  std::string base_uuid;  ///< of that set; empty: `base_seq` says it
  Set_Numbers numbers;    ///< of other sets, beside those that lie in the pool: the new one gets none of them
  bool incremental = false;
  unsigned channels = 1;
  unsigned scan_threads = 8;
  Codec_Options codec;
  Client_IO_Base::Options io;
  Backup_Limits limits;
};

/// Runs one backup: lister, queue, channels, catalog. Made for one run; one thread.
class Backup_Engine {
public:
  Backup_Engine(Backup_Order order, MTF::Event_Handler_var handler, MTF::Metadata& metadata,
                std::shared_ptr<ACE_Log_Msg_Callback> log);
  ~Backup_Engine();
  Backup_Engine(const Backup_Engine&) = delete;
  Backup_Engine& operator=(const Backup_Engine&) = delete;

  /// Writes the set into the pool at `location`, whose uuid must be `pool_uuid` when that is not empty. Returns when
  /// all threads have ended. The set's folder stays locked as long as the engine lives, so that the set can be
  /// committed in peace, and from then on the job can no longer be cancelled. After false the folder is gone, or is
  /// left for the next run to go on with.
  bool run(const std::string& location, const std::string& pool_uuid);
  /// A run that ended before it began, because the pool is not known.
  bool refuse(MTF::Error_Code code, const std::string& error);

  MTF::Error_Code err_code() const;
  const std::string& failure() const; ///< why the run failed; empty otherwise
  unsigned long long size() const;
  unsigned long long set_size() const;
  unsigned long long set_storage_size() const;
  size_t peak_bytes() const; ///< the most that the byte budget held

private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};
