#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

/// Names and values in order: header fields, or the parameters of a query.
typedef std::vector<std::pair<std::string, std::string>> Name_Values;

/// One request as it goes over the wire.
struct HTTP_Request {
  std::string method;
  std::string url;       ///< percent-encoded; taken as it stands
  Name_Values headers;   ///< without Host and Content-Length
  bool has_body = false; ///< an empty body is one, too: it is announced with a length of 0
  std::string_view body; ///< must outlive the request
};

/// The head of an answer. Header names are in lower case.
struct HTTP_Head {
  int status = 0;
  Name_Values headers;

  /// The value of the first field of that name (given in lower case), or null. Valid as long as this head.
  const std::string* find(std::string_view name) const {
    for (const auto& header : headers)
      if (header.first == name)
        return &header.second;
    return nullptr;
  }
  /// The same, empty where there is no such field.
  const std::string& value(std::string_view name) const {
    static const std::string none;
    const std::string* found = find(name);
    return found ? *found : none;
  }
};

/// Why no answer, or not the whole of it, was had.
struct HTTP_Failure {
  int code = 0; ///< a CURLcode; 0 with `cancelled` false: no failure
  int os_errno = 0;
  bool cancelled = false; ///< the job of the calling thread is being cancelled
  std::string text;
};

/// How connections are made.
struct HTTP_Settings {
  unsigned connect_timeout = 10; ///< seconds
  unsigned idle_timeout = 60;    ///< seconds without a byte in either direction
  unsigned min_rate = 1000;      ///< bytes per second that a body moves at least, over any `idle_timeout`; 0: any
  unsigned total_timeout = 0;    ///< seconds for a whole exchange; 0: no bound
  std::string ca_file;           ///< PEM; empty: the system's
  std::string client_cert;       ///< PEM; empty: none
  std::string client_key;        ///< PEM; empty: in the certificate's file
  std::string proxy;             ///< URL; empty: none, whatever the environment says
  std::string user_agent;        ///< empty: none is sent
};
