#include "platform/pool/known_pool.h"

#include "platform/pool/pool.h"
#include "platform/store/store.h"

namespace {

const char* const NOTE_KIND = "pool_known";

std::string changed(const Pool& pool, const std::string& what) {
  return "the pool in " + pool.folder() + " is refused: " + what +
         ". Its file pool.json was changed or put there by somebody else: bring the right one back, or take the pool "
         "up "
         "as it is now with \"pool remove\" and \"pool add\"";
}

/// What differs from what is known; empty when nothing does.
std::string difference(const Pool& pool, const json_spirit::Object& known) {
  const bool encrypted = json_spirit::require_str(known, "encryption") != "none";
  if (encrypted && !pool.encrypted())
    return "it was encrypted when it was used last, and now says that it is not";
  if (!encrypted && pool.encrypted())
    return "it was not encrypted when it was used last, and now says that it is";
  if (encrypted && json_spirit::require_str(known, "key_check") != pool.key_check())
    return "it has another key than when it was used last";
  const json_spirit::Value* const format = json_spirit::find(known, "format");
  if (format != nullptr && pool.format() < format->get_uint64())
    return "it is of format " + std::to_string(pool.format()) + ", and was of format " +
           std::to_string(format->get_uint64()) + " when it was used last";
  return std::string();
}

} // namespace

bool check_known_pool(const Pool& pool, std::string& error) {
  Store* const store = Store::instance();
  if (store == nullptr)
    return true;
  Pool_Entry entry;
  std::string text;
  bool listed = false, found = false;
  if (!store->find_pool(pool.uuid(), entry, listed, error) ||
      !store->find_note(NOTE_KIND, pool.uuid(), text, found, error))
    return false;
  // Of a pool that an earlier version made known the database has only this.
  if (listed && entry.encrypt && !pool.encrypted()) {
    error = changed(pool, "it was encrypted when it was made known here, and now says that it is not");
    return false;
  }
  json_spirit::Object now;
  now["encryption"] = pool.encrypted() ? "aes-256-gcm" : "none";
  now["key_check"] = pool.key_check();
  now["format"] = pool.format();
  if (found && !text.empty()) {
    try {
      json_spirit::Value value;
      if (!json_spirit::read(text, value, &error))
        throw json_spirit::Type_Error(error);
      const std::string what = difference(pool, value.get_obj());
      if (!what.empty())
        error = changed(pool, what);
      if (!what.empty() || json_spirit::write(now) == text)
        return what.empty();
    } catch (const json_spirit::Type_Error& e) {
      error = "what the agent's database knows of the pool in " + pool.folder() + " cannot be read: " + e.what();
      return false;
    }
  }
  // What is only looked at is not made known.
  return !listed || store->put_note(NOTE_KIND, pool.uuid(), json_spirit::write(now), error);
}

bool forget_known_pool(Store& store, const std::string& pool_uuid, std::string& error) {
  return store.put_note(NOTE_KIND, pool_uuid, std::string(), error);
}
