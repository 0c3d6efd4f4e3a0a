#pragma once

#include "sdk/job/action_handler.h"
#include "sdk/job/compression.h"
#include "sdk/mtf/backup_callback.h"
#include "sdk/mtf/client_io.h"
#include "sdk/mtf/error_code.h"
#include "sdk/mtf/metadata.h"

#include <ace/Log_Msg_Callback.h>

/// How the engine compresses.
enum MTF_Compression {
  MTF_COMPRESSION_NONE = 0,
  MTF_COMPRESSION_AUTO = 1,
  MTF_COMPRESSION_LZOP = 2,
  MTF_COMPRESSION_ZSTD = 3
};
MTF_Compression compression_to_mtf(Compression_Method method);

/// Writes one set: asks the callback for the list of files, reads them over a number of channels, and leaves media and
/// catalog whole in the pool. The set itself appears when its record is committed (Catalog_Operator).
///
/// Set it up, call `backup` once, read the results. One thread; `backup` returns when all of the engine's own threads
/// have ended.
class MTF_Backup {
public:
  /// `metadata` is filled while the engine runs and outlives it.
  MTF_Backup(MTF::Event_Handler_var event_handler, MTF::Metadata& metadata, std::shared_ptr<ACE_Log_Msg_Callback> log);
  ~MTF_Backup();
  MTF_Backup(const MTF_Backup&) = delete;
  MTF_Backup& operator=(const MTF_Backup&) = delete;

  void add_source(const std::string& path);        ///< "/bucket/", "/bucket/prefix/", "/bucket/key"; none: all
  void action_handler(Action_Handler_var handler); ///< scripts around the run; may be null
  void callback_factory(MTF::IBackup_Callback_Factory_var factory); ///< must be given
  void filter(const MTF::IFilter* filter);                          ///< not owned; may be null
  void pool_uuid(const std::string& uuid);
  void device_uuid(const std::string& uuid);     ///< finds the pool where `pool_uuid` is empty
  void host_uuid(const std::string& uuid);       ///< these two make the prefix of the set's folder,
  void minor_resource_id(const std::string& id); ///< "HOST/RESOURCE/", unless `uri_prefix` gives one
  void uuid(const std::string& uuid);            ///< of the set
  void seq(unsigned seq);                        ///< of the last set in the chain; 0 for a full backup
  void channel_num(unsigned channels);           ///< media written at the same time
  void compression(MTF_Compression method);
  void compression_level(int level);               ///< of zstd, 1 to 19
  Client_IO_Base::Options& extra_client_io_opts(); ///< the engine's; to be filled before `backup`
  void uri_prefix(const std::string& prefix);      ///< of the set's folder in the pool
  void base_seq(unsigned seq);                     ///< accepted, no effect here: `seq` says it
  void cache_path(const std::string& path);        ///< accepted, no effect here: nothing is cached on disk
  void scan_fs_threads(unsigned threads);          ///< listing threads; the engine's default is 8
  void incremental(bool value);                    ///< false: every file is read

  /// Runs the backup into `target`, or where it was configured when that is empty. True when media and catalog are
  /// whole, also when files were skipped; `err_code` then says so.
  bool backup(const std::string& target);

  // After `backup`; E_OK and 0 before.
  MTF::Error_Code err_code() const;
  unsigned long long size() const;             ///< bytes of the objects saved in this run
  unsigned long long set_size() const;         ///< bytes of the set before compression
  unsigned long long set_storage_size() const; ///< bytes written to the pool

private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};
