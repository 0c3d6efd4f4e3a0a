#include "platform/file_backup/proxy_secret.h"

#include "platform/crypto/secret.h"

namespace {

constexpr const char* SEALED = "obs1:";

bool is_sealed(const std::string& proxy) {
  return proxy.compare(0, std::char_traits<char>::length(SEALED), SEALED) == 0;
}

/// Where the password is, without the colon and the at sign around it; false where there is none.
bool find_password(const std::string& url, size_t& begin, size_t& end) {
  const size_t scheme = url.find("://");
  const size_t from = scheme == std::string::npos ? 0 : scheme + 3;
  const size_t host = url.find('/', from);
  // A password may hold an at sign that somebody forgot to escape.
  end = url.rfind('@', host == std::string::npos ? std::string::npos : host);
  if (end == std::string::npos || end < from)
    return false;
  begin = url.find(':', from);
  if (begin == std::string::npos || begin > end)
    return false;
  ++begin;
  return begin < end;
}

} // namespace

bool seal_proxy(std::string& proxy, std::string& error) {
  size_t begin = 0, end = 0;
  if (is_sealed(proxy) || !find_password(proxy, begin, end))
    return true;
  std::string sealed;
  if (!seal_secret(proxy, sealed, error))
    return false;
  proxy = sealed;
  return true;
}

bool open_proxy(const std::string& proxy, std::string& url, std::string& error) {
  if (is_sealed(proxy))
    return open_secret(proxy, url, error);
  url = proxy;
  return true;
}

std::string shown_proxy(const std::string& proxy) {
  std::string url, error;
  size_t begin = 0, end = 0;
  if (!open_proxy(proxy, url, error))
    return "(sealed, and cannot be opened: " + error + ")";
  if (find_password(url, begin, end))
    url.replace(begin, end - begin, "***");
  return url;
}
