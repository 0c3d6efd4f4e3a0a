#pragma once

#include <string>

/// A parsed URI. A plain value.
class URI {
public:
  /// In lower case, without "://".
  const std::string& scheme() const { return scheme_; }
  /// Host name or address. An IPv6 address comes without its brackets unless `bracketed`.
  std::string host(bool bracketed = false) const;
  /// The port given, else the scheme's own (http 80, https 443), else 0.
  unsigned short port() const { return port_; }
  /// Everything from the first "/" behind the authority, percent-encoding untouched; may be empty.
  const std::string& path() const { return path_; }
  /// True for the schemes that speak TLS: https and mtfs.
  bool is_ssl() const;

private:
  friend class URI_Parser;
  std::string scheme_;
  std::string host_;
  std::string path_;
  unsigned short port_ = 0;
  bool ipv6_ = false;
};

class URI_Parser {
public:
  /// Reads "scheme://host[:port][/path]" into `uri`. The host may be empty only for scheme "file". False, with `uri`
  /// untouched, for anything else: no scheme, bad characters in scheme or host, a port that is no number up to 65535,
  /// user information.
  static bool parse(const char* text, URI& uri);
};
