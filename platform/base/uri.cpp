#include "sdk/base/uri.h"

#include <arpa/inet.h>

namespace {

bool is_alpha(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}
bool is_digit(char c) {
  return c >= '0' && c <= '9';
}

bool parse_scheme(const std::string& text, std::string& scheme) {
  if (text.empty() || !is_alpha(text[0]))
    return false;
  scheme.clear();
  for (char c : text) {
    if (!is_alpha(c) && !is_digit(c) && c != '+' && c != '-' && c != '.')
      return false;
    scheme.push_back(c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c);
  }
  return true;
}

bool is_host_name(const std::string& host) {
  if (host.size() > 255)
    return false;
  for (char c : host)
    if (!is_alpha(c) && !is_digit(c) && c != '-' && c != '.' && c != '_')
      return false;
  return true;
}

bool is_ipv6(const std::string& host) {
  in6_addr address;
  return inet_pton(AF_INET6, host.c_str(), &address) == 1;
}

bool parse_port(const std::string& text, unsigned short& port) {
  if (text.empty())
    return false;
  unsigned value = 0;
  for (char c : text) {
    if (!is_digit(c))
      return false;
    value = value * 10 + static_cast<unsigned>(c - '0');
    if (value > 65535)
      return false;
  }
  port = static_cast<unsigned short>(value);
  return true;
}

unsigned short default_port(const std::string& scheme) {
  if (scheme == "http")
    return 80;
  return scheme == "https" ? 443 : 0;
}

} // namespace

std::string URI::host(bool bracketed) const {
  return bracketed && ipv6_ ? "[" + host_ + "]" : host_;
}

bool URI::is_ssl() const {
  return scheme_ == "https" || scheme_ == "mtfs";
}

bool URI_Parser::parse(const char* text, URI& uri) {
  if (text == nullptr)
    return false;
  const std::string whole(text);
  const std::string::size_type colon = whole.find("://");
  if (colon == std::string::npos)
    return false;

  URI found;
  if (!parse_scheme(whole.substr(0, colon), found.scheme_))
    return false;

  const std::string::size_type begin = colon + 3;
  const std::string::size_type slash = whole.find('/', begin);
  const std::string authority = slash == std::string::npos ? whole.substr(begin) : whole.substr(begin, slash - begin);
  if (slash != std::string::npos)
    found.path_ = whole.substr(slash);

  std::string::size_type end_of_host;
  if (!authority.empty() && authority[0] == '[') {
    const std::string::size_type close = authority.find(']');
    if (close == std::string::npos)
      return false;
    found.host_ = authority.substr(1, close - 1);
    found.ipv6_ = true;
    if (!is_ipv6(found.host_))
      return false;
    end_of_host = close + 1;
  } else {
    end_of_host = authority.find(':');
    if (end_of_host == std::string::npos)
      end_of_host = authority.size();
    found.host_ = authority.substr(0, end_of_host);
    if (!is_host_name(found.host_))
      return false;
  }

  found.port_ = default_port(found.scheme_);
  if (end_of_host < authority.size()) {
    if (authority[end_of_host] != ':' || !parse_port(authority.substr(end_of_host + 1), found.port_))
      return false;
  }
  if (found.host_.empty() && (found.scheme_ != "file" || !authority.empty()))
    return false;

  uri = found;
  return true;
}
