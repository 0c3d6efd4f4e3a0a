#pragma once

#include "platform/store/database.h"
#include "platform/store/store.h"

#include <mutex>

/// The store in "STATE/agent.db", an SQLite database. Processes exclude each other by SQLite's own locks and wait up to
/// its busy time-out.
class SQLite_Store : public Store {
public:
  static constexpr const char* FILE_NAME = "agent.db";
  static std::unique_ptr<SQLite_Store> open(const std::string& state_folder, std::string& error);

  bool add_account(const Account& account, std::string& error) override;
  bool update_account(const Account& account, std::string& error) override;
  bool remove_account(const std::string& uuid, std::string& error) override;
  bool find_account(const std::string& uuid, Account& account, bool& found, std::string& error) override;
  bool find_account_by_name(const std::string& name, Account& account, bool& found, std::string& error) override;
  bool accounts(std::vector<Account>& accounts, std::string& error) override;

  bool add_pool(const Pool_Entry& pool, std::string& error) override;
  bool update_pool(const Pool_Entry& pool, std::string& error) override;
  bool remove_pool(const std::string& uuid, std::string& error) override;
  bool find_pool(const std::string& uuid, Pool_Entry& pool, bool& found, std::string& error) override;
  bool find_pool_by_name(const std::string& name, Pool_Entry& pool, bool& found, std::string& error) override;
  bool pools(std::vector<Pool_Entry>& pools, std::string& error) override;

  bool add_selection(const Selection& selection, std::string& error) override;
  bool update_selection(const Selection& selection, std::string& error) override;
  bool remove_selection(const std::string& uuid, std::string& error) override;
  bool find_selection(const std::string& uuid, Selection& selection, bool& found, std::string& error) override;
  bool find_selection(const std::string& account_uuid, const std::string& name, Selection& selection, bool& found,
                      std::string& error) override;
  bool selections(const std::string& account_uuid, std::vector<Selection>& selections, std::string& error) override;

  bool put_definition(const Definition& definition, std::string& error) override;
  bool remove_definition(const std::string& id, std::string& error) override;
  bool find_definition(const std::string& id, Definition& definition, bool& found, std::string& error) override;
  bool definitions(std::vector<Definition>& definitions, std::string& error) override;

  bool put_activity(const Activity& activity, std::string& error) override;
  bool find_activity(const std::string& id, Activity& activity, bool& found, std::string& error) override;
  bool activities(unsigned limit, std::vector<Activity>& activities, std::string& error) override;

  bool put_set(const Set& set, std::string& error) override;
  bool replace_set(const std::string& old_uuid, const Set& set, std::string& error) override;
  bool set_state(const std::string& uuid, const std::string& state, std::string& error) override;
  bool remove_set(const std::string& uuid, std::string& error) override;
  bool find_set(const std::string& uuid, Set& set, bool& found, std::string& error) override;
  bool sets_by_prefix(const std::string& prefix, std::vector<Set>& sets, std::string& error) override;
  bool sets(const std::string& pool_uuid, const std::string& account_uuid, const std::string& minor_resource_id,
            bool all, std::vector<Set>& sets, std::string& error) override;
  bool newest_set(const std::string& pool_uuid, const std::string& minor_resource_id, Set& set, bool& found,
                  std::string& error) override;
  bool sets_by_seq(const std::string& pool_uuid, const std::string& minor_resource_id, unsigned seq,
                   std::vector<Set>& sets, std::string& error) override;

  bool put_note(const std::string& kind, const std::string& key, const std::string& text, std::string& error) override;
  bool find_note(const std::string& kind, const std::string& key, std::string& text, bool& found,
                 std::string& error) override;

private:
  SQLite_Store() = default;

  // The inner halves expect the lock to be held.
  bool put_items(const std::string& owner, const char* kind, const std::vector<std::string>& items, std::string& error);
  bool get_items(const std::string& owner, const char* kind, std::vector<std::string>& items, std::string& error);
  bool read_accounts(Store_Statement& statement, std::vector<Account>& accounts, std::string& error);
  bool read_pools(Store_Statement& statement, std::vector<Pool_Entry>& pools, std::string& error);
  bool read_selections(Store_Statement& statement, std::vector<Selection>& selections, std::string& error);
  bool read_definitions(Store_Statement& statement, std::vector<Definition>& definitions, std::string& error);
  bool read_activities(Store_Statement& statement, std::vector<Activity>& activities, std::string& error);
  bool read_sets(Store_Statement& statement, std::vector<Set>& sets, std::string& error);
  bool write_account(const char* sql, const Account& account, std::string& error);
  /// Whether a row of `sql` with these two values exists; the texts are bound in order.
  bool exists(const char* sql, const std::string& first, const std::string& second, bool& found, std::string& error);
  bool count_sets(const char* sql, const std::string& owner, unsigned long long& count, std::string& error);
  bool remove_row(const char* sql, const char* what, const std::string& key, std::string& error);

  std::mutex mutex_; ///< guards the connection
  Store_Db db_;
};
