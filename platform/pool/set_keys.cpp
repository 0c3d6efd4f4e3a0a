#include "platform/pool/set_keys.h"

#include "platform/crypto/base64.h"
#include "platform/crypto/secret.h"
#include "platform/pool/record_text.h"
#include "platform/store/store.h"

#include <openssl/crypto.h>

#include <cstring>
#include <map>
#include <mutex>

namespace {

const char* const NOTE_KIND = "pool_key";
const char* const RECORD_PURPOSE = "record";
const char* const CONTENT_MEMBER = "record"; ///< missing in records of earlier versions

std::mutex held_mutex; // guards `held_keys`
std::map<std::string, Secret_Key> held_keys;

bool held(const std::string& pool_uuid, Secret_Key& key) {
  const std::lock_guard<std::mutex> guard(held_mutex);
  const auto found = held_keys.find(pool_uuid);
  if (found == held_keys.end())
    return false;
  key = found->second;
  return true;
}

bool from_store(const Pool& pool, Secret_Key& key, std::string& error) {
  Store* const store = Store::instance();
  std::string sealed, text, data;
  bool found = false;
  if (store != nullptr && !store->find_note(NOTE_KIND, pool.uuid(), sealed, found, error))
    return false;
  if (!found || sealed.empty()) {
    error = "the key of the encrypted pool in " + pool.folder() + " is not known here: give it with \"pool unlock\"";
    return false;
  }
  if (!open_secret(sealed, text, error)) {
    error = "the key of the pool in " + pool.folder() + " cannot be used (" + error + "): give it with \"pool unlock\"";
    return false;
  }
  const bool good = from_hex(text, data) && data.size() == Secret_Key::SIZE;
  if (good)
    std::memcpy(key.data(), data.data(), Secret_Key::SIZE);
  else
    error = "the kept key of the pool in " + pool.folder() + " is damaged";
  OPENSSL_cleanse(text.data(), text.size());
  OPENSSL_cleanse(data.data(), data.size());
  return good;
}

bool is_figure(const json_spirit::Value& value) {
  return value.type() == json_spirit::int_type || value.type() == json_spirit::real_type ||
         value.type() == json_spirit::bool_type;
}

} // namespace

void hold_pool_key(const std::string& pool_uuid, const Secret_Key& key) {
  const std::lock_guard<std::mutex> guard(held_mutex);
  held_keys[pool_uuid] = key;
}

bool keep_pool_key(Store& store, const std::string& pool_uuid, const Secret_Key& key, std::string& error) {
  std::string text = to_hex(key.data(), Secret_Key::SIZE);
  std::string sealed;
  const bool good = seal_secret(text, sealed, error) && store.put_note(NOTE_KIND, pool_uuid, sealed, error);
  OPENSSL_cleanse(text.data(), text.size());
  if (good)
    hold_pool_key(pool_uuid, key);
  return good;
}

bool forget_pool_key(Store& store, const std::string& pool_uuid, std::string& error) {
  {
    const std::lock_guard<std::mutex> guard(held_mutex);
    held_keys.erase(pool_uuid);
  }
  return store.put_note(NOTE_KIND, pool_uuid, std::string(), error);
}

bool find_pool_key(const Pool& pool, Secret_Key& key, std::string& error) {
  if (!held(pool.uuid(), key)) {
    if (!from_store(pool, key, error))
      return false;
    hold_pool_key(pool.uuid(), key);
  }
  if (to_hex(reinterpret_cast<const unsigned char*>(key_check(key).data()), 8) == pool.key_check())
    return true;
  error = "the key that is kept for the pool in " + pool.folder() + " is not its own: give it with \"pool unlock\"";
  return false;
}

bool open_set_cipher(const Pool& pool, const std::string& set_uuid, const std::string& wrapped, Set_Cipher_ptr& cipher,
                     std::string& error) {
  cipher.reset();
  if (!pool.encrypted()) {
    if (wrapped.empty())
      return true;
    error = "the set " + set_uuid + " is encrypted, and the pool that it lies in is not";
    return false;
  }
  if (wrapped.empty()) {
    error = "the set " + set_uuid + " is not encrypted, and the pool that it lies in is: it was not made by this pool";
    return false;
  }
  Secret_Key key;
  if (!find_pool_key(pool, key, error))
    return false;
  cipher = Set_Cipher::open(key, set_uuid, wrapped, error);
  return cipher != nullptr;
}

bool open_set_cipher(const Pool& pool, const Set_Record& record, Set_Cipher_ptr& cipher, std::string& error) {
  return open_set_cipher(pool, record.uuid, record.data_key, cipher, error);
}

bool make_set_cipher(const Pool& pool, const std::string& set_uuid, Set_Cipher_ptr& cipher, std::string& error) {
  cipher.reset();
  if (!pool.encrypted())
    return true;
  Secret_Key key;
  if (!find_pool_key(pool, key, error))
    return false;
  cipher = Set_Cipher::make(key, set_uuid, error);
  return cipher != nullptr;
}

bool seal_record(const Set_Cipher_ptr& cipher, Set_Record& record, std::string& error) {
  record.data_key.clear();
  record.sealed.clear();
  if (!cipher)
    return true;
  json_spirit::Object names;
  json_spirit::Object texts;
  for (const auto& [name, value] : record.figures)
    if (!is_figure(value))
      texts[name] = value;
  names["name"] = record.name;
  names["minor_resource_name"] = record.minor_resource_name;
  names["figures"] = std::move(texts);
  // All else of the record is readable by everybody, but nobody without the key can change it.
  record.data_key = cipher->wrapped();
  names[CONTENT_MEMBER] = record_content(record);
  if (!cipher->seal_text(RECORD_PURPOSE, json_spirit::write(names), record.sealed)) {
    error = "the set's record cannot be sealed: the cryptographic library failed";
    record.data_key.clear();
    return false;
  }
  return true;
}

namespace {

/// `content` is what the record's file says beside `sealed`; null where that is not to be compared.
bool open_record_i(const Set_Cipher& cipher, const std::string* content, Set_Record& record, std::string& error) {
  std::string text;
  json_spirit::Value value;
  if (!cipher.open_text(RECORD_PURPOSE, record.sealed, text)) {
    error = "the names in the record of the set " + record.uuid + " are damaged";
    return false;
  }
  try {
    if (!json_spirit::read(text, value, &error))
      return false;
    const json_spirit::Object& names = value.get_obj();
    if (content != nullptr && json_spirit::find(names, CONTENT_MEMBER) != nullptr &&
        json_spirit::require_str(names, CONTENT_MEMBER) != *content) {
      error = "the record of the set " + record.uuid + " was changed by somebody who does not have the pool's key";
      return false;
    }
    record.name = json_spirit::require_str(names, "name");
    record.minor_resource_name = json_spirit::require_str(names, "minor_resource_name");
    if (const json_spirit::Value* figures = json_spirit::find(names, "figures"))
      for (const auto& [name, one] : figures->get_obj())
        record.figures[name] = one;
    return true;
  } catch (const std::exception& e) {
    error = "the names in the record of the set " + record.uuid + " are damaged: " + e.what();
    return false;
  }
}

} // namespace

bool open_record(const Set_Cipher& cipher, Set_Record& record, std::string& error) {
  return open_record_i(cipher, nullptr, record, error);
}

bool open_whole_record(const Pool& pool, const Record_Text& text, Set_Record& record, std::string& error) {
  Set_Cipher_ptr cipher;
  Secret_Key key;
  std::string ignored;
  // Without the key, names stay sealed; whoever needs the set itself is told so.
  if (!pool.encrypted() || record.data_key.empty() || !find_pool_key(pool, key, ignored))
    return true;
  return open_set_cipher(pool, record, cipher, error) && open_record_i(*cipher, &text.content, record, error);
}
