#pragma once

#include "agent/agent_log.h"
#include "agent/lines.h"
#include "agent/module_loader.h"
#include "agent/outcome.h"
#include "platform/pool/pool.h"
#include "platform/store/store.h"
#include "sdk/rpc/json_rpc.h"

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

/// Ends a command with one line on standard error and an exit code. Thrown inside the program only; `main` catches it.
class Command_Error : public std::runtime_error {
public:
  explicit Command_Error(const std::string& message, Exit_Code code = EXIT_FAILED)
      : std::runtime_error(message), code_(code) {}
  Exit_Code code() const { return code_; }

private:
  Exit_Code code_;
};

/// What all commands share: the options before the command, and the parts of the program, each opened when the first
/// command asks for it. The main thread's.
class Context {
public:
  Context();
  ~Context();

  // Options.
  std::string state_folder;
  std::string module_path;
  bool json = false;
  int verbosity = 0;

  /// Opens state folder, log and database. Throws Command_Error.
  Store& store();
  /// Loads the module and puts the store behind the JSON-RPC channel. Throws Command_Error.
  Module& module();
  Agent_Log& log() { return log_; }
  /// The channel on which "obs.list" and "obs.test" are served by the module.
  JSON_RPC_Channel& rpc();

  /// Makes the database agree with what lies in the pools, so that sets are known that were made elsewhere or that a
  /// lost database had forgotten. Returns a line for each pool that could not be read; what is known of it stays.
  std::vector<std::string> reconcile();
  /// Locks the state folder, or a pool, against other processes that would change it, until the program ends. Commands
  /// that only read need no lock. Throw Command_Error that names the process which has it.
  void lock_state();
  void lock_pool(const Pool& pool);

  /// The account, pool or set of that name or uuid. Throw Command_Error when there is none, or when the beginning of a
  /// uuid fits several sets. A set that is not known is looked for in the pools. "latest" is the newest whole one
  /// (set_choice.h).
  Account account(const std::string& name);
  Pool_Entry pool_entry(const std::string& name);
  Set set(const std::string& id);
  /// Opens the pool. Throws Command_Error.
  Pool open_pool(const Pool_Entry& entry);

  /// Prints one JSON value, or the text, as the user asked.
  void print(const json_spirit::Value& value, const Lines& text) const;

  Exit_Code exit_code = EXIT_COMPLETED;

private:
  Agent_Log log_;
  std::vector<std::shared_ptr<Process_Lock>> locks_;
  std::unique_ptr<Store> store_;
  std::shared_ptr<In_Process_JSON_RPC_Channel> channel_;
  std::unique_ptr<JSON_RPC_Handler> entry_query_;
  std::unique_ptr<Module> module_;
};

/// $XDG_STATE_HOME/obs-agent, for root /var/lib/obs-agent.
std::string default_state_folder();
