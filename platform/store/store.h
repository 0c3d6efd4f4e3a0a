#pragma once

#include "platform/store/records.h"

#include <memory>
#include <string>
#include <vector>

/// What the agent remembers between runs: accounts, pools, selections, definitions, activities and sets.
///
/// Every operation answers true when the store has done it, and false with a message for the operator when it could
/// not: a name that is taken, a record that does not exist or is still in use, or a database that cannot be read or
/// written. Nothing is changed then. `find_*` answer true also when there is nothing; `found` tells, and the record is
/// untouched when it is false. Texts are bytes and come back as they were given.
///
/// Any thread, and any number of processes on the same state folder.
class Store {
public:
  virtual ~Store();

  /// Opens the store of a state folder, and makes folder (mode 0700) and database when they are missing. Null with the
  /// reason: no permission, damaged, written by a newer version.
  static std::unique_ptr<Store> open(const std::string& state_folder, std::string& error);

  /// The store of this process, which the platform's functions use; null while none is set.
  static Store* instance();
  /// Sets it (null: none). The caller keeps ownership and keeps it alive while jobs run.
  static void instance(Store* store);

  // Accounts, by name.
  virtual bool add_account(const Account& account, std::string& error) = 0;
  /// Replaces everything but the uuid.
  virtual bool update_account(const Account& account, std::string& error) = 0;
  /// Removes it with its selections. Refused while sets of it are online.
  virtual bool remove_account(const std::string& uuid, std::string& error) = 0;
  virtual bool find_account(const std::string& uuid, Account& account, bool& found, std::string& error) = 0;
  virtual bool find_account_by_name(const std::string& name, Account& account, bool& found, std::string& error) = 0;
  virtual bool accounts(std::vector<Account>& accounts, std::string& error) = 0;

  // Pools, by name.
  virtual bool add_pool(const Pool_Entry& pool, std::string& error) = 0;
  virtual bool update_pool(const Pool_Entry& pool, std::string& error) = 0;
  /// Forgets the pool and the rows of its sets that are gone; the pool itself is not touched. Refused while sets of it
  /// are online.
  virtual bool remove_pool(const std::string& uuid, std::string& error) = 0;
  virtual bool find_pool(const std::string& uuid, Pool_Entry& pool, bool& found, std::string& error) = 0;
  virtual bool find_pool_by_name(const std::string& name, Pool_Entry& pool, bool& found, std::string& error) = 0;
  virtual bool pools(std::vector<Pool_Entry>& pools, std::string& error) = 0;

  // Selections, by name. The account must exist.
  virtual bool add_selection(const Selection& selection, std::string& error) = 0;
  virtual bool update_selection(const Selection& selection, std::string& error) = 0;
  virtual bool remove_selection(const std::string& uuid, std::string& error) = 0;
  virtual bool find_selection(const std::string& uuid, Selection& selection, bool& found, std::string& error) = 0;
  virtual bool find_selection(const std::string& account_uuid, const std::string& name, Selection& selection,
                              bool& found, std::string& error) = 0;
  /// Those of one account; of all accounts when `account_uuid` is empty.
  virtual bool selections(const std::string& account_uuid, std::vector<Selection>& selections, std::string& error) = 0;

  // Definitions, by name. Names may repeat.
  /// Adds or replaces the definition of that id.
  virtual bool put_definition(const Definition& definition, std::string& error) = 0;
  virtual bool remove_definition(const std::string& id, std::string& error) = 0;
  virtual bool find_definition(const std::string& id, Definition& definition, bool& found, std::string& error) = 0;
  virtual bool definitions(std::vector<Definition>& definitions, std::string& error) = 0;

  // Activities.
  /// Adds or replaces the activity of that id.
  virtual bool put_activity(const Activity& activity, std::string& error) = 0;
  virtual bool find_activity(const std::string& id, Activity& activity, bool& found, std::string& error) = 0;
  /// The latest ones, newest first, at most `limit`.
  virtual bool activities(unsigned limit, std::vector<Activity>& activities, std::string& error) = 0;

  // Sets.
  /// Adds or replaces the row of a set. The pool must exist.
  virtual bool put_set(const Set& set, std::string& error) = 0;
  /// Gives the row of the set `old_uuid` to `set`, which took that one's place: it keeps the place in the order.
  virtual bool replace_set(const std::string& old_uuid, const Set& set, std::string& error) = 0;
  virtual bool set_state(const std::string& uuid, const std::string& state, std::string& error) = 0;
  virtual bool remove_set(const std::string& uuid, std::string& error) = 0;
  /// The set whatever its state.
  virtual bool find_set(const std::string& uuid, Set& set, bool& found, std::string& error) = 0;
  /// Online sets whose uuid begins with `prefix`, oldest first.
  virtual bool sets_by_prefix(const std::string& prefix, std::vector<Set>& sets, std::string& error) = 0;
  /// Sets, oldest first by the time at which they began, also those that are gone when `all`; an empty argument does
  /// not narrow. Of one second, a set stands behind those that it was compared with, else as the rows were added.
  virtual bool sets(const std::string& pool_uuid, const std::string& account_uuid, const std::string& minor_resource_id,
                    bool all, std::vector<Set>& sets, std::string& error) = 0;
  /// The online set of a resource in a pool that began last. One that another online set was compared with is never
  /// it, whatever the clock said.
  virtual bool newest_set(const std::string& pool_uuid, const std::string& minor_resource_id, Set& set, bool& found,
                          std::string& error) = 0;
  /// All online sets of a resource in a pool with that number, oldest first: there may be several.
  virtual bool sets_by_seq(const std::string& pool_uuid, const std::string& minor_resource_id, unsigned seq,
                           std::vector<Set>& sets, std::string& error) = 0;

  // Small texts that the platform keeps, by kind and key.
  virtual bool put_note(const std::string& kind, const std::string& key, const std::string& text,
                        std::string& error) = 0;
  virtual bool find_note(const std::string& kind, const std::string& key, std::string& text, bool& found,
                         std::string& error) = 0;
};
