#include "platform/store/sqlite_store.h"

#include "platform/store/schema.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

namespace {

/// Holds the state folder's own lock while the database is made: switching to the write-ahead log does not wait for
/// others that do the same.
class Folder_Lock {
public:
  ~Folder_Lock() {
    if (fd_ >= 0)
      ::close(fd_);
  }
  bool acquire(const std::string& folder, std::string& error) {
    fd_ = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    int result = fd_ < 0 ? -1 : 0;
    while (fd_ >= 0 && (result = ::flock(fd_, LOCK_EX)) != 0 && errno == EINTR) {
    }
    if (result != 0)
      error = "cannot use the state folder " + folder + ": " + std::strerror(errno);
    return result == 0 && is_ours(folder, error);
  }

private:
  /// Who else may write there could put a database of its own in place, with accounts, pools and keys.
  bool is_ours(const std::string& folder, std::string& error) const {
    struct stat status;
    if (::fstat(fd_, &status) != 0)
      error = "cannot use the state folder " + folder + ": " + std::strerror(errno);
    else if (status.st_uid != ::geteuid() && status.st_uid != 0)
      error = "the state folder " + folder + " belongs to another user (" + std::to_string(status.st_uid) + ")";
    else if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0)
      error = "others may write to the state folder " + folder + ": take that away with chmod go-w";
    else
      return true;
    return false;
  }

  int fd_ = -1;
};

bool make_state_folder(const std::string& folder, std::string& error) {
  std::error_code code;
  const std::filesystem::path parent = std::filesystem::path(folder).parent_path();
  if (!parent.empty())
    std::filesystem::create_directories(parent, code);
  if (!code && (::mkdir(folder.c_str(), 0700) == 0 || errno == EEXIST))
    return true;
  error = "cannot make the state folder " + folder + ": " + (code ? code.message() : std::strerror(errno));
  return false;
}

} // namespace

std::unique_ptr<SQLite_Store> SQLite_Store::open(const std::string& state_folder, std::string& error) {
  std::string folder = state_folder;
  while (folder.size() > 1 && folder.back() == '/')
    folder.pop_back();
  if (folder.empty()) {
    error = "no state folder is given";
    return nullptr;
  }
  std::unique_ptr<SQLite_Store> store(new SQLite_Store);
  Folder_Lock lock;
  if (!make_state_folder(folder, error) || !lock.acquire(folder, error) ||
      !store->db_.open(folder + "/" + FILE_NAME, error) || !bring_up_to_date(store->db_, error))
    return nullptr;
  return store;
}

bool SQLite_Store::put_items(const std::string& owner, const char* kind, const std::vector<std::string>& items,
                             std::string& error) {
  if (!Store_Statement(db_, "DELETE FROM items WHERE owner=? AND kind=?").text(owner).text(kind).run(error))
    return false;
  unsigned long long position = 0;
  for (const std::string& item : items) {
    Store_Statement insert(db_, "INSERT INTO items(owner,kind,position,item) VALUES(?,?,?,?)");
    if (!insert.text(owner).text(kind).number(position++).blob(item).run(error))
      return false;
  }
  return true;
}

bool SQLite_Store::get_items(const std::string& owner, const char* kind, std::vector<std::string>& items,
                             std::string& error) {
  Store_Statement select(db_, "SELECT item FROM items WHERE owner=? AND kind=? ORDER BY position");
  select.text(owner).text(kind);
  while (select.next())
    items.push_back(select.get_text());
  return select.good(error);
}

bool SQLite_Store::exists(const char* sql, const std::string& first, const std::string& second, bool& found,
                          std::string& error) {
  Store_Statement select(db_, sql);
  found = select.text(first).text(second).next();
  return select.good(error);
}

bool SQLite_Store::count_sets(const char* sql, const std::string& owner, unsigned long long& count,
                              std::string& error) {
  Store_Statement select(db_, sql);
  if (select.text(owner).next())
    count = select.get_number();
  return select.good(error);
}

bool SQLite_Store::remove_row(const char* sql, const char* what, const std::string& key, std::string& error) {
  if (!Store_Statement(db_, sql).text(key).run(error))
    return false;
  if (sqlite3_changes(db_.get()) > 0)
    return true;
  error = std::string("there is no ") + what + " '" + key + "'";
  return false;
}

bool SQLite_Store::put_definition(const Definition& definition, std::string& error) {
  const std::lock_guard<std::mutex> guard(mutex_);
  return Store_Statement(db_, "INSERT INTO definitions(id,uuid,name,json) VALUES(?,?,?,?) ON CONFLICT(id) DO UPDATE "
                              "SET uuid=excluded.uuid,name=excluded.name,json=excluded.json")
      .text(definition.id)
      .text(definition.uuid)
      .text(definition.name)
      .text(definition.json)
      .run(error);
}

bool SQLite_Store::remove_definition(const std::string& id, std::string& error) {
  const std::lock_guard<std::mutex> guard(mutex_);
  return remove_row("DELETE FROM definitions WHERE id=?", "definition", id, error);
}

bool SQLite_Store::read_definitions(Store_Statement& statement, std::vector<Definition>& definitions,
                                    std::string& error) {
  while (statement.next()) {
    Definition& definition = definitions.emplace_back();
    definition.id = statement.get_text();
    definition.uuid = statement.get_text();
    definition.name = statement.get_text();
    definition.json = statement.get_text();
  }
  return statement.good(error);
}

bool SQLite_Store::find_definition(const std::string& id, Definition& definition, bool& found, std::string& error) {
  const std::lock_guard<std::mutex> guard(mutex_);
  std::vector<Definition> rows;
  if (!read_definitions(Store_Statement(db_, "SELECT id,uuid,name,json FROM definitions WHERE id=?").text(id), rows,
                        error))
    return false;
  found = !rows.empty();
  if (found)
    definition = std::move(rows.front());
  return true;
}

bool SQLite_Store::definitions(std::vector<Definition>& definitions, std::string& error) {
  const std::lock_guard<std::mutex> guard(mutex_);
  Store_Statement select(db_, "SELECT id,uuid,name,json FROM definitions ORDER BY name, id");
  definitions.clear();
  return read_definitions(select, definitions, error);
}

bool SQLite_Store::put_activity(const Activity& activity, std::string& error) {
  const std::lock_guard<std::mutex> guard(mutex_);
  return Store_Statement(db_, "INSERT INTO activities(id,definition_id,type,state,start,end,outcome) "
                              "VALUES(?,?,?,?,?,?,?) ON CONFLICT(id) DO UPDATE SET "
                              "definition_id=excluded.definition_id,type=excluded.type,state=excluded.state,"
                              "start=excluded.start,end=excluded.end,outcome=excluded.outcome")
      .text(activity.id)
      .text(activity.definition_id)
      .text(activity.type)
      .text(activity.state)
      .time(activity.start)
      .time(activity.end)
      .text(activity.outcome)
      .run(error);
}

bool SQLite_Store::read_activities(Store_Statement& statement, std::vector<Activity>& activities, std::string& error) {
  while (statement.next()) {
    Activity& activity = activities.emplace_back();
    activity.id = statement.get_text();
    activity.definition_id = statement.get_text();
    activity.type = statement.get_text();
    activity.state = statement.get_text();
    activity.start = statement.get_time();
    activity.end = statement.get_time();
    activity.outcome = statement.get_text();
  }
  return statement.good(error);
}

bool SQLite_Store::find_activity(const std::string& id, Activity& activity, bool& found, std::string& error) {
  const std::lock_guard<std::mutex> guard(mutex_);
  std::vector<Activity> rows;
  Store_Statement select(db_, "SELECT id,definition_id,type,state,start,end,outcome FROM activities WHERE id=?");
  if (!read_activities(select.text(id), rows, error))
    return false;
  found = !rows.empty();
  if (found)
    activity = std::move(rows.front());
  return true;
}

bool SQLite_Store::activities(unsigned limit, std::vector<Activity>& activities, std::string& error) {
  const std::lock_guard<std::mutex> guard(mutex_);
  Store_Statement select(db_, "SELECT id,definition_id,type,state,start,end,outcome FROM activities "
                              "ORDER BY added DESC LIMIT ?");
  activities.clear();
  return read_activities(select.number(limit), activities, error);
}

bool SQLite_Store::put_note(const std::string& kind, const std::string& key, const std::string& text,
                            std::string& error) {
  const std::lock_guard<std::mutex> guard(mutex_);
  return Store_Statement(db_, "INSERT OR REPLACE INTO notes(kind,key,text) VALUES(?,?,?)")
      .text(kind)
      .text(key)
      .text(text)
      .run(error);
}

bool SQLite_Store::find_note(const std::string& kind, const std::string& key, std::string& text, bool& found,
                             std::string& error) {
  const std::lock_guard<std::mutex> guard(mutex_);
  Store_Statement select(db_, "SELECT text FROM notes WHERE kind=? AND key=?");
  found = select.text(kind).text(key).next();
  if (found)
    text = select.get_text();
  return select.good(error);
}
