#pragma once

#include "sdk/job/action_handler.h"
#include "sdk/mtf/client_io.h"
#include "sdk/mtf/event_handler.h"
#include "sdk/mtf/restore_callback.h"

#include <ace/Log_Msg_Callback.h>

#include <list>

/// Restores files of one set: finds them in its catalog, reads each medium in order and hands every file to the
/// callback's writer. Set it up, call `restore` once, read the results. One thread.
class MTF_Restore {
public:
  MTF_Restore(MTF::Event_Handler_var event_handler, std::shared_ptr<ACE_Log_Msg_Callback> log);
  ~MTF_Restore();
  MTF_Restore(const MTF_Restore&) = delete;
  MTF_Restore& operator=(const MTF_Restore&) = delete;

  void path_converter(MTF_FS::IPath_Converter_var converter);        ///< may be null: every file goes where it was
  void action_handler(Action_Handler_var handler);                   ///< scripts around the run; may be null
  void callback_factory(MTF::IRestore_Callback_Factory_var factory); ///< must be given
  void target_location(const std::string& location);                 ///< URI of the pool, for `standalone`
  void backup_uri_prefix(const std::string& prefix); ///< of the set's folder; empty: "HOST/RESOURCE" of the two below
  void pool_uuid(const std::string& uuid);
  void definition_uuid(const std::string& uuid); ///< accepted, no effect here
  void backup_host_uuid(const std::string& uuid);
  void backup_minor_resource_id(const std::string& id);
  void seq(ACE_INT64 seq); ///< number of the set
  /// Objects {"dir": path} or {"file": path}; an empty list selects everything.
  void restore_select(const std::list<json_spirit::Value>& entries);
  Client_IO_Base::Options& extra_client_io_opts();  ///< accepted, no effect here
  void incarnation(const std::string& incarnation); ///< of the set's chain; empty: the newest set of that number
  void channel_num(unsigned channels);              ///< of the backup; accepted, no effect here: the record says it
  void concurrent(unsigned channels);               ///< files written at the same time; 0: the engine's default, 16
  /// The set is found by what its folder holds alone; the agent's database is not asked.
  void standalone(bool value);
  void cache_path(const std::string& path); ///< accepted, no effect here: nothing is cached on disk

  /// Reads from the pool at `target`, a URI, or from the pool of `pool_uuid` when that is empty. True when the run went
  /// through, also when files were skipped; `err_code` then says so.
  bool restore(const std::string& target);

  // After `restore`; E_OK and 0 before.
  MTF::Error_Code err_code() const;
  unsigned long long size() const;     ///< bytes of the files restored
  unsigned long long set_size() const; ///< bytes read from media

private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};
