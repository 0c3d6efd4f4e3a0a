#include "platform/store/sqlite_store.h"

#define ACCOUNT_COLUMNS                                                                                                \
  "uuid,name,scheme,endpoint,access_key,secret_key,region,vendor,sign_method,addressing,ca_file,"                      \
  "list_version,url_encoding,payload_signing,client_cert,client_key,proxy,connect_timeout,idle_timeout,user_agent,"    \
  "found_addressing,found_list_version,found_url_encoding"

namespace {

bool named(const char* what, const std::string& uuid, const std::string& name, std::string& error) {
  if (!uuid.empty() && !name.empty())
    return true;
  error = std::string("a ") + what + " needs a " + (uuid.empty() ? "uuid" : "name");
  return false;
}

bool sensible(const Account& account, std::string& error) {
  if (!named("account", account.uuid, account.name, error))
    return false;
  const auto one_of = [&](const char* what, const std::string& value, std::initializer_list<const char*> choices) {
    std::string list;
    for (const char* choice : choices) {
      if (value == choice)
        return true;
      list += (list.empty() ? "" : ", ") + std::string(choice);
    }
    error = "'" + value + "' is no " + what + ": give one of " + list;
    return false;
  };
  if (!one_of("way of addressing", account.addressing, {"auto", "path", "virtual"}) ||
      !one_of("list version", account.list_version, {"auto", "1", "2"}) ||
      !one_of("choice for url-encoded listings", account.url_encoding, {"auto", "on", "off"}) ||
      !one_of("choice for signed payloads", account.payload_signing, {"auto", "on", "off"}))
    return false;
  if (account.scheme.empty() || account.endpoint.empty()) {
    error = "account '" + account.name + "' has no endpoint";
    return false;
  }
  return true;
}

std::string taken(const char* what, const std::string& name) {
  return std::string(what) + " '" + name + "' exists already";
}

std::string unknown(const char* what, const std::string& uuid) {
  return std::string("there is no ") + what + " '" + uuid + "'";
}

std::string in_use(const char* what, const std::string& name, unsigned long long sets) {
  return std::string(what) + " '" + name + "' is in use: " + std::to_string(sets) + (sets == 1 ? " set" : " sets") +
         " of it " + (sets == 1 ? "is" : "are") + " kept";
}

} // namespace

bool SQLite_Store::write_account(const char* sql, const Account& account, std::string& error) {
  return Store_Statement(db_, sql)
             .text(account.uuid)
             .text(account.name)
             .text(account.scheme)
             .text(account.endpoint)
             .text(account.access_key)
             .text(account.secret_key)
             .text(account.region)
             .text(account.vendor)
             .text(account.sign_method)
             .text(account.addressing)
             .blob(account.ca_file)
             .text(account.list_version)
             .text(account.url_encoding)
             .text(account.payload_signing)
             .blob(account.client_cert)
             .blob(account.client_key)
             .text(account.proxy)
             .number(account.connect_timeout)
             .number(account.idle_timeout)
             .text(account.user_agent)
             .text(account.found_addressing)
             .text(account.found_list_version)
             .text(account.found_url_encoding)
             .run(error) &&
         put_items(account.uuid, "bucket", account.buckets, error);
}

bool SQLite_Store::add_account(const Account& account, std::string& error) {
  if (!sensible(account, error))
    return false;
  const std::lock_guard<std::mutex> guard(mutex_);
  Store_Transaction transaction(db_);
  bool found = false;
  if (!transaction.begin(error) ||
      !exists("SELECT 1 FROM accounts WHERE name=? OR uuid=?", account.name, account.uuid, found, error))
    return false;
  if (found) {
    error = taken("account", account.name);
    return false;
  }
  return write_account("INSERT INTO accounts(" ACCOUNT_COLUMNS
                       ") VALUES(?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?)",
                       account, error) &&
         transaction.commit(error);
}

bool SQLite_Store::update_account(const Account& account, std::string& error) {
  if (!sensible(account, error))
    return false;
  const std::lock_guard<std::mutex> guard(mutex_);
  Store_Transaction transaction(db_);
  bool found = false;
  if (!transaction.begin(error) ||
      !exists("SELECT 1 FROM accounts WHERE name=? AND uuid<>?", account.name, account.uuid, found, error))
    return false;
  if (found) {
    error = taken("account", account.name);
    return false;
  }
  if (!write_account("UPDATE accounts SET name=?2,scheme=?3,endpoint=?4,access_key=?5,secret_key=?6,region=?7,"
                     "vendor=?8,sign_method=?9,addressing=?10,ca_file=?11,list_version=?12,url_encoding=?13,"
                     "payload_signing=?14,client_cert=?15,client_key=?16,proxy=?17,connect_timeout=?18,"
                     "idle_timeout=?19,user_agent=?20,found_addressing=?21,found_list_version=?22,"
                     "found_url_encoding=?23 WHERE uuid=?1",
                     account, error) ||
      !exists("SELECT 1 FROM accounts WHERE name=? AND uuid=?", account.name, account.uuid, found, error))
    return false;
  if (!found) {
    error = unknown("account", account.uuid);
    return false;
  }
  return transaction.commit(error);
}

bool SQLite_Store::remove_account(const std::string& uuid, std::string& error) {
  const std::lock_guard<std::mutex> guard(mutex_);
  Store_Transaction transaction(db_);
  unsigned long long sets = 0;
  if (!transaction.begin(error) ||
      !count_sets("SELECT count(*) FROM sets WHERE account_uuid=? AND state='online'", uuid, sets, error))
    return false;
  if (sets > 0) {
    Store_Statement name(db_, "SELECT name FROM accounts WHERE uuid=?");
    if (name.text(uuid).next()) {
      error = in_use("account", name.get_text(), sets);
      return false;
    }
  }
  return remove_row("DELETE FROM accounts WHERE uuid=?", "account", uuid, error) && transaction.commit(error);
}

bool SQLite_Store::read_accounts(Store_Statement& statement, std::vector<Account>& accounts, std::string& error) {
  while (statement.next()) {
    Account& account = accounts.emplace_back();
    account.uuid = statement.get_text();
    account.name = statement.get_text();
    account.scheme = statement.get_text();
    account.endpoint = statement.get_text();
    account.access_key = statement.get_text();
    account.secret_key = statement.get_text();
    account.region = statement.get_text();
    account.vendor = statement.get_text();
    account.sign_method = statement.get_text();
    account.addressing = statement.get_text();
    account.ca_file = statement.get_text();
    account.list_version = statement.get_text();
    account.url_encoding = statement.get_text();
    account.payload_signing = statement.get_text();
    account.client_cert = statement.get_text();
    account.client_key = statement.get_text();
    account.proxy = statement.get_text();
    account.connect_timeout = static_cast<unsigned>(statement.get_number());
    account.idle_timeout = static_cast<unsigned>(statement.get_number());
    account.user_agent = statement.get_text();
    account.found_addressing = statement.get_text();
    account.found_list_version = statement.get_text();
    account.found_url_encoding = statement.get_text();
    if (!get_items(account.uuid, "bucket", account.buckets, error))
      return false;
  }
  return statement.good(error);
}

bool SQLite_Store::find_account(const std::string& uuid, Account& account, bool& found, std::string& error) {
  const std::lock_guard<std::mutex> guard(mutex_);
  std::vector<Account> rows;
  Store_Statement select(db_, "SELECT " ACCOUNT_COLUMNS " FROM accounts WHERE uuid=?");
  if (!read_accounts(select.text(uuid), rows, error))
    return false;
  found = !rows.empty();
  if (found)
    account = std::move(rows.front());
  return true;
}

bool SQLite_Store::find_account_by_name(const std::string& name, Account& account, bool& found, std::string& error) {
  const std::lock_guard<std::mutex> guard(mutex_);
  std::vector<Account> rows;
  Store_Statement select(db_, "SELECT " ACCOUNT_COLUMNS " FROM accounts WHERE name=?");
  if (!read_accounts(select.text(name), rows, error))
    return false;
  found = !rows.empty();
  if (found)
    account = std::move(rows.front());
  return true;
}

bool SQLite_Store::accounts(std::vector<Account>& accounts, std::string& error) {
  const std::lock_guard<std::mutex> guard(mutex_);
  Store_Statement select(db_, "SELECT " ACCOUNT_COLUMNS " FROM accounts ORDER BY name");
  accounts.clear();
  return read_accounts(select, accounts, error);
}

bool SQLite_Store::add_pool(const Pool_Entry& pool, std::string& error) {
  if (!named("pool", pool.uuid, pool.name, error))
    return false;
  const std::lock_guard<std::mutex> guard(mutex_);
  Store_Transaction transaction(db_);
  bool found = false;
  if (!transaction.begin(error) ||
      !exists("SELECT 1 FROM pools WHERE name=? AND uuid<>?", pool.name, pool.uuid, found, error))
    return false;
  if (found) {
    error = taken("pool", pool.name);
    return false;
  }
  Store_Statement same(db_, "SELECT name FROM pools WHERE uuid=?");
  if (same.text(pool.uuid).next()) {
    error = "the pool is known already, as '" + same.get_text() + "'";
    return false;
  }
  return same.good(error) &&
         Store_Statement(db_, "INSERT INTO pools(uuid,name,url,encrypt) VALUES(?,?,?,?)")
             .text(pool.uuid)
             .text(pool.name)
             .text(pool.url)
             .number(pool.encrypt)
             .run(error) &&
         transaction.commit(error);
}

bool SQLite_Store::update_pool(const Pool_Entry& pool, std::string& error) {
  if (!named("pool", pool.uuid, pool.name, error))
    return false;
  const std::lock_guard<std::mutex> guard(mutex_);
  Store_Transaction transaction(db_);
  bool found = false;
  if (!transaction.begin(error) ||
      !exists("SELECT 1 FROM pools WHERE name=? AND uuid<>?", pool.name, pool.uuid, found, error))
    return false;
  if (found) {
    error = taken("pool", pool.name);
    return false;
  }
  if (!Store_Statement(db_, "UPDATE pools SET name=?2,url=?3,encrypt=?4 WHERE uuid=?1")
           .text(pool.uuid)
           .text(pool.name)
           .text(pool.url)
           .number(pool.encrypt)
           .run(error))
    return false;
  if (sqlite3_changes(db_.get()) == 0) {
    error = unknown("pool", pool.uuid);
    return false;
  }
  return transaction.commit(error);
}

bool SQLite_Store::remove_pool(const std::string& uuid, std::string& error) {
  const std::lock_guard<std::mutex> guard(mutex_);
  Store_Transaction transaction(db_);
  unsigned long long sets = 0;
  if (!transaction.begin(error) ||
      !count_sets("SELECT count(*) FROM sets WHERE pool_uuid=? AND state='online'", uuid, sets, error))
    return false;
  if (sets > 0) {
    Store_Statement name(db_, "SELECT name FROM pools WHERE uuid=?");
    name.text(uuid).next();
    error = in_use("pool", name.get_text(), sets);
    return false;
  }
  return remove_row("DELETE FROM pools WHERE uuid=?", "pool", uuid, error) && transaction.commit(error);
}

bool SQLite_Store::read_pools(Store_Statement& statement, std::vector<Pool_Entry>& pools, std::string& error) {
  while (statement.next()) {
    Pool_Entry& pool = pools.emplace_back();
    pool.uuid = statement.get_text();
    pool.name = statement.get_text();
    pool.url = statement.get_text();
    pool.encrypt = statement.get_number() != 0;
  }
  return statement.good(error);
}

bool SQLite_Store::find_pool(const std::string& uuid, Pool_Entry& pool, bool& found, std::string& error) {
  const std::lock_guard<std::mutex> guard(mutex_);
  std::vector<Pool_Entry> rows;
  if (!read_pools(Store_Statement(db_, "SELECT uuid,name,url,encrypt FROM pools WHERE uuid=?").text(uuid), rows, error))
    return false;
  found = !rows.empty();
  if (found)
    pool = std::move(rows.front());
  return true;
}

bool SQLite_Store::find_pool_by_name(const std::string& name, Pool_Entry& pool, bool& found, std::string& error) {
  const std::lock_guard<std::mutex> guard(mutex_);
  std::vector<Pool_Entry> rows;
  if (!read_pools(Store_Statement(db_, "SELECT uuid,name,url,encrypt FROM pools WHERE name=?").text(name), rows, error))
    return false;
  found = !rows.empty();
  if (found)
    pool = std::move(rows.front());
  return true;
}

bool SQLite_Store::pools(std::vector<Pool_Entry>& pools, std::string& error) {
  const std::lock_guard<std::mutex> guard(mutex_);
  Store_Statement select(db_, "SELECT uuid,name,url,encrypt FROM pools ORDER BY name");
  pools.clear();
  return read_pools(select, pools, error);
}
