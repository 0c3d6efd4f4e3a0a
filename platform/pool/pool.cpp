#include "platform/pool/pool.h"

#include "platform/crypto/aead.h"
#include "platform/crypto/base64.h"
#include "platform/crypto/key_wrap.h"
#include "platform/pool/durable_file.h"
#include "platform/pool/known_pool.h"
#include "platform/pool/pool_files.h"
#include "platform/pool/pool_place.h"
#include "platform/pool/pool_roll.h"
#include "platform/pool/record_text.h"
#include "platform/pool/set_keys.h"
#include "platform/pool/set_order.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <map>
#include <mutex>
#include <set>

namespace fs = std::filesystem;

namespace {

constexpr const char* POOL_FILE = "pool.json";
/// What a process that was killed while it wrote that one leaves.
constexpr const char* TORN_POOL_FILE = "pool.json.tmp";
/// What the names of sets that are being removed begin with.
constexpr const char* REMOVED = ".removed-";
/// A plain pool is of format 1, an encrypted one of format 2.
constexpr unsigned POOL_FORMAT = 2;
constexpr const char* ENCRYPTION = "aes-256-gcm";
constexpr size_t MAX_POOL_FILE = 1u << 20;
/// HOST/RESOURCE/ACTIVITY
constexpr unsigned SET_DEPTH = 3;

int hex(char c) {
  if (c >= '0' && c <= '9')
    return c - '0';
  if (c >= 'a' && c <= 'f')
    return c - 'a' + 10;
  return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

bool folder_of(const std::string& url, std::string& folder, std::string& error) {
  static const std::string scheme = "file://";
  if (url.compare(0, scheme.size(), scheme) != 0 || url.size() <= scheme.size() || url[scheme.size()] != '/') {
    error = "'" + url + "' is no pool: only file:///DIR is known";
    return false;
  }
  folder.clear();
  for (size_t i = scheme.size(); i < url.size(); ++i) {
    if (url[i] != '%') {
      folder.push_back(url[i]);
      continue;
    }
    const int high = i + 2 < url.size() ? hex(url[i + 1]) : -1;
    const int low = high < 0 ? -1 : hex(url[i + 2]);
    if (low < 0 || high * 16 + low == 0) {
      error = "'" + url + "' has a bad percent escape";
      return false;
    }
    folder.push_back(static_cast<char>(high * 16 + low));
    i += 2;
  }
  while (folder.size() > 1 && folder.back() == '/')
    folder.pop_back();
  return true;
}

/// Whether `uri` is a relative path of plain components, up to `most` of them.
bool plain(const std::string& uri, unsigned most) {
  unsigned components = 0;
  size_t start = 0;
  while (start <= uri.size()) {
    const size_t slash = std::min(uri.find('/', start), uri.size());
    if (slash == start || uri[start] == '.' || ++components > most)
      return false;
    start = slash + 1;
  }
  return components > 0;
}

bool make_folders(const std::string& base, const std::string& uri, std::string& error) {
  size_t slash = 0;
  while (slash < uri.size()) {
    slash = std::min(uri.find('/', slash + 1), uri.size());
    const std::string path = base + "/" + uri.substr(0, slash);
    if (make_pool_folder(path)) {
      if (!sync_folder(path.substr(0, path.rfind('/')), error))
        return false;
    } else if (errno != EEXIST) {
      error = "cannot make folder " + path + ": " + pool_file_error(errno);
      return false;
    } else if (const int fd = open_pool_folder(path); fd >= 0) {
      ::close(fd);
    } else {
      error = "cannot use folder " + path + ": " + pool_file_error(errno);
      return false;
    }
  }
  return true;
}

std::vector<std::string> subfolders(const std::string& folder) {
  std::vector<std::string> names;
  read_pool_folder(folder, names);
  std::erase_if(names, [&](const std::string& name) {
    struct stat status;
    return name.front() == '.' || !find_pool_file(folder + "/" + name, status) || !S_ISDIR(status.st_mode);
  });
  return names;
}

/// Tells the folders that may be sets below `prefix`, as URIs.
void collect(const std::string& base, const std::string& prefix, unsigned depth, std::vector<std::string>& uris) {
  if (depth == SET_DEPTH) {
    uris.push_back(prefix);
    return;
  }
  for (const std::string& name : subfolders(prefix.empty() ? base : base + "/" + prefix))
    collect(base, prefix.empty() ? name : prefix + "/" + name, depth + 1, uris);
}

std::vector<std::string> set_uris(const std::string& base, std::string prefix) {
  std::vector<std::string> uris;
  while (!prefix.empty() && prefix.back() == '/')
    prefix.pop_back();
  if (prefix.empty())
    collect(base, "", 0, uris);
  else if (plain(prefix, SET_DEPTH))
    collect(base, prefix, 1 + static_cast<unsigned>(std::count(prefix.begin(), prefix.end(), '/')), uris);
  return uris;
}

/// What cannot be looked for, for want of descriptors above all, may be there.
bool exists(const std::string& path) {
  struct stat status;
  return find_pool_file(path, status) || (errno != ENOENT && errno != ENOTDIR);
}

bool has_record(const std::string& folder) {
  return exists(folder + "/" + Set_Record::FILE_NAME) || exists(folder + "/" + Set_Record::PARTIAL_FILE_NAME);
}

bool remove_tree(const std::string& path, std::string& error) {
  return remove_pool_tree(path, error);
}

std::string parent_of(const std::string& uri) {
  return uri.substr(0, uri.rfind('/'));
}

} // namespace

namespace {

std::mutex pool_file_mutex; // the threads of a process share a pool's lock: guards the writing of its file

/// Whether the folder holds nothing but what a process that was killed while it made a pool may have left.
bool is_free(const std::string& folder, std::string& error) {
  std::error_code code;
  for (fs::directory_iterator it(folder, code), end; !code && it != end; it.increment(code)) {
    const std::string name = it->path().filename().string();
    if (name != Process_Lock::FILE_NAME && name != TORN_POOL_FILE) {
      error = "pool folder " + folder + " is not empty";
      return false;
    }
  }
  if (code)
    error = "cannot read pool folder " + folder + ": " + code.message();
  return !code;
}

bool make_pool(const std::string& folder, const json_spirit::Object& json, std::string& error) {
  // The folders above it are made as the operator has it; what is in the pool is nobody else's.
  std::error_code code;
  fs::create_directories(fs::path(folder).parent_path(), code);
  if (!code && ::mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST)
    code = std::error_code(errno, std::generic_category());
  if (!code && !know_pool_folder(folder))
    code = std::error_code(errno, std::generic_category());
  if (code) {
    error = "cannot make pool folder " + folder + ": " + code.message();
    return false;
  }
  // Nothing is put into a folder of somebody else's, and another process may be making the same pool.
  if (!is_free(folder, error))
    return false;
  const auto lock = Process_Lock::acquire(folder, "the pool in " + folder, error);
  const std::lock_guard<std::mutex> guard(pool_file_mutex);
  if (!lock || !is_free(folder, error))
    return false;
  if (!write_durable_file(folder, POOL_FILE, json_spirit::write_formatted(json) + "\n", error))
    return false;
  const std::string parent = fs::path(folder).parent_path().string();
  return sync_folder(parent.empty() ? "/" : parent, error);
}

json_spirit::Object encrypted_pool(const std::string& uuid, const std::string& check,
                                   const json_spirit::Object& locked) {
  json_spirit::Object json;
  json["uuid"] = uuid;
  json["format"] = POOL_FORMAT;
  json["encryption"] = ENCRYPTION;
  json["key_check"] = check;
  json["key"] = locked;
  return json;
}

std::string check_text(const Secret_Key& key) {
  const std::string check = key_check(key);
  return to_hex(reinterpret_cast<const unsigned char*>(check.data()), check.size());
}

} // namespace

bool Pool::create(const std::string& url, const std::string& uuid, std::string& error) {
  std::string folder;
  if (!folder_of(url, folder, error))
    return false;
  json_spirit::Object json;
  json["uuid"] = uuid;
  json["format"] = 1;
  json["encryption"] = "none";
  return make_pool(folder, json, error);
}

bool Pool::create(const std::string& url, const std::string& uuid, const Pool_Secret& secret, const Scrypt_Cost& cost,
                  Secret_Key& key, std::string& error) {
  std::string folder;
  json_spirit::Object locked;
  if (!folder_of(url, folder, error))
    return false;
  if (!random_bytes(key.data(), Secret_Key::SIZE)) {
    error = "the system has no random numbers";
    return false;
  }
  return lock_pool_key(key, uuid, secret, cost, locked, error) &&
         make_pool(folder, encrypted_pool(uuid, check_text(key), locked), error);
}

bool Pool::unlock(const Pool_Secret& secret, Secret_Key& key, std::string& error) const {
  if (!encrypted_) {
    error = "the pool in " + folder_ + " is not encrypted";
    return false;
  }
  if (!unlock_pool_key(locked_key_, uuid_, secret, key, error))
    return false;
  if (check_text(key) == key_check_)
    return true;
  error = "the pool's file in " + folder_ + " is damaged: its key check is that of another key";
  return false;
}

bool Pool::relock(const Secret_Key& key, const Pool_Secret& secret, const Scrypt_Cost& cost, std::string& error) {
  json_spirit::Object locked;
  if (!encrypted_ || check_text(key) != key_check_) {
    error =
        encrypted_ ? "the key is not that of the pool in " + folder_ : "the pool in " + folder_ + " is not encrypted";
    return false;
  }
  if (!lock_pool_key(key, uuid_, secret, cost, locked, error))
    return false;
  const std::lock_guard<std::mutex> guard(pool_file_mutex);
  if (!write_durable_file(folder_, POOL_FILE,
                          json_spirit::write_formatted(encrypted_pool(uuid_, key_check_, locked)) + "\n", error))
    return false;
  locked_key_ = locked;
  return true;
}

bool may_hold_pool(const std::string& url) {
  std::string folder, error;
  struct stat status;
  return folder_of(url, folder, error) &&
         (::lstat((folder + "/" + POOL_FILE).c_str(), &status) == 0 || (errno != ENOENT && errno != ENOTDIR));
}

bool Pool::open(const std::string& url, const std::string& uuid, Pool& pool, std::string& error) {
  std::string folder, text;
  bool missing = false;
  if (!folder_of(url, folder, error))
    return false;
  const std::string path = folder + "/" + POOL_FILE;
  // A folder that is not there has no pool file either, which is what is told.
  know_pool_folder(folder);
  if (!read_small_file(path, MAX_POOL_FILE, text, error, missing)) {
    if (missing)
      error = "there is no pool in " + folder + " (no " + POOL_FILE + ")";
    return false;
  }
  try {
    json_spirit::Value value;
    std::string why;
    if (!json_spirit::read(text, value, &why)) {
      error = "bad pool file " + path + ": " + why;
      return false;
    }
    const json_spirit::Object& json = value.get_obj();
    const json_spirit::Value* format = json_spirit::find(json, "format");
    if (format == nullptr || format->get_uint64() > POOL_FORMAT) {
      error = "the pool in " + folder + " has a newer format than this program's";
      return false;
    }
    const std::string& found = json_spirit::require_str(json, "uuid");
    if (!uuid.empty() && found != uuid) {
      error = "the pool in " + folder + " is another one (" + found + " instead of " + uuid + ")";
      return false;
    }
    const json_spirit::Value* encryption = json_spirit::find(json, "encryption");
    const std::string how = encryption == nullptr ? "none" : encryption->get_str();
    if (how != "none" && how != ENCRYPTION) {
      error = "the pool in " + folder + " is encrypted in a way that this program does not know: " + how;
      return false;
    }
    Pool opened;
    opened.uuid_ = found;
    opened.folder_ = folder;
    opened.encrypted_ = how != "none";
    opened.format_ = static_cast<unsigned>(format->get_uint64());
    if (opened.encrypted_) {
      const json_spirit::Value* locked = json_spirit::find(json, "key");
      if (locked == nullptr)
        throw json_spirit::Type_Error("\"key\" is missing");
      opened.key_check_ = json_spirit::require_str(json, "key_check");
      opened.locked_key_ = locked->get_obj();
    }
    if (!check_known_pool(opened, error))
      return false;
    pool = std::move(opened);
    return true;
  } catch (const std::exception& e) {
    error = "bad pool file " + path + ": " + e.what();
    return false;
  }
}

std::vector<std::string> set_places(const Pool& pool) {
  return set_uris(pool.folder(), std::string());
}

namespace {

/// Oldest first. Sets of several places come by their times, but none before an older one of its own place.
std::vector<Set_Record> in_order(std::vector<Set_Record> found) {
  std::map<std::string, std::vector<size_t>> places;
  for (size_t i = 0; i < found.size(); ++i)
    places[parent_of(found[i].uri)].push_back(i);
  std::vector<std::pair<std::string, size_t>> order; // time and place in `found`
  for (const auto& [place, indices] : places) {
    std::vector<Set_In_Order> sets;
    for (const size_t i : indices)
      sets.push_back({found[i].uuid, found[i].bases, found[i].seq, found[i].start_time});
    std::string time;
    for (const size_t one : order_of_sets(sets)) {
      time = std::max(time, sets[one].start_time);
      order.emplace_back(time, indices[one]);
    }
  }
  std::stable_sort(order.begin(), order.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
  std::vector<Set_Record> sorted;
  for (const auto& [time, i] : order)
    sorted.push_back(std::move(found[i]));
  return sorted;
}

} // namespace

std::vector<Set_Record> Pool::sets(const std::string& prefix, std::vector<std::string>& errors) const {
  return read_sets(prefix, false, errors);
}

std::vector<Set_Record> Pool::replaced_sets(const std::string& prefix) const {
  std::vector<std::string> ignored;
  return read_sets(prefix, true, ignored);
}

std::vector<Set_Record> Pool::read_sets(const std::string& prefix, bool replaced,
                                        std::vector<std::string>& errors) const {
  std::vector<Set_Record> found;
  std::vector<std::string> texts;       // hashes of their files
  std::map<std::string, size_t> places; // by uuid, in `found`
  for (const std::string& uri : set_uris(folder_, prefix)) {
    Set_Record record;
    std::string error;
    Record_Text text;
    bool missing = false;
    if (read_set_record(set_folder(uri), record, error, &missing, text) &&
        open_whole_record(*this, text, record, error)) {
      // Where it lies counts, not where it was written, unless it lies there too.
      const bool moved = record.uri != uri;
      record.uri = uri;
      // Not made by this pool, which is told to whoever uses it; nor may it hide others.
      if (encrypted_ && record.data_key.empty())
        record.replaces.clear();
      const auto [place, first] = places.emplace(record.uuid, found.size());
      if (first) {
        found.push_back(std::move(record));
        texts.push_back(text.hash);
        continue;
      }
      Set_Record& other = found[place->second];
      errors.push_back("the set " + record.uuid + " lies in two folders, " + set_folder(other.uri) + " and " +
                       set_folder(uri) + ": one of them was copied, or put in another set's place");
      if (!moved) {
        other = std::move(record);
        texts[place->second] = text.hash;
      }
    } else if (!missing) {
      errors.push_back(error);
    }
  }
  compare_roll(*this, texts, found, errors);
  std::set<std::string> gone;
  for (const Set_Record& record : found)
    gone.insert(record.replaces.begin(), record.replaces.end());
  found.erase(std::remove_if(found.begin(), found.end(),
                             [&](const Set_Record& record) { return (gone.count(record.uuid) != 0) != replaced; }),
              found.end());
  return in_order(std::move(found));
}

std::vector<Set_Record> Pool::partial_sets(const std::string& prefix, std::vector<std::string>& errors) const {
  std::vector<Set_Record> found;
  for (const std::string& uri : set_uris(folder_, prefix)) {
    Set_Record record;
    std::string error;
    bool missing = false;
    Record_Text text;
    if (exists(set_folder(uri) + "/" + Set_Record::FILE_NAME))
      continue;
    if (read_set_record(set_folder(uri), record, error, &missing, text, true) &&
        open_whole_record(*this, text, record, error)) {
      record.uri = uri;
      found.push_back(std::move(record));
    } else if (!missing) {
      errors.push_back(error);
    }
  }
  std::stable_sort(found.begin(), found.end(),
                   [](const Set_Record& a, const Set_Record& b) { return a.start_time > b.start_time; });
  return found;
}

std::shared_ptr<Process_Lock> Pool::lock(std::string& error) const {
  auto lock = Process_Lock::acquire(folder_, "the pool in " + folder_, error);
  if (lock) {
    const std::lock_guard<std::mutex> guard(pool_file_mutex);
    remove_pool_file(folder_ + "/" + TORN_POOL_FILE);
  }
  if (lock)
    remove_torn_roll(*this);
  return lock;
}

bool Pool::make_set_folder(const std::string& uri, std::string& error) const {
  return make_set_folder_i(uri, nullptr, error);
}

bool Pool::make_set_folder(const std::string& uri, Set_Lock& lock, std::string& error) const {
  return make_set_folder_i(uri, &lock, error);
}

bool Pool::make_set_folder_i(const std::string& uri, Set_Lock* lock, std::string& error) const {
  if (!plain(uri, SET_DEPTH) || std::count(uri.begin(), uri.end(), '/') != SET_DEPTH - 1) {
    error = "'" + uri + "' is no place for a set";
    return false;
  }
  if (!make_folders(folder_, parent_of(uri), error))
    return false;
  // Against remove_unfinished, which must not find the folder between its making and its locking.
  Set_Lock parent(Lock_Rank::PLACE);
  if (!lock_place(parent_of(uri), parent, error))
    return false;
  const std::string path = set_folder(uri);
  if (!make_pool_folder(path)) {
    error = "cannot make folder " + path + ": " + pool_file_error(errno);
    return false;
  }
  if ((lock == nullptr || lock->acquire(path, false, error)) && sync_folder(set_folder(parent_of(uri)), error))
    return true;
  std::string ignored;
  remove_tree(path, ignored);
  return false;
}

std::vector<std::string> Pool::unfinished(const std::string& prefix) const {
  std::vector<std::string> found;
  for (const std::string& uri : set_uris(folder_, prefix))
    if (!has_record(set_folder(uri)))
      found.push_back(uri);
  return found;
}

bool Pool::lock_place(const std::string& prefix, Set_Lock& lock, std::string& error) const {
  lock = Set_Lock(Lock_Rank::PLACE);
  return lock.acquire(set_folder(prefix), true, error);
}

bool Pool::lock_unfinished(const std::string& uri, Set_Lock& lock, std::string& error, const Set_Lock* place) const {
  const std::string path = set_folder(uri);
  Set_Lock parent(Lock_Rank::PLACE);
  bool busy = false;
  error.clear();
  const bool handed_on = place != nullptr && place->holds(set_folder(parent_of(uri)));
  if (!handed_on && !lock_place(parent_of(uri), parent, error))
    return false;
  if (!lock.acquire(path, false, error, &busy)) {
    // Gone meanwhile is as good as removed, and a living run's is none of our business.
    if (busy || !exists(path))
      error.clear();
    return false;
  }
  // Its run may have committed it just before it let go.
  if (!has_record(path))
    return true;
  lock.release();
  return false;
}

unsigned Pool::remove_unfinished(const std::string& prefix, std::string& error) const {
  unsigned removed = 0;
  for (const std::string& uri : unfinished(prefix)) {
    Set_Lock lock;
    std::string why;
    if (lock_unfinished(uri, lock, why) && remove_tree(set_folder(uri), why))
      ++removed;
    else if (!why.empty())
      error = why;
  }
  return removed;
}

bool Pool::remove_set(const std::string& uri, std::string& error) const {
  if (!plain(uri, SET_DEPTH)) {
    error = "'" + uri + "' is no set";
    return false;
  }
  const std::string path = set_folder(uri), place = set_folder(parent_of(uri));
  const std::string aside = place + "/" + REMOVED + uri.substr(parent_of(uri).size() + 1);
  // In one step it is no set any more, nor what an unfinished run left; what a crash leaves of it goes later.
  if (!exists(path))
    return true;
  if (exists(aside) && !remove_tree(aside, error))
    return false;
  if (!rename_pool_file(path, aside)) {
    error = "cannot remove " + path + ": " + pool_file_error(errno);
    return false;
  }
  return sync_folder(place, error) && remove_tree(aside, error);
}

bool Pool::finish_removals(const std::string& prefix, std::string& error) const {
  bool done = true;
  std::vector<std::string> names;
  read_pool_folder(set_folder(prefix), names);
  for (const std::string& name : names)
    if (name.compare(0, std::strlen(REMOVED), REMOVED) == 0)
      done = remove_tree(set_folder(prefix) + "/" + name, error) && done;
  return done;
}
