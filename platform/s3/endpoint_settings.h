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

  Addressing addressing = ADDRESSING_AUTO;   ///< auto: path style for addresses and single-label hosts
  std::string ca_file;                       ///< PEM; empty: the system's
  unsigned connect_timeout = 10;             ///< seconds
  unsigned idle_timeout = 60;                ///< seconds without a byte
  unsigned long long part_size = 16ull << 20;      ///< bytes of a multipart part; objects above it go in parts

  Range_Settings ranges;

  /// Registers the settings of host:port for one access key. Any thread.
  static void set(const std::string& host, unsigned short port, const std::string& access_key,
                  const Endpoint_Settings& settings);
  /// What was registered, else the defaults.
  static Endpoint_Settings get(const std::string& host, unsigned short port, const std::string& access_key);
};
