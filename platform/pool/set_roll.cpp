#include "platform/pool/set_roll.h"

#include "platform/crypto/aead.h"
#include "platform/crypto/base64.h"
#include "sdk/json/json_spirit.h"

#include <openssl/crypto.h>
#include <openssl/sha.h>

namespace {

using json_spirit::Object;
using json_spirit::Value;

constexpr const char* CHECK_MEMBER = "check";
const std::string PURPOSE = "obs-agent roll of sets ";

std::string check_of(const Object& json, const Secret_Key* key) {
  const std::string text = json_spirit::write(json);
  if (key == nullptr)
    return record_hash(text);
  Secret_Key mac;
  if (!derive_key(*key, PURPOSE + text, mac))
    return std::string();
  return to_hex(mac.data(), Secret_Key::SIZE);
}

bool equal(const std::string& a, const std::string& b) {
  return a.size() == b.size() && CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

std::string text_of(const Object& json, const char* name) {
  return json_spirit::find(json, name) == nullptr ? std::string() : json_spirit::require_str(json, name);
}

const Value& require(const Object& json, const char* name) {
  const Value* const value = json_spirit::find(json, name);
  if (value == nullptr)
    throw json_spirit::Type_Error(std::string("\"") + name + "\" is missing");
  return *value;
}

Roll_Entry entry_of(const Object& json) {
  Roll_Entry entry;
  entry.uri = json_spirit::require_str(json, "uri");
  const unsigned long long seq = require(json, "seq").get_uint64();
  if (seq > 65535)
    throw json_spirit::Type_Error("\"seq\" is too large");
  entry.seq = static_cast<unsigned>(seq);
  entry.record = text_of(json, "record");
  entry.next = text_of(json, "next");
  entry.going = json_spirit::find(json, "going") != nullptr;
  return entry;
}

} // namespace

std::string record_hash(const std::string& text) {
  unsigned char digest[SHA256_DIGEST_LENGTH];
  SHA256(reinterpret_cast<const unsigned char*>(text.data()), text.size(), digest);
  return to_hex(digest, sizeof digest);
}

bool Set_Roll::parse(const std::string& text, const std::string& pool_uuid, bool encrypted, const Secret_Key* key,
                     Set_Roll& roll, std::string& error) {
  try {
    Value value;
    if (!json_spirit::read(text, value, &error))
      return false;
    Object json = value.get_obj();
    if (require(json, "format").get_uint64() > FORMAT) {
      error = "its format is newer than this program's";
      return false;
    }
    const std::string check = json_spirit::require_str(json, CHECK_MEMBER);
    json.erase(CHECK_MEMBER);
    if ((!encrypted || key != nullptr) && !equal(check, check_of(json, key))) {
      error = encrypted ? "it was not written with the pool's key, or is damaged" : "it does not match its check";
      return false;
    }
    if (json_spirit::require_str(json, "pool") != pool_uuid) {
      error = "it is that of another pool";
      return false;
    }
    Set_Roll read;
    read.generation = require(json, "generation").get_uint64();
    read.doubt = text_of(json, "doubt");
    for (const auto& [uuid, one] : require(json, "sets").get_obj())
      read.sets[uuid] = entry_of(one.get_obj());
    roll = std::move(read);
    return true;
  } catch (const std::exception& e) {
    error = e.what();
    return false;
  }
}

std::string Set_Roll::text(const std::string& pool_uuid, const Secret_Key* key) const {
  Object list;
  for (const auto& [uuid, entry] : sets) {
    Object one;
    one["uri"] = entry.uri;
    one["seq"] = entry.seq;
    if (!entry.record.empty())
      one["record"] = entry.record;
    if (!entry.next.empty())
      one["next"] = entry.next;
    if (entry.going)
      one["going"] = true;
    list[uuid] = std::move(one);
  }
  Object json;
  json["format"] = FORMAT;
  json["pool"] = pool_uuid;
  json["generation"] = generation;
  if (!doubt.empty())
    json["doubt"] = doubt;
  json["sets"] = std::move(list);
  json[CHECK_MEMBER] = check_of(json, key);
  return json_spirit::write(json) + "\n";
}
