#pragma once

#include "platform/catalog/catalog_reader.h"
#include "platform/mtf/run_account.h"
#include "platform/pool/pool.h"
#include "sdk/mtf/mtf_restore.h"

#include <list>
#include <memory>
#include <string>

/// What one restore is told.
struct Restore_Order {
  MTF_FS::IPath_Converter_var converter;
  Action_Handler_var actions;
  MTF::IRestore_Callback_Factory_var factory;
  std::string uri_prefix; ///< of the set: "HOST/RESOURCE/ACTIVITY" or "HOST/RESOURCE"
  std::string minor_resource_id;
  std::string incarnation;    ///< of the chain that the set belongs to; empty: any
  unsigned long long seq = 0; ///< of the set in its chain
  std::string set_uuid;       ///< of the set, or of one whose place it took in a merge; empty: any
  std::list<json_spirit::Value> select;
  unsigned concurrent = 16; ///< objects written at the same time
  /// What the converter knows to be there already, with the same content, is not written (IFile_Comparison).
  bool only_different = false;
  /// Bytes of memory for objects that are verified whole before they are written, over all channels.
  size_t byte_budget = 64u << 20;
};

/// Turns {"dir": path} and {"file": path} entries into a selection. False, with the reason, for anything else.
bool parse_restore_selection(const std::list<json_spirit::Value>& entries, Catalog_Selection& selection,
                             std::string& error);

/// The set that an order names among those of the pool: by its folder, else by its uuid or place in the chain. False
/// with the reason: there is none, or there are several.
bool find_restore_set(const Pool& pool, const Restore_Order& order, Set_Record& record, std::string& error);

/// Runs one restore. Made for one run; one thread.
class Restore_Engine {
public:
  Restore_Engine(Restore_Order order, MTF::Event_Handler_var handler, std::shared_ptr<ACE_Log_Msg_Callback> log);
  ~Restore_Engine();
  Restore_Engine(const Restore_Engine&) = delete;
  Restore_Engine& operator=(const Restore_Engine&) = delete;

  /// Restores from the pool at `location`. Returns when all threads have ended.
  bool run(const std::string& location, const std::string& pool_uuid);
  /// A run that ended before it began, because the pool is not known.
  bool refuse(MTF::Error_Code code, const std::string& error);

  MTF::Error_Code err_code() const;
  const std::string& failure() const;  ///< why the run failed; empty otherwise
  unsigned long long size() const;     ///< bytes of the objects restored
  unsigned long long set_size() const; ///< bytes read from media

private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};
