#include "platform/s3/redirect.h"

#include <curl/curl.h>

#include <algorithm>
#include <cctype>
#include <memory>
#include <vector>

namespace s3 {
namespace {

bool is_region(const std::string& label) {
  return label.size() > 3 && std::isalpha(static_cast<unsigned char>(label[0])) &&
         std::isalpha(static_cast<unsigned char>(label[1])) && label.find('-') != std::string::npos &&
         std::isdigit(static_cast<unsigned char>(label.back()));
}

std::vector<std::string> labels_of(const std::string& host) {
  std::vector<std::string> labels;
  size_t at = 0;
  for (;;) {
    const size_t dot = host.find('.', at);
    labels.push_back(host.substr(at, dot == std::string::npos ? dot : dot - at));
    if (dot == std::string::npos)
      return labels;
    at = dot + 1;
  }
}

/// The host's labels without those that name a region. The last three are never taken for one: there stands whom the
/// name belongs to, and everybody may buy a name that looks like a region.
std::vector<std::string> service_of(const std::string& host) {
  const std::vector<std::string> labels = labels_of(host);
  std::vector<std::string> kept;
  for (size_t i = 0; i < labels.size(); ++i) {
    const std::string& label = labels[i];
    const bool owner = i + 2 >= labels.size() || (i + 3 == labels.size() && labels[i + 1].size() <= 3);
    if (!owner && label.compare(0, 3, "s3-") == 0 && is_region(label.substr(3)))
      kept.push_back("s3");
    else if (owner || !(is_region(label) || label == "dualstack"))
      kept.push_back(label);
  }
  return kept;
}

bool is_address(const std::string& host) {
  return host.find(':') != std::string::npos || host.find_first_not_of("0123456789.") == std::string::npos;
}

std::string lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
  return text;
}

struct Url_Free {
  void operator()(CURLU* url) const { curl_url_cleanup(url); }
};

std::string part(CURLU* url, CURLUPart which) {
  char* text = nullptr;
  std::string out;
  if (curl_url_get(url, which, &text, CURLU_DEFAULT_PORT) == CURLUE_OK && text)
    out = text;
  curl_free(text);
  return out;
}

/// Takes scheme, host and port from a URL, or from "host[:port]".
bool read_target(const std::string& text, bool ssl, Address& to) {
  const std::unique_ptr<CURLU, Url_Free> url(curl_url());
  const std::string whole = text.find("://") == std::string::npos ? (ssl ? "https://" : "http://") + text : text;
  if (!url || curl_url_set(url.get(), CURLUPART_URL, whole.c_str(), CURLU_PATH_AS_IS) != CURLUE_OK)
    return false;
  const std::string scheme = part(url.get(), CURLUPART_SCHEME);
  if (scheme != "http" && scheme != "https")
    return false;
  to.ssl = scheme == "https";
  to.host = lower(part(url.get(), CURLUPART_HOST));
  if (to.host.size() > 2 && to.host.front() == '[')
    to.host = to.host.substr(1, to.host.size() - 2);
  const std::string port = part(url.get(), CURLUPART_PORT);
  to.port = static_cast<unsigned short>(std::strtoul(port.c_str(), nullptr, 10));
  return !to.host.empty();
}

unsigned short port_of(const Address& address) {
  return address.port ? address.port : static_cast<unsigned short>(address.ssl ? 443 : 80);
}

} // namespace

bool is_same_service(const std::string& host, const std::string& other) {
  const std::string from = lower(host), to = lower(other);
  if (from == to)
    return true;
  if (is_address(from) || is_address(to) || from.find('.') == std::string::npos)
    return false;
  if (to.size() > from.size() && to.compare(to.size() - from.size() - 1, std::string::npos, '.' + from) == 0)
    return true;
  return service_of(from) == service_of(to);
}

std::optional<Address> redirected(const Address& from, const std::string& bucket, const HTTP_Head& head,
                                  const Error_Document& document) {
  Address to = from;
  const std::string& header_region = head.value("x-amz-bucket-region");
  const std::string& region = header_region.empty() ? document.region : header_region;
  const bool moved = head.status == 301 || head.status == 302 || head.status == 307 || head.status == 308;
  if (moved) {
    const std::string& location = head.value("location");
    const std::string& target = location.empty() ? document.endpoint : location;
    if (!target.empty()) {
      if (!read_target(target, from.ssl, to))
        return std::nullopt;
      // An endpoint without a port is reached through the port that is in use.
      if (location.empty() && document.endpoint.find(':') == std::string::npos)
        to.port = from.port;
      const std::string start = bucket + '.';
      const std::string host = lower(to.host);
      to.virtual_host = !bucket.empty() && host.size() > start.size() && host.compare(0, start.size(), start) == 0;
      if (to.virtual_host)
        to.host = host.substr(start.size());
      const bool upgraded = !from.ssl && to.ssl && port_of(from) == 80 && port_of(to) == 443;
      if ((from.ssl && !to.ssl) || (port_of(from) != port_of(to) && !upgraded) || !is_same_service(from.host, to.host))
        return std::nullopt;
    } else if (!region.empty() && !from.region.empty()) {
      // Only the region is known: it may be a part of the host's name.
      const size_t at = from.host.find(from.region);
      if (at != std::string::npos)
        to.host.replace(at, from.region.size(), region);
      if (!is_same_service(from.host, to.host))
        return std::nullopt;
    }
  } else if (head.status != 400 && head.status != 403) {
    return std::nullopt;
  } else if (head.status == 403 && document.code != "AuthorizationHeaderMalformed") {
    return std::nullopt;
  }
  if (!region.empty())
    to.region = region;
  if (to == from || (to.region == from.region && to.host == from.host && to.ssl == from.ssl &&
                     port_of(to) == port_of(from) && to.virtual_host == from.virtual_host))
    return std::nullopt;
  return to;
}

} // namespace s3
