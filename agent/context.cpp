#include "agent/context.h"

#include "agent/cancel_signals.h"
#include "agent/job_runner.h"
#include "agent/set_choice.h"
#include "platform/crypto/master_key.h"
#include "platform/file_backup/entry_query_handler.h"
#include "platform/file_backup/proxy_secret.h"
#include "platform/file_backup/set_catalog.h"
#include "platform/job/state_folder.h"

#include <ace/Thread_Manager.h>

#include <unistd.h>

#include <cstdlib>

std::string default_state_folder() {
  if (geteuid() == 0)
    return "/var/lib/obs-agent";
  if (const char* folder = std::getenv("XDG_STATE_HOME"); folder != nullptr && *folder != '\0')
    return std::string(folder) + "/obs-agent";
  const char* home = std::getenv("HOME");
  return std::string(home ? home : "") + "/.local/state/obs-agent";
}

Context::Context() : state_folder(default_state_folder()), module_path(default_module_path()) {}

Context::~Context() {
  // A job has ended for its observers a moment before its thread has left the module's code.
  ACE_Thread_Manager::instance()->wait();
  Global_JSON_RPC_Channel::instance(nullptr);
  channel_.reset();
  module_.reset();
  Store::instance(nullptr);
}

Store& Context::store() {
  if (store_)
    return *store_;
  std::string error;
  store_ = Store::open(state_folder, error);
  if (!store_)
    throw Command_Error(error);
  const Agent_Log::Verbosity level = verbosity == 0   ? Agent_Log::QUIET
                                     : verbosity == 1 ? Agent_Log::VERBOSE
                                                      : Agent_Log::DEBUG;
  if (!log_.start(state_folder + "/agent.log", level, error))
    throw Command_Error(error);
  Store::instance(store_.get());
  set_state_folder(state_folder);
  set_key_folder(state_folder);
  return *store_;
}

Module& Context::module() {
  if (module_)
    return *module_;
  Store& database = store();
  std::string error;
  // From here on threads may run that must not be asked to take signals; commands without jobs end by them as usual.
  cancel_signals::block();
  module_ = Module::load(module_path, error);
  if (!module_)
    throw Command_Error(error);
  entry_query_ = std::make_unique<Entry_Query_Handler>(database);
  channel_ = std::make_shared<In_Process_JSON_RPC_Channel>();
  channel_->route(Entry_Query_Handler::METHOD, entry_query_.get());
  channel_->route("obs.list", &module_->list_handler());
  channel_->route("obs.test", &module_->test_handler());
  Global_JSON_RPC_Channel::instance(channel_);
  return *module_;
}

JSON_RPC_Channel& Context::rpc() {
  module();
  return *channel_;
}

void Context::lock_state() {
  store();
  std::string error;
  const std::string what = "the state folder " + state_folder;
  std::shared_ptr<Process_Lock> lock = Process_Lock::acquire(state_folder, what, error, Lock_Rank::STATE);
  if (!lock)
    throw Command_Error(error);
  locks_.push_back(std::move(lock));
}

void Context::lock_pool(const Pool& pool) {
  std::string error;
  std::shared_ptr<Process_Lock> lock = pool.lock(error);
  if (!lock)
    throw Command_Error(error);
  locks_.push_back(std::move(lock));
}

Account Context::account(const std::string& name) {
  Account account;
  bool found = false;
  std::string error;
  if (!store().find_account_by_name(name, account, found, error) ||
      (!found && !store().find_account(name, account, found, error)))
    throw Command_Error(error);
  if (!found)
    throw Command_Error("there is no account '" + name + "'");
  // As older versions left it. Where it cannot be kept like that now, it is at the next time.
  const std::string proxy = account.proxy;
  if (seal_proxy(account.proxy, error) && account.proxy != proxy)
    store().update_account(account, error);
  return account;
}

Pool_Entry Context::pool_entry(const std::string& name) {
  Pool_Entry entry;
  bool found = false;
  std::string error;
  if (!store().find_pool_by_name(name, entry, found, error) ||
      (!found && !store().find_pool(name, entry, found, error)))
    throw Command_Error(error);
  if (!found)
    throw Command_Error("there is no pool '" + name + "'");
  return entry;
}

std::vector<std::string> Context::reconcile() {
  std::vector<Pool_Entry> pools;
  std::string error;
  if (!store().pools(pools, error))
    throw Command_Error(error);
  std::vector<std::string> warnings;
  for (const Pool_Entry& pool : pools) {
    std::vector<std::string> problems;
    if (!reconcile_sets(store(), pool.uuid, std::string(), error, &problems))
      warnings.push_back("the sets of pool '" + pool.name + "' are listed as they were last known: " + error);
    for (const std::string& problem : problems)
      warnings.push_back("pool '" + pool.name + "': " + problem);
  }
  return warnings;
}

namespace {

/// " that can be read: " and why, where the set whose uuid begins with `id` has a folder and is not known; else empty.
std::string unreadable_record(Context& context, const std::string& id) {
  std::vector<Pool_Entry> pools;
  std::string error;
  if (id.empty() || !context.store().pools(pools, error))
    return std::string();
  for (const Pool_Entry& entry : pools) {
    Pool pool;
    std::vector<std::string> bad;
    if (!open_known_pool(context.store(), entry.uuid, pool, error))
      continue;
    pool.sets(std::string(), bad);
    for (const std::string& one : bad)
      if (one.find("/" + id) != std::string::npos)
        return " that can be read: " + one;
  }
  return std::string();
}

} // namespace

Set Context::set(const std::string& id) {
  if (names_latest(id))
    return latest_set(*this, id);
  std::vector<Set> sets;
  std::string error;
  if (!store().sets_by_prefix(id, sets, error))
    throw Command_Error(error);
  if (sets.empty()) {
    reconcile();
    if (!store().sets_by_prefix(id, sets, error))
      throw Command_Error(error);
  }
  if (sets.empty())
    throw Command_Error("there is no set '" + id + "'" + unreadable_record(*this, id));
  if (sets.size() > 1)
    throw Command_Error("'" + id + "' is the beginning of " + std::to_string(sets.size()) + " sets: give more of it");
  return sets.front();
}

Pool Context::open_pool(const Pool_Entry& entry) {
  Pool pool;
  std::string error;
  if (!Pool::open(entry.url, entry.uuid, pool, error))
    throw Command_Error("pool '" + entry.name + "': " + error);
  return pool;
}

void Context::print(const json_spirit::Value& value, const Lines& text) const {
  if (json)
    print_json_line(value);
  else
    print_lines(text);
}
