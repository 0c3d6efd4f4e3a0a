#include "platform/pool/pool_roll.h"

#include "platform/pool/durable_file.h"
#include "platform/pool/pool_files.h"
#include "platform/pool/record_text.h"
#include "platform/pool/set_keys.h"
#include "platform/store/store.h"

#include <ace/Log_Msg.h>

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <set>

namespace {

const char* const NOTE_KIND = "pool_roll";
/// How often a record and the roll are compared anew that another process may be changing.
constexpr unsigned LOOKS = 3;
/// Of 100,000 sets.
constexpr size_t MAX_ROLL = 64u << 20;

/// The threads of a process share a pool's lock. Held as long as an entry says that a set is to come: so one that is
/// found belongs to a process that has died.
std::mutex roll_mutex;
/// Sets whose removal this process has announced and not settled. Guarded by it.
std::set<std::string> announced;

/// What the agent's database knows of a pool's roll.
struct Known_Roll {
  unsigned long long generation = 0; ///< 0: nothing
  std::string hash;                  ///< of its file
};

Known_Roll known_roll(const std::string& pool_uuid) {
  Known_Roll known;
  Store* const store = Store::instance();
  std::string text, error;
  bool found = false;
  json_spirit::Value value;
  if (store == nullptr || !store->find_note(NOTE_KIND, pool_uuid, text, found, error) || !found ||
      !json_spirit::read(text, value, &error) || value.type() != json_spirit::obj_type)
    return known;
  try {
    const json_spirit::Object& json = value.get_obj();
    known.hash = json_spirit::require_str(json, "hash");
    if (const json_spirit::Value* generation = json_spirit::find(json, "generation"))
      known.generation = generation->get_uint64();
  } catch (const json_spirit::Type_Error&) {
    return Known_Roll();
  }
  return known;
}

void keep_known_roll(const std::string& pool_uuid, const Known_Roll& known) {
  Store* const store = Store::instance();
  Pool_Entry entry;
  bool found = false;
  std::string error;
  json_spirit::Object json;
  json["generation"] = known.generation;
  json["hash"] = known.hash;
  // Only of pools that are known here. What is not kept is learned again from the next roll.
  if (store != nullptr && store->find_pool(pool_uuid, entry, found, error) && found)
    store->put_note(NOTE_KIND, pool_uuid, json_spirit::write(json), error);
}

typedef std::shared_ptr<const Set_Roll> Set_Roll_ptr;

/// The text that was read last: a command asks for the same one several times, and most of what that takes
/// is to take it apart.
struct Last_Roll {
  std::string pool_uuid;
  std::string hash; ///< of the text
  bool encrypted = false, keyed = false;
  Set_Roll_ptr roll;
};
std::mutex last_mutex; ///< guards `last_roll`
Last_Roll last_roll;

Set_Roll_ptr parse_roll(const Pool& pool, const std::string& text, const std::string& hash, const Secret_Key* key,
                        std::string& error) {
  const bool keyed = key != nullptr;
  {
    const std::lock_guard<std::mutex> guard(last_mutex);
    if (last_roll.roll && last_roll.pool_uuid == pool.uuid() && last_roll.hash == hash &&
        last_roll.encrypted == pool.encrypted() && last_roll.keyed == keyed)
      return last_roll.roll;
  }
  const auto roll = std::make_shared<Set_Roll>();
  if (!Set_Roll::parse(text, pool.uuid(), pool.encrypted(), key, *roll, error))
    return nullptr;
  const std::lock_guard<std::mutex> guard(last_mutex);
  last_roll = {pool.uuid(), hash, pool.encrypted(), keyed, roll};
  return roll;
}

/// A pool's roll as it lies there.
struct Found_Roll {
  Set_Roll_ptr roll = std::make_shared<Set_Roll>();
  bool there = false;      ///< it could be read and is the pool's
  bool unreadable = false; ///< it is there, and the disk does not give it
  std::string doubt;       ///< why it is not to be trusted; empty where it is, and where an earlier version had none
};

Found_Roll read_roll(const Pool& pool) {
  Found_Roll found;
  Secret_Key key;
  std::string text, error, ignored;
  bool missing = false;
  const std::string path = pool.folder() + "/" + Set_Roll::FILE_NAME;
  const bool keyed = pool.encrypted() && find_pool_key(pool, key, ignored);
  const Known_Roll known = known_roll(pool.uuid());
  if (!read_small_file(path, MAX_ROLL, text, error, missing)) {
    struct stat status;
    if (!missing) {
      found.doubt = error;
      // What is no file of ours, whoever put it there, is written over.
      found.unreadable = !find_pool_file(path, status) ||
                         (S_ISREG(status.st_mode) && static_cast<unsigned long long>(status.st_size) <= MAX_ROLL);
    } else if (known.generation != 0) {
      found.doubt = "the pool's roll of sets " + path + " is missing";
    }
    return found;
  }
  const std::string hash = record_hash(text);
  const Set_Roll_ptr roll = parse_roll(pool, text, hash, keyed ? &key : nullptr, error);
  if (!roll) {
    found.doubt = "the pool's roll of sets " + path + " cannot be trusted: " + error;
    return found;
  }
  found.there = true;
  found.roll = roll;
  found.doubt = roll->doubt;
  if (roll->generation < known.generation || (roll->generation == known.generation && hash != known.hash))
    found.doubt = "the pool's roll of sets " + path + " is not the newest one: it was written " +
                  std::to_string(roll->generation) + " times, and the one that was there before " +
                  std::to_string(known.generation) + " times";
  else if (roll->generation > known.generation && (keyed || !pool.encrypted()))
    keep_known_roll(pool.uuid(), {roll->generation, hash});
  return found;
}

/// The hash of the record that lies there; empty where there is none.
bool hash_there(const Pool& pool, const Roll_Entry& entry, std::string& hash, std::string& error) {
  std::string text;
  bool missing = false;
  hash.clear();
  const std::string path = pool.set_folder(entry.uri) + "/" + Set_Record::FILE_NAME;
  if (!read_small_file(path, MAX_RECORD_TEXT, text, error, missing))
    return missing;
  hash = record_hash(text);
  return true;
}

/// Ends what a process left that was killed between its steps. That of a living one is behind `roll_mutex`.
bool settle(const Pool& pool, Set_Roll& roll, std::string& error) {
  for (auto one = roll.sets.begin(); one != roll.sets.end();) {
    Roll_Entry& entry = one->second;
    std::string hash;
    if ((!entry.next.empty() || entry.going) && !hash_there(pool, entry, hash, error))
      return false;
    if (!entry.next.empty() && hash == entry.next)
      entry.record = entry.next;
    entry.next.clear();
    // Of a set that is there it is this process that may be about to remove it; another one would have the pool locked.
    entry.going = entry.going && (hash.empty() || announced.count(one->first) != 0);
    if (entry.record.empty() || (entry.going && hash.empty()))
      one = roll.sets.erase(one);
    else
      ++one;
  }
  return true;
}

enum class Stock { WHOLE, DAMAGED, UNREADABLE };

/// Puts what is there now on the roll. Where the disk does not give a record that is UNREADABLE; where one is damaged
/// the others are on it. Both with the reason.
Stock take_stock(const Pool& pool, Set_Roll& roll, std::string& error) {
  Stock stock = Stock::WHOLE;
  for (const std::string& uri : set_places(pool)) {
    Set_Record record;
    Record_Text text;
    std::string why, raw;
    bool missing = false;
    const auto read = [&] {
      return read_set_record(pool.set_folder(uri), record, why, &missing, text) &&
             open_whole_record(pool, text, record, why);
    };
    if (!read()) {
      if (missing)
        continue;
      error = why;
      if (!read_small_file(pool.set_folder(uri) + "/" + Set_Record::FILE_NAME, MAX_RECORD_TEXT, raw, why, missing))
        return Stock::UNREADABLE;
      if (!read()) {
        stock = Stock::DAMAGED;
        continue;
      }
    }
    Roll_Entry& entry = roll.sets[record.uuid];
    entry.uri = uri;
    entry.seq = record.seq;
    entry.record = text.hash;
  }
  return stock;
}

/// Also where that cannot be seen.
bool is_there(const Pool& pool, const std::string& uri) {
  struct stat status;
  return find_pool_file(pool.set_folder(uri) + "/" + Set_Record::FILE_NAME, status) ||
         (errno != ENOENT && errno != ENOTDIR);
}

bool write_roll(const Pool& pool, Set_Roll& roll, std::string& error) {
  Secret_Key key;
  if (pool.encrypted() && !find_pool_key(pool, key, error))
    return false;
  roll.generation = std::max(roll.generation, known_roll(pool.uuid()).generation) + 1;
  const std::string text = roll.text(pool.uuid(), pool.encrypted() ? &key : nullptr);
  if (!write_durable_file(pool.folder(), Set_Roll::FILE_NAME, text, error))
    return false;
  keep_known_roll(pool.uuid(), {roll.generation, record_hash(text)});
  return true;
}

/// `roll_mutex` is held.
bool change_roll(const Pool& pool, const std::function<void(Set_Roll&)>& change, std::string& error) {
  Found_Roll found = read_roll(pool);
  if (found.unreadable) {
    error = found.doubt;
    return false;
  }
  // What is damaged gets on the roll when its record is made anew.
  Set_Roll roll = *found.roll;
  if (!found.there && found.doubt.empty() && take_stock(pool, roll, error) == Stock::UNREADABLE)
    return false;
  error.clear();
  roll.doubt = found.doubt;
  if (!settle(pool, roll, error))
    return false;
  change(roll);
  return write_roll(pool, roll, error);
}

const char* const TRUST = ". If it is as it should be, \"pool trust\" says so";

} // namespace

namespace {

bool is_on(const Roll_Entry& entry, const std::string& hash) {
  return hash == entry.record || hash == entry.next;
}

/// The record is not the one on the roll: it may have been written anew between the two looks. True when the two that
/// are there now are of each other, with that record.
bool look_again(const Pool& pool, Set_Record& record) {
  for (unsigned i = 0; i < LOOKS; ++i) {
    Set_Record now;
    Record_Text text;
    std::string ignored;
    bool missing = false;
    if (!read_set_record(pool.set_folder(record.uri), now, ignored, &missing, text) ||
        !open_whole_record(pool, text, now, ignored) || now.uuid != record.uuid)
      return false;
    const Found_Roll there = read_roll(pool);
    const auto entry = there.roll->sets.find(record.uuid);
    if (entry == there.roll->sets.end() || !is_on(entry->second, text.hash))
      continue;
    now.uri = record.uri;
    record = std::move(now);
    return true;
  }
  return false;
}

} // namespace

void compare_roll(const Pool& pool, const std::vector<std::string>& texts, std::vector<Set_Record>& found,
                  std::vector<std::string>& errors) {
  const Found_Roll there = read_roll(pool);
  if (!there.doubt.empty())
    errors.push_back(there.doubt + (there.unreadable ? "" : TRUST));
  if (!there.there)
    return;
  std::vector<Set_Record> good;
  for (size_t i = 0; i < found.size(); ++i) {
    Set_Record& record = found[i];
    const auto entry = there.roll->sets.find(record.uuid);
    if (entry == there.roll->sets.end()) {
      // Who removes one takes it off the roll afterwards.
      if (!is_there(pool, record.uri))
        continue;
      errors.push_back("the set " + record.uuid + " in " + pool.set_folder(record.uri) +
                       " is not on the pool's roll: it was put there by somebody else, or put back" + TRUST);
      // What it says of other sets counts for nothing.
      record.replaces.clear();
    } else if (!is_on(entry->second, texts[i]) && !look_again(pool, record)) {
      if (is_there(pool, record.uri))
        errors.push_back("the record of the set " + record.uuid + " in " + pool.set_folder(record.uri) +
                         " is not the one on the pool's roll: it was changed, or is an older one" + TRUST);
      continue;
    }
    good.push_back(std::move(record));
  }
  found = std::move(good);
}

bool is_another_on_roll(const Pool& pool, const std::string& uuid, const std::string& text) {
  const Found_Roll there = read_roll(pool);
  const auto entry = there.roll->sets.find(uuid);
  return entry != there.roll->sets.end() && !is_on(entry->second, text);
}

std::vector<std::string> sets_taken_away(const Pool& pool) {
  std::vector<std::string> away;
  const Found_Roll there = read_roll(pool);
  std::set<std::string> found;
  bool looked = false;
  for (const auto& [uuid, entry] : there.roll->sets) {
    if (entry.record.empty() || entry.going || is_there(pool, entry.uri))
      continue;
    // It may lie in another folder now.
    if (!looked)
      for (const std::string& uri : set_places(pool)) {
        Set_Record record;
        std::string ignored;
        if (read_set_record(pool.set_folder(uri), record, ignored))
          found.insert(record.uuid);
      }
    looked = true;
    if (found.count(uuid) == 0)
      away.push_back("the set " + uuid + " is on the pool's roll and was taken away from " +
                     pool.set_folder(entry.uri) + TRUST);
  }
  return away;
}

bool commit_set_record(const Pool& pool, const Set_Record& record, std::string& error) {
  const std::lock_guard<std::mutex> guard(roll_mutex);
  const std::string hash = record_hash(set_record_text(record));
  const auto announce = [&](Set_Roll& roll) {
    Roll_Entry& entry = roll.sets[record.uuid];
    entry.uri = record.uri;
    entry.seq = record.seq;
    entry.next = hash;
    entry.going = false;
  };
  if (!change_roll(pool, announce, error) || !write_set_record(pool.set_folder(record.uri), record, error))
    return false;
  // What was announced holds until the next change, which would do the same.
  std::string why;
  if (!change_roll(
          pool, [](Set_Roll&) {}, why))
    ACE_ERROR((LM_WARNING, ACE_TEXT("The roll of the pool in %C is ended by the next change: %C.\n"),
               pool.folder().c_str(), why.c_str()));
  return true;
}

bool announce_removals(const Pool& pool, const std::vector<std::string>& uuids, std::string& error) {
  if (uuids.empty())
    return true;
  const std::lock_guard<std::mutex> guard(roll_mutex);
  const auto announce = [&](Set_Roll& roll) {
    for (const std::string& uuid : uuids)
      if (const auto entry = roll.sets.find(uuid); entry != roll.sets.end())
        entry->second.going = true;
  };
  if (change_roll(pool, announce, error)) {
    announced.insert(uuids.begin(), uuids.end());
    return true;
  }
  // Removing sets is what makes room. Cut short then, it looks as if somebody else had removed them.
  for (const int full : {ENOSPC, EDQUOT})
    if (const std::string why = std::strerror(full); error.size() > why.size() && error.ends_with(why))
      return true;
  return false;
}

bool settle_removals(const Pool& pool, const std::vector<std::string>& uuids, std::string& error) {
  if (uuids.empty())
    return true;
  const std::lock_guard<std::mutex> guard(roll_mutex);
  for (const std::string& uuid : uuids)
    announced.erase(uuid);
  return change_roll(
      pool,
      [&](Set_Roll& roll) {
        for (const std::string& uuid : uuids) {
          const auto entry = roll.sets.find(uuid);
          if (entry == roll.sets.end())
            continue;
          entry->second.going = false;
          if (!is_there(pool, entry->second.uri))
            roll.sets.erase(entry);
        }
      },
      error);
}

void remove_torn_roll(const Pool& pool) {
  const std::lock_guard<std::mutex> guard(roll_mutex);
  remove_pool_file(pool.folder() + "/" + Set_Roll::FILE_NAME + ".tmp");
}

bool trust_pool(const Pool& pool, std::string& error) {
  const std::lock_guard<std::mutex> guard(roll_mutex);
  const Found_Roll there = read_roll(pool);
  Set_Roll roll;
  roll.generation = there.roll->generation;
  return take_stock(pool, roll, error) == Stock::WHOLE && write_roll(pool, roll, error);
}

bool forget_known_roll(Store& store, const std::string& pool_uuid, std::string& error) {
  return store.put_note(NOTE_KIND, pool_uuid, std::string(), error);
}
