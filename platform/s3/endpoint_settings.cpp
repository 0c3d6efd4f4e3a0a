#include "platform/s3/endpoint_settings.h"

#include <map>
#include <mutex>
#include <tuple>

namespace {

typedef std::tuple<std::string, unsigned short, std::string> Endpoint_Key;

struct Registry {
  std::mutex mutex; ///< guards `settings`
  std::map<Endpoint_Key, Endpoint_Settings> settings;
};

Registry& registry() {
  static Registry* instance = new Registry;
  return *instance;
}

// Host names are the same in any case; access keys are not.
Endpoint_Key key_of(std::string host, unsigned short port, const std::string& access_key) {
  for (char& c : host)
    if (c >= 'A' && c <= 'Z')
      c = static_cast<char>(c - 'A' + 'a');
  return Endpoint_Key(std::move(host), port, access_key);
}

} // namespace

void Endpoint_Settings::set(const std::string& host, unsigned short port, const std::string& access_key,
                            const Endpoint_Settings& settings) {
  Registry& all = registry();
  const std::lock_guard<std::mutex> guard(all.mutex);
  all.settings[key_of(host, port, access_key)] = settings;
}

Endpoint_Settings::Addressing Endpoint_Settings::read_addressing(const std::string& text) {
  return text == "path" ? ADDRESSING_PATH : text == "virtual" ? ADDRESSING_VIRTUAL : ADDRESSING_AUTO;
}

Endpoint_Settings::List_Version Endpoint_Settings::read_list_version(const std::string& text) {
  return text == "1" ? LIST_V1 : text == "2" ? LIST_V2 : LIST_AUTO;
}

Endpoint_Settings::Url_Encoding Endpoint_Settings::read_url_encoding(const std::string& text) {
  return text == "on" ? ENCODING_ON : text == "off" ? ENCODING_OFF : ENCODING_AUTO;
}

Endpoint_Settings::Payload_Signing Endpoint_Settings::read_payload_signing(const std::string& text) {
  return text == "on" ? SIGNING_ON : text == "off" ? SIGNING_OFF : SIGNING_AUTO;
}

Endpoint_Settings Endpoint_Settings::get(const std::string& host, unsigned short port, const std::string& access_key) {
  Registry& all = registry();
  const std::lock_guard<std::mutex> guard(all.mutex);
  const auto found = all.settings.find(key_of(host, port, access_key));
  return found == all.settings.end() ? Endpoint_Settings() : found->second;
}
