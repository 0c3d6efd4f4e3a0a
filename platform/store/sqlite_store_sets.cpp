#include "platform/store/sqlite_store.h"

#include "platform/pool/set_order.h"

#include <algorithm>
#include <map>
#include <string_view>

#define SET_COLUMNS                                                                                                    \
  "uuid,pool_uuid,account_uuid,minor_resource_id,minor_resource_name,name,seq,channels,incarnation,uri,type,"          \
  "start_time,end_time,source_size,backup_set_size,backup_set_storage_size,objects,missing,state"

// A set whose row comes late, as one that was made again from its media, is no newer for that.
#define OLDEST_FIRST " ORDER BY start_time, added"

namespace {

/// In the column: -1.
constexpr unsigned long long MISSING_UNKNOWN = ~0ull;

typedef std::vector<Set>::iterator Set_Iterator;

/// Whether one of the sets stands before one that it was compared with.
bool is_before_base(Set_Iterator begin, Set_Iterator end) {
  std::map<std::string_view, Set_Iterator> places;
  for (Set_Iterator set = begin; set != end; ++set)
    places.emplace(set->uuid, set);
  for (Set_Iterator set = begin; set != end; ++set)
    for (const std::string& base : set->bases)
      if (const auto place = places.find(base); place != places.end() && place->second > set)
        return true;
  return false;
}

/// Of one second, a set stands behind those that it was compared with, in whatever order they became known.
void put_behind_bases(std::vector<Set>& sets) {
  for (Set_Iterator begin = sets.begin(), end; begin != sets.end(); begin = end) {
    end = std::find_if(begin, sets.end(), [&](const Set& set) { return set.start_time != begin->start_time; });
    if (end - begin == 1 || !is_before_base(begin, end))
      continue;
    for (Set_Iterator set = begin; set != end; ++set) {
      // As often as there are sets: bases may go in a circle.
      auto moves = end - set;
      for (Set_Iterator later = set + 1; later != end && moves != 0; ++later)
        if (std::find(set->bases.begin(), set->bases.end(), later->uuid) != set->bases.end()) {
          std::rotate(set, later, later + 1);
          later = set;
          --moves;
        }
    }
  }
}

bool first_of(std::vector<Set>& rows, Set& set, bool& found) {
  found = !rows.empty();
  if (found)
    set = std::move(rows.front());
  return true;
}

} // namespace

bool SQLite_Store::add_selection(const Selection& selection, std::string& error) {
  if (selection.uuid.empty() || selection.name.empty()) {
    error = "a selection needs a uuid and a name";
    return false;
  }
  const std::lock_guard<std::mutex> guard(mutex_);
  Store_Transaction transaction(db_);
  bool account = false;
  bool name = false;
  bool uuid = false;
  if (!transaction.begin(error) ||
      !exists("SELECT 1 FROM accounts WHERE uuid=? AND ?<>''", selection.account_uuid, selection.uuid, account,
              error) ||
      !exists("SELECT 1 FROM selections WHERE account_uuid=? AND name=?", selection.account_uuid, selection.name, name,
              error) ||
      !exists("SELECT 1 FROM selections WHERE uuid=? AND ?<>''", selection.uuid, selection.uuid, uuid, error))
    return false;
  if (!account) {
    error = "there is no account '" + selection.account_uuid + "'";
    return false;
  }
  if (name || uuid) {
    error = "selection '" + selection.name + "' exists already";
    return false;
  }
  return Store_Statement(db_, "INSERT INTO selections(uuid,account_uuid,name) VALUES(?,?,?)")
             .text(selection.uuid)
             .text(selection.account_uuid)
             .text(selection.name)
             .run(error) &&
         put_items(selection.uuid, "path", selection.paths, error) &&
         put_items(selection.uuid, "exclusion", selection.exclusions, error) &&
         put_items(selection.uuid, "inclusion", selection.inclusions, error) && transaction.commit(error);
}

bool SQLite_Store::update_selection(const Selection& selection, std::string& error) {
  const std::lock_guard<std::mutex> guard(mutex_);
  Store_Transaction transaction(db_);
  bool taken = false;
  bool account = false;
  Store_Statement other(db_, "SELECT 1 FROM selections WHERE account_uuid=? AND name=? AND uuid<>?");
  if (!transaction.begin(error))
    return false;
  taken = other.text(selection.account_uuid).text(selection.name).text(selection.uuid).next();
  if (!other.good(error) ||
      !exists("SELECT 1 FROM accounts WHERE uuid=? AND ?<>''", selection.account_uuid, selection.uuid, account, error))
    return false;
  if (taken) {
    error = "selection '" + selection.name + "' exists already";
    return false;
  }
  if (!account) {
    error = "there is no account '" + selection.account_uuid + "'";
    return false;
  }
  if (!Store_Statement(db_, "UPDATE selections SET account_uuid=?2,name=?3 WHERE uuid=?1")
           .text(selection.uuid)
           .text(selection.account_uuid)
           .text(selection.name)
           .run(error))
    return false;
  if (sqlite3_changes(db_.get()) == 0) {
    error = "there is no selection '" + selection.uuid + "'";
    return false;
  }
  return put_items(selection.uuid, "path", selection.paths, error) &&
         put_items(selection.uuid, "exclusion", selection.exclusions, error) &&
         put_items(selection.uuid, "inclusion", selection.inclusions, error) && transaction.commit(error);
}

bool SQLite_Store::remove_selection(const std::string& uuid, std::string& error) {
  const std::lock_guard<std::mutex> guard(mutex_);
  return remove_row("DELETE FROM selections WHERE uuid=?", "selection", uuid, error);
}

bool SQLite_Store::read_selections(Store_Statement& statement, std::vector<Selection>& selections, std::string& error) {
  while (statement.next()) {
    Selection& selection = selections.emplace_back();
    selection.uuid = statement.get_text();
    selection.account_uuid = statement.get_text();
    selection.name = statement.get_text();
    if (!get_items(selection.uuid, "path", selection.paths, error) ||
        !get_items(selection.uuid, "exclusion", selection.exclusions, error) ||
        !get_items(selection.uuid, "inclusion", selection.inclusions, error))
      return false;
  }
  return statement.good(error);
}

bool SQLite_Store::find_selection(const std::string& uuid, Selection& selection, bool& found, std::string& error) {
  const std::lock_guard<std::mutex> guard(mutex_);
  std::vector<Selection> rows;
  Store_Statement select(db_, "SELECT uuid,account_uuid,name FROM selections WHERE uuid=?");
  if (!read_selections(select.text(uuid), rows, error))
    return false;
  found = !rows.empty();
  if (found)
    selection = std::move(rows.front());
  return true;
}

bool SQLite_Store::find_selection(const std::string& account_uuid, const std::string& name, Selection& selection,
                                  bool& found, std::string& error) {
  const std::lock_guard<std::mutex> guard(mutex_);
  std::vector<Selection> rows;
  Store_Statement select(db_, "SELECT uuid,account_uuid,name FROM selections WHERE account_uuid=? AND name=?");
  if (!read_selections(select.text(account_uuid).text(name), rows, error))
    return false;
  found = !rows.empty();
  if (found)
    selection = std::move(rows.front());
  return true;
}

bool SQLite_Store::selections(const std::string& account_uuid, std::vector<Selection>& selections, std::string& error) {
  const std::lock_guard<std::mutex> guard(mutex_);
  Store_Statement select(db_, "SELECT uuid,account_uuid,name FROM selections WHERE ?1='' OR account_uuid=?1 "
                              "ORDER BY name, uuid");
  selections.clear();
  return read_selections(select.text(account_uuid), selections, error);
}

bool SQLite_Store::put_set(const Set& set, std::string& error) {
  const std::lock_guard<std::mutex> guard(mutex_);
  Store_Transaction transaction(db_);
  bool pool = false;
  if (!transaction.begin(error) ||
      !exists("SELECT 1 FROM pools WHERE uuid=? AND ?<>''", set.pool_uuid, set.uuid, pool, error))
    return false;
  if (!pool) {
    error = set.uuid.empty() ? "a set needs a uuid" : "there is no pool '" + set.pool_uuid + "'";
    return false;
  }
  // A set that comes back keeps its place in the order.
  return Store_Statement(db_, "INSERT INTO sets(" SET_COLUMNS ") VALUES(?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?) "
                              "ON CONFLICT(uuid) DO UPDATE SET pool_uuid=excluded.pool_uuid,"
                              "account_uuid=excluded.account_uuid,minor_resource_id=excluded.minor_resource_id,"
                              "minor_resource_name=excluded.minor_resource_name,name=excluded.name,seq=excluded.seq,"
                              "channels=excluded.channels,incarnation=excluded.incarnation,uri=excluded.uri,"
                              "type=excluded.type,start_time=excluded.start_time,end_time=excluded.end_time,"
                              "source_size=excluded.source_size,backup_set_size=excluded.backup_set_size,"
                              "backup_set_storage_size=excluded.backup_set_storage_size,objects=excluded.objects,"
                              "missing=excluded.missing,state=excluded.state")
             .text(set.uuid)
             .text(set.pool_uuid)
             .text(set.account_uuid)
             .text(set.minor_resource_id)
             .text(set.minor_resource_name)
             .text(set.name)
             .number(set.seq)
             .number(set.channels)
             .text(set.incarnation)
             .text(set.uri)
             .text(set.type)
             .text(set.start_time)
             .text(set.end_time)
             .number(set.source_size)
             .number(set.backup_set_size)
             .number(set.backup_set_storage_size)
             .number(set.objects)
             .number(set.missing.value_or(MISSING_UNKNOWN))
             .text(set.state)
             .run(error) &&
         put_items(set.uuid, "base", set.bases, error) && transaction.commit(error);
}

bool SQLite_Store::replace_set(const std::string& old_uuid, const Set& set, std::string& error) {
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    Store_Transaction transaction(db_);
    bool there = false;
    if (!transaction.begin(error) ||
        !exists("SELECT 1 FROM sets WHERE uuid=? AND ?<>''", set.uuid, set.uuid, there, error))
      return false;
    // A row of the new set's own may have come first; one cut short here is completed by the next look at the pool.
    const char* const change =
        there ? "DELETE FROM sets WHERE uuid=?1 AND ?2<>''" : "UPDATE sets SET uuid=?2 WHERE uuid=?1";
    if (!Store_Statement(db_, change).text(old_uuid).text(set.uuid).run(error) ||
        !Store_Statement(db_, "DELETE FROM items WHERE owner=?").text(old_uuid).run(error) ||
        !transaction.commit(error))
      return false;
  }
  return put_set(set, error);
}

bool SQLite_Store::set_state(const std::string& uuid, const std::string& state, std::string& error) {
  const std::lock_guard<std::mutex> guard(mutex_);
  if (!Store_Statement(db_, "UPDATE sets SET state=?2 WHERE uuid=?1").text(uuid).text(state).run(error))
    return false;
  if (sqlite3_changes(db_.get()) > 0)
    return true;
  error = "there is no set '" + uuid + "'";
  return false;
}

bool SQLite_Store::remove_set(const std::string& uuid, std::string& error) {
  const std::lock_guard<std::mutex> guard(mutex_);
  return remove_row("DELETE FROM sets WHERE uuid=?", "set", uuid, error);
}

bool SQLite_Store::read_sets(Store_Statement& statement, std::vector<Set>& sets, std::string& error) {
  while (statement.next()) {
    Set& set = sets.emplace_back();
    set.uuid = statement.get_text();
    set.pool_uuid = statement.get_text();
    set.account_uuid = statement.get_text();
    set.minor_resource_id = statement.get_text();
    set.minor_resource_name = statement.get_text();
    set.name = statement.get_text();
    set.seq = static_cast<unsigned>(statement.get_number());
    set.channels = static_cast<unsigned>(statement.get_number());
    set.incarnation = statement.get_text();
    set.uri = statement.get_text();
    set.type = statement.get_text();
    set.start_time = statement.get_text();
    set.end_time = statement.get_text();
    set.source_size = statement.get_number();
    set.backup_set_size = statement.get_number();
    set.backup_set_storage_size = statement.get_number();
    set.objects = statement.get_number();
    if (const unsigned long long missing = statement.get_number(); missing != MISSING_UNKNOWN)
      set.missing = missing;
    set.state = statement.get_text();
    if (!get_items(set.uuid, "base", set.bases, error))
      return false;
  }
  return statement.good(error);
}

bool SQLite_Store::find_set(const std::string& uuid, Set& set, bool& found, std::string& error) {
  const std::lock_guard<std::mutex> guard(mutex_);
  std::vector<Set> rows;
  Store_Statement select(db_, "SELECT " SET_COLUMNS " FROM sets WHERE uuid=?");
  return read_sets(select.text(uuid), rows, error) && first_of(rows, set, found);
}

bool SQLite_Store::sets_by_prefix(const std::string& prefix, std::vector<Set>& sets, std::string& error) {
  const std::lock_guard<std::mutex> guard(mutex_);
  Store_Statement select(db_, "SELECT " SET_COLUMNS " FROM sets WHERE state='online' AND "
                              "substr(uuid,1,length(?1))=?1" OLDEST_FIRST);
  sets.clear();
  return read_sets(select.text(prefix), sets, error);
}

bool SQLite_Store::sets(const std::string& pool_uuid, const std::string& account_uuid,
                        const std::string& minor_resource_id, bool all, std::vector<Set>& sets, std::string& error) {
  const std::lock_guard<std::mutex> guard(mutex_);
  Store_Statement select(db_, "SELECT " SET_COLUMNS " FROM sets WHERE (?1='' OR pool_uuid=?1) AND "
                              "(?2='' OR account_uuid=?2) AND (?3='' OR minor_resource_id=?3) AND "
                              "(?4 OR state='online')" OLDEST_FIRST);
  sets.clear();
  if (!read_sets(select.text(pool_uuid).text(account_uuid).text(minor_resource_id).number(all), sets, error))
    return false;
  put_behind_bases(sets);
  return true;
}

bool SQLite_Store::newest_set(const std::string& pool_uuid, const std::string& minor_resource_id, Set& set, bool& found,
                              std::string& error) {
  const std::lock_guard<std::mutex> guard(mutex_);
  std::vector<Set> rows;
  Store_Statement select(db_, "SELECT " SET_COLUMNS " FROM sets WHERE pool_uuid=?1 AND minor_resource_id=?2 AND "
                              "state='online' AND CAST(uuid AS BLOB) NOT IN (SELECT item FROM sets AS later JOIN items "
                              "ON owner=later.uuid AND kind='base' WHERE later.pool_uuid=?1 AND "
                              "later.minor_resource_id=?2 AND later.state='online') "
                              "ORDER BY start_time, added");
  if (!read_sets(select.text(pool_uuid).text(minor_resource_id), rows, error))
    return false;
  // A clock that was wrong for one run does not make its set the newest one for ever.
  std::vector<Set_In_Order> sets;
  for (const Set& row : rows)
    sets.push_back({row.uuid, row.bases, row.seq, row.start_time});
  found = !rows.empty();
  if (found)
    set = std::move(rows[order_of_sets(sets).back()]);
  return true;
}

bool SQLite_Store::sets_by_seq(const std::string& pool_uuid, const std::string& minor_resource_id, unsigned seq,
                               std::vector<Set>& sets, std::string& error) {
  const std::lock_guard<std::mutex> guard(mutex_);
  Store_Statement select(db_, "SELECT " SET_COLUMNS " FROM sets WHERE pool_uuid=? AND minor_resource_id=? AND seq=? "
                              "AND state='online'" OLDEST_FIRST);
  sets.clear();
  return read_sets(select.text(pool_uuid).text(minor_resource_id).number(seq), sets, error);
}
