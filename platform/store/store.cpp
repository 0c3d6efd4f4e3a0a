#include "platform/store/store.h"

#include "platform/store/sqlite_store.h"
#include "sdk/base/uri.h"

#include <atomic>

namespace {

std::atomic<Store*> the_store{nullptr};

} // namespace

Store::~Store() {
  Store* self = this;
  the_store.compare_exchange_strong(self, nullptr);
}

std::unique_ptr<Store> Store::open(const std::string& state_folder, std::string& error) {
  return SQLite_Store::open(state_folder, error);
}

Store* Store::instance() {
  return the_store;
}

void Store::instance(Store* store) {
  the_store = store;
}

bool split_endpoint_url(const std::string& url, std::string& scheme, std::string& endpoint, std::string& error) {
  URI uri;
  if (url.find("://") == std::string::npos) {
    error = "'" + url + "' says neither http:// nor https://: give http://HOST[:PORT] or https://HOST[:PORT]";
    return false;
  }
  if (url.find_first_of("?#") != std::string::npos || !URI_Parser::parse(url.c_str(), uri) || uri.host().empty()) {
    error = "'" + url + "' is no endpoint: give http://HOST[:PORT] or https://HOST[:PORT]";
    return false;
  }
  if (uri.scheme() != "http" && uri.scheme() != "https") {
    error = "'" + url + "' is no endpoint: only http and https are known";
    return false;
  }
  if (!uri.path().empty() && uri.path() != "/") {
    error = "'" + url + "' is no endpoint: nothing may follow the host; buckets are given separately";
    return false;
  }
  scheme = uri.scheme();
  const std::string::size_type host = url.find("://") + 3;
  endpoint = url.substr(host, url.size() - host - uri.path().size());
  return true;
}
