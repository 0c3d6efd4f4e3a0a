#pragma once

#include "bench/s3_source/layout.h"

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

/// A request as far as the service needs it.
struct Request {
  std::string method;
  std::string path;                                       ///< decoded
  std::vector<std::pair<std::string, std::string>> query; ///< decoded
  std::string range;
  uint64_t body_size = 0;
  std::string body; ///< of POST only; others are thrown away as they come

  bool has(std::string_view name) const;
  std::string get(std::string_view name) const;
};

/// An answer: head and document, then bytes of a pattern.
struct Answer {
  std::string head;        ///< with the document, where there is one
  int pattern = -1;        ///< which of the patterns
  uint64_t pattern_at = 0; ///< where the first byte comes from, within the pattern
  uint64_t pattern_left = 0;
};

/// Answers requests as an S3 service that holds made-up buckets, and buckets that take what is written to them and keep
/// its size. One thread.
class Service {
public:
  explicit Service(std::vector<Layout> layouts);
  void answer(const Request& request, Answer& answer);
  /// Delay of each answer in microseconds, as the requests to "/-/latency?us=N" set it.
  uint64_t latency() const { return latency_; }

private:
  struct Upload {
    std::string bucket, key;
    std::map<unsigned, uint64_t> parts;
  };
  typedef std::map<std::string, uint64_t> Stored;

  void control(const Request& request, Answer& answer);
  void list_buckets(Answer& answer);
  void list(const Request& request, const std::string& bucket, Answer& answer);
  void bucket(const Request& request, const std::string& name, Answer& answer);
  void object(const Request& request, const std::string& bucket, const std::string& key, Answer& answer);
  void read(const Request& request, const Layout* layout, const std::string& key, uint64_t size, Answer& answer);
  void remove_several(const Request& request, const std::string& bucket, Answer& answer);
  const Layout* layout(const std::string& name) const;

  std::vector<Layout> layouts_;
  std::map<std::string, Stored> stored_;
  std::map<std::string, Upload> uploads_;
  uint64_t last_upload_ = 0;
  uint64_t latency_ = 0;
  std::map<std::string, uint64_t> counts_; ///< requests by kind
};
