#pragma once

#include <cstddef>
#include <string>

/// How large objects are read and written.
struct Range_Settings {
  unsigned long long threshold = 64ull << 20; ///< bytes left to read from which several streams may be used
  size_t size = 4u << 20;                     ///< bytes asked for by one request then
  unsigned first = 1;                         ///< streams to begin with; more are tried while that is too slow
  unsigned most = 8;                          ///< streams of one object; 1: never more
  unsigned parts = 4;                         ///< of one upload sent beside the one that is being filled; 0: none
};

/// How an endpoint wants to be reached beyond what a job's entry says. Kept by endpoint, because the entry's own
/// attributes are all that a resource hands on; whoever loads an account registers it here before jobs run.
struct Endpoint_Settings {
  enum Addressing { ADDRESSING_AUTO, ADDRESSING_PATH, ADDRESSING_VIRTUAL };

  /// Auto: version 1, and 2 where the service does not serve that.
  enum List_Version { LIST_AUTO, LIST_V1, LIST_V2 };
  /// Of keys in listings. Auto: asked for, and believed where the page says so; not asked for again where the service
  /// refuses. On: taken as encoded whatever the page says.
  enum Url_Encoding { ENCODING_AUTO, ENCODING_ON, ENCODING_OFF };
  /// Of the bodies of V4 requests. Auto: signed where TLS does not cover them.
  enum Payload_Signing { SIGNING_AUTO, SIGNING_ON, SIGNING_OFF };

  Addressing addressing = ADDRESSING_AUTO; ///< auto: path style for addresses and single-label hosts
  List_Version list_version = LIST_AUTO;
  Url_Encoding url_encoding = ENCODING_AUTO;
  Payload_Signing payload_signing = SIGNING_AUTO;
  std::string ca_file;                        ///< PEM; empty: the system's
  std::string client_cert;                    ///< PEM; empty: none
  std::string client_key;                     ///< PEM; empty: in the certificate's file
  std::string proxy;                          ///< URL; empty: what the client is given
  std::string user_agent;                     ///< empty: none is sent
  unsigned connect_timeout = 10;              ///< seconds
  unsigned idle_timeout = 60;                 ///< seconds without a byte
  unsigned min_rate = 1000;                   ///< bytes per second of a body, over any idle_timeout; 0: any
  unsigned total_timeout = 0;                 ///< seconds for a whole exchange; 0: no bound
  unsigned long long part_size = 16ull << 20; ///< bytes of a multipart part; objects above it go in parts

  Range_Settings ranges;

  /// Registers the settings of host:port for one access key. Any thread.
  static void set(const std::string& host, unsigned short port, const std::string& access_key,
                  const Endpoint_Settings& settings);
  /// What was registered, else the defaults.
  static Endpoint_Settings get(const std::string& host, unsigned short port, const std::string& access_key);

  // The settings by name; what is no such name reads as auto.
  static Addressing read_addressing(const std::string& text);     ///< "path", "virtual"
  static List_Version read_list_version(const std::string& text); ///< "1", "2"
  static Url_Encoding read_url_encoding(const std::string& text); ///< "on", "off"
  static Payload_Signing read_payload_signing(const std::string& text);
};
