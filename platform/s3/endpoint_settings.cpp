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

Endpoint_Settings Endpoint_Settings::get(const std::string& host, unsigned short port, const std::string& access_key) {
  Registry& all = registry();
  const std::lock_guard<std::mutex> guard(all.mutex);
  const auto found = all.settings.find(key_of(host, port, access_key));
  return found == all.settings.end() ? Endpoint_Settings() : found->second;
}
