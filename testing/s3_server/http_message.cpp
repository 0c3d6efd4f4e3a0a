#include "testing/s3_server/http_message.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace s3_testing {
namespace {

bool is_token(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](unsigned char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
           (c != 0 && std::strchr("!#$%&'*+-.^_`|~", c));
  });
}

int hex_digit(char c) {
  if (c >= '0' && c <= '9')
    return c - '0';
  if (c >= 'a' && c <= 'f')
    return c - 'a' + 10;
  if (c >= 'A' && c <= 'F')
    return c - 'A' + 10;
  return -1;
}

// Only what RFC 3986 allows in a path or a query may stand there unescaped.
bool legal_in_target(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](unsigned char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
           (c != 0 && std::strchr("-._~:/?@!$&'()*+,;=%", c));
  });
}

std::string parse_target(std::string_view target, Http_Request& request) {
  if (target.empty() || target[0] != '/')
    return "the request target does not start with \"/\"";
  const auto mark = target.find('?');
  request.raw_path = target.substr(0, mark);
  if (mark != std::string_view::npos)
    request.raw_query = target.substr(mark + 1);
  if (!legal_in_target(request.raw_path) || !legal_in_target(request.raw_query))
    return "the request target holds a character that must be percent-encoded";
  if (!url_decode(request.raw_path, request.path))
    return "the path holds a malformed percent escape";
  // Services differ on whether "+" is a space there, so a client must not send it.
  if (request.raw_query.find('+') != std::string::npos)
    return "the query holds a bare \"+\"";
  std::string_view rest = request.raw_query;
  while (!rest.empty()) {
    const auto end = rest.find('&');
    const std::string_view pair = rest.substr(0, end);
    rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
    if (pair.empty())
      return "the query holds an empty parameter";
    const auto equals = pair.find('=');
    std::string name, value;
    if (!url_decode(pair.substr(0, equals), name) ||
        (equals != std::string_view::npos && !url_decode(pair.substr(equals + 1), value)))
      return "the query holds a malformed percent escape";
    if (request.has_parameter(name))
      return "the query holds the parameter \"" + name + "\" twice";
    request.query.emplace_back(std::move(name), std::move(value));
  }
  return {};
}

} // namespace

const std::string* Http_Request::header(std::string_view name) const {
  for (const auto& [key, value] : headers)
    if (key == name)
      return &value;
  return nullptr;
}

const std::string* Http_Request::parameter(std::string_view name) const {
  for (const auto& [key, value] : query)
    if (key == name)
      return &value;
  return nullptr;
}

std::string parse_head(std::string_view head, Http_Request& request) {
  const auto line_end = head.find("\r\n");
  const std::string_view line = head.substr(0, line_end);
  const auto first = line.find(' ');
  const auto last = line.rfind(' ');
  if (first == std::string_view::npos || first == last)
    return "malformed request line";
  request.method = line.substr(0, first);
  if (!is_token(request.method))
    return "malformed method";
  if (line.substr(last + 1) != "HTTP/1.1")
    return "the protocol is not HTTP/1.1";
  if (std::string wrong = parse_target(line.substr(first + 1, last - first - 1), request); !wrong.empty())
    return wrong;
  std::string_view rest = line_end == std::string_view::npos ? std::string_view() : head.substr(line_end + 2);
  while (!rest.empty()) {
    const auto end = rest.find("\r\n");
    const std::string_view field = rest.substr(0, end);
    rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 2);
    const auto colon = field.find(':');
    if (colon == std::string_view::npos || !is_token(field.substr(0, colon)))
      return "malformed header line";
    const std::string_view value = trimmed(field.substr(colon + 1));
    if (std::any_of(value.begin(), value.end(), [](unsigned char c) { return (c < 32 && c != '\t') || c == 127; }))
      return "a header value holds a control character";
    std::string name = to_lower(field.substr(0, colon));
    if (request.header(name))
      return "the header \"" + name + "\" is sent twice";
    request.headers.emplace_back(std::move(name), std::string(value));
  }
  if (!request.header("host") || request.header("host")->empty())
    return "the Host header is missing";
  return {};
}

std::optional<std::uint64_t> parse_number(std::string_view text) {
  if (text.empty() || text.size() > 19)
    return std::nullopt;
  std::uint64_t value = 0;
  for (char c : text) {
    if (c < '0' || c > '9')
      return std::nullopt;
    value = value * 10 + static_cast<std::uint64_t>(c - '0');
  }
  return value;
}

bool url_decode(std::string_view text, std::string& out) {
  out.clear();
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      out += text[i];
      continue;
    }
    if (i + 2 >= text.size())
      return false;
    const int high = hex_digit(text[i + 1]), low = hex_digit(text[i + 2]);
    if (high < 0 || low < 0)
      return false;
    out += static_cast<char>(high * 16 + low);
    i += 2;
  }
  return true;
}

std::string url_encode(std::string_view text, bool keep_slash) {
  static const char digits[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(text.size() + 16);
  for (unsigned char c : text) {
    if ((c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '-' || c == '_' ||
        c == '.' || c == '~' || (keep_slash && c == '/')) {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += digits[c >> 4];
      out += digits[c & 15];
    }
  }
  return out;
}

std::string to_lower(std::string_view text) {
  std::string out(text);
  for (char& c : out)
    if (c >= 'A' && c <= 'Z')
      c = static_cast<char>(c - 'A' + 'a');
  return out;
}

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t'))
    text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t'))
    text.remove_suffix(1);
  return text;
}

namespace {

const char* const day_names[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
const char* const month_names[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

std::tm broken_down(std::int64_t seconds) {
  const std::time_t time = static_cast<std::time_t>(seconds);
  std::tm out{};
  gmtime_r(&time, &out);
  return out;
}

} // namespace

std::string http_date(std::int64_t seconds) {
  const std::tm t = broken_down(seconds);
  char text[64];
  std::snprintf(text, sizeof text, "%s, %02d %s %04d %02d:%02d:%02d GMT", day_names[t.tm_wday], t.tm_mday,
                month_names[t.tm_mon], t.tm_year + 1900, t.tm_hour, t.tm_min, t.tm_sec);
  return text;
}

std::string iso_date(std::int64_t seconds) {
  const std::tm t = broken_down(seconds);
  char text[64];
  std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.000Z", t.tm_year + 1900, t.tm_mon + 1, t.tm_mday,
                t.tm_hour, t.tm_min, t.tm_sec);
  return text;
}

std::optional<std::int64_t> parse_date(std::string_view text) {
  const std::string copy(text);
  std::tm t{};
  int used = 0;
  if (std::sscanf(copy.c_str(), "%4d%2d%2dT%2d%2d%2dZ%n", &t.tm_year, &t.tm_mon, &t.tm_mday, &t.tm_hour, &t.tm_min,
                  &t.tm_sec, &used) == 6 &&
      used == 16 && copy.size() == 16) {
    t.tm_mon -= 1;
  } else {
    char month[4] = {}, zone[6] = {};
    if (std::sscanf(copy.c_str(), "%*3[A-Za-z], %2d %3s %4d %2d:%2d:%2d %5s%n", &t.tm_mday, month, &t.tm_year,
                    &t.tm_hour, &t.tm_min, &t.tm_sec, zone, &used) != 7 ||
        static_cast<std::size_t>(used) != copy.size() || (std::string(zone) != "GMT" && std::string(zone) != "+0000"))
      return std::nullopt;
    const auto at = std::find_if(std::begin(month_names), std::end(month_names),
                                 [&](const char* name) { return std::string(month) == name; });
    if (at == std::end(month_names))
      return std::nullopt;
    t.tm_mon = static_cast<int>(at - std::begin(month_names));
  }
  if (t.tm_mon < 0 || t.tm_mon > 11 || t.tm_mday < 1 || t.tm_mday > 31 || t.tm_hour > 23 || t.tm_min > 59 ||
      t.tm_sec > 60)
    return std::nullopt;
  t.tm_year -= 1900;
  return static_cast<std::int64_t>(timegm(&t));
}

const char* status_text(int status) {
  switch (status) {
  case 200:
    return "OK";
  case 204:
    return "No Content";
  case 206:
    return "Partial Content";
  case 301:
    return "Moved Permanently";
  case 304:
    return "Not Modified";
  case 307:
    return "Temporary Redirect";
  case 400:
    return "Bad Request";
  case 403:
    return "Forbidden";
  case 404:
    return "Not Found";
  case 405:
    return "Method Not Allowed";
  case 409:
    return "Conflict";
  case 411:
    return "Length Required";
  case 412:
    return "Precondition Failed";
  case 416:
    return "Requested Range Not Satisfiable";
  case 417:
    return "Expectation Failed";
  case 429:
    return "Too Many Requests";
  case 500:
    return "Internal Server Error";
  case 501:
    return "Not Implemented";
  case 503:
    return "Service Unavailable";
  default:
    return "Status";
  }
}

} // namespace s3_testing
