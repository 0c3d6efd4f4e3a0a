// The test server as a process of its own, for system tests and benches that drive whole programs against it.
// Prints "endpoint=", "access_key=", "secret_key=" and "ready", serves until its standard input ends. Each line of it
// is a question, which is answered with one line:
//     difference BUCKET KEY BUCKET KEY    "none", or what differs between the two objects' contents
//     uploads                             how many multipart uploads were begun and neither completed nor aborted
//     struck                              how many requests met a fault
//     concurrent                          most requests that were in work at one time
//     sequence                            the operations of all requests, with --log: "ListBuckets ListObjects ..."
//     stalled                             "yes" once a reply stalls, "no" after 20 seconds without
//     requests BUCKET KEY                 the operations that were asked for this key, with --log: "GetObject=2 ..."
//     advance SECONDS                     "done", with --stopped-clock: from now on it is so much later
//     refuse OPERATION CHANCE [KEY]       "done": from now on so many of 1 of these requests are refused with 403
//     fail STATUS CODE [KEY]              "done": from now on every request, or each GetObject of this key, gets this error
//     serve                               "done": from now on no request meets a fault

#include "testing/s3_server/s3_server.h"

#include <CLI/CLI.hpp>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace {

/// "bucket,count,size": so many keys of that size, 100 to a folder and 100 folders to a folder above.
bool add_synthetic(s3_testing::S3_Server& server, const std::string& text) {
  std::istringstream fields(text);
  std::string bucket, count_text, size_text;
  if (!std::getline(fields, bucket, ',') || !std::getline(fields, count_text, ',') || !std::getline(fields, size_text))
    return false;
  const unsigned long long size = std::stoull(size_text);
  s3_testing::Synthetic_Keys keys;
  keys.count = std::stoull(count_text);
  keys.key = [](std::uint64_t index) {
    char key[64];
    std::snprintf(key, sizeof key, "d%04llu/e%02llu/object-%010llu", static_cast<unsigned long long>(index / 10000),
                  static_cast<unsigned long long>(index / 100 % 100), static_cast<unsigned long long>(index));
    return std::string(key);
  };
  keys.size = [size](std::uint64_t) { return size; };
  keys.mtime = 1700000000;
  server.create_bucket(bucket);
  return server.add_synthetic(bucket, keys);
}

/// "bucket,key,size": one key of that size.
bool add_object(s3_testing::S3_Server& server, const std::string& text) {
  std::istringstream fields(text);
  std::string bucket, key, size_text;
  if (!std::getline(fields, bucket, ',') || !std::getline(fields, key, ',') || !std::getline(fields, size_text))
    return false;
  server.create_bucket(bucket);
  return server.put_synthetic(bucket, key, std::stoull(size_text), key.size());
}

/// "key,bytes": of the replies with this key's content the first one that begins behind so many bytes is cut off.
bool add_cut(s3_testing::S3_Server& server, const std::string& text) {
  const std::string::size_type comma = text.rfind(',');
  if (comma == std::string::npos)
    return false;
  const unsigned long long behind = std::stoull(text.substr(comma + 1));
  server.add_fault(s3_testing::Fault::cut(1000)
                       .on("GetObject")
                       .key(text.substr(0, comma))
                       .when([behind](const s3_testing::Request_Info& request) {
                         const std::string unit = "bytes=";
                         for (const auto& [name, value] : request.headers)
                           if (name == "range" && value.compare(0, unit.size(), unit) == 0)
                             return std::stoull(value.substr(unit.size())) > behind;
                         return false;
                       })
                       .times(1));
  return true;
}

/// Seconds by which a stopped clock has been moved on.
std::atomic<std::int64_t> advanced{0};

/// "operation,bytes": replies to this operation stop after so many bytes of their body and never go on.
bool add_stall(s3_testing::S3_Server& server, const std::string& text) {
  const std::string::size_type comma = text.rfind(',');
  if (comma == std::string::npos)
    return false;
  server.add_fault(s3_testing::Fault::stall(std::stoull(text.substr(comma + 1))).on(text.substr(0, comma)));
  return true;
}

/// "operation,key,code": the operation on this key is refused with 403 and this code. Only the code may hold commas.
bool add_refusal(s3_testing::S3_Server& server, const std::string& text) {
  std::istringstream fields(text);
  std::string operation, key, code;
  if (!std::getline(fields, operation, ',') || !std::getline(fields, key, ',') || !std::getline(fields, code, '\0'))
    return false;
  server.add_fault(s3_testing::Fault::error(403, code).on(operation).key(key));
  return true;
}

std::string answer(s3_testing::S3_Server& server, const std::string& line) {
  std::istringstream words(line);
  std::string question, bucket, key, other_bucket, other_key;
  words >> question >> bucket >> key >> other_bucket >> other_key;
  if (question == "difference") {
    const s3_testing::Object_Ptr one = server.object(bucket, key), other = server.object(other_bucket, other_key);
    if (!one || !other)
      return "no such object";
    const std::string found = s3_testing::difference(*one, *other);
    return found.empty() ? "none" : found;
  }
  if (question == "advance") {
    advanced += std::stoll(bucket);
    return "done";
  }
  if (question == "refuse") {
    server.add_fault(s3_testing::Fault::error(403, "AccessDenied")
                         .on(bucket)
                         .probability(std::stod(key))
                         .key(other_bucket.empty() ? "*" : other_bucket));
    return "done";
  }
  if (question == "fail") {
    s3_testing::Fault fault = s3_testing::Fault::error(std::stoi(bucket), key);
    server.add_fault(other_bucket.empty() ? fault : fault.on("GetObject").key(other_bucket));
    return "done";
  }
  if (question == "serve") {
    server.clear_faults();
    return "done";
  }
  if (question == "uploads")
    return std::to_string(server.open_uploads());
  if (question == "sequence") {
    std::string out;
    for (const s3_testing::Request_Info& request : server.log())
      out += (out.empty() ? "" : " ") + request.operation;
    return out;
  }
  if (question == "struck")
    return std::to_string(server.faults_struck());
  if (question == "concurrent")
    return std::to_string(server.max_concurrent());
  if (question == "stalled")
    return server.wait_for_stalls(1, 20) ? "yes" : "no";
  if (question == "requests") {
    std::map<std::string, unsigned> counts;
    for (const s3_testing::Request_Info& request : server.log())
      if (request.bucket == bucket && request.key == key)
        ++counts[request.operation];
    std::string out;
    for (const auto& [operation, count] : counts)
      out += (out.empty() ? "" : " ") + operation + "=" + std::to_string(count);
    return out;
  }
  return "no such question";
}

} // namespace

int main(int argc, char** argv) {
  std::vector<std::string> synthetic;
  std::vector<std::string> objects;
  std::vector<std::string> cuts;
  std::vector<std::string> stalls;
  std::vector<std::string> refusals;
  std::vector<std::string> buckets;
  unsigned admitted = 0;
  bool throw_away = false;
  bool log = false;
  int latency = 0;
  unsigned long long rate = 0;
  unsigned page_size = 1000;
  bool stopped_clock = false;
  unsigned long long seed = 0;
  long long date_ahead = 0;
  CLI::App app("An S3 server for tests, on a free port of 127.0.0.1. It ends when its standard input does.");
  app.add_option("--synthetic", synthetic, "BUCKET,COUNT,SIZE: a bucket of made-up objects")->allow_extra_args(false);
  app.add_option("--object", objects, "BUCKET,KEY,SIZE: one made-up object")->allow_extra_args(false);
  app.add_option("--cut", cuts,
                 "KEY,BYTES: the first reply that begins behind so many bytes of this key's content ends early")
      ->allow_extra_args(false);
  app.add_option("--stall", stalls, "OPERATION,BYTES: replies to it never go on after so many bytes")
      ->allow_extra_args(false);
  app.add_option("--refuse", refusals, "OPERATION,KEY,CODE: this operation on this key is refused with this code")
      ->allow_extra_args(false);
  app.add_option("--admit", admitted, "Requests per second; what is above gets 503 SlowDown");
  app.add_flag("--throw-away", throw_away, "Of objects uploaded in parts, keep the parts' digests only");
  app.add_flag("--log", log, "Remember every request");
  app.add_option("--bucket", buckets, "An empty bucket")->allow_extra_args(false);
  app.add_option("--latency", latency, "Milliseconds before each reply");
  app.add_option("--rate", rate, "Bytes per second of each connection");
  app.add_option("--page-size", page_size, "Keys of a listing's page at the most");
  app.add_option("--seed", seed, "Of chances; 0: a random one");
  app.add_flag("--stopped-clock", stopped_clock, "Its clock stands still but for the question \"advance\"");
  app.add_option("--date-ahead", date_ahead, "Seconds that its replies' Date is ahead of the dates of its objects");
  CLI11_PARSE(app, argc, argv);

  try {
    s3_testing::S3_Server_Options options;
    options.seed = seed;
    s3_testing::S3_Server server(options);
    for (const std::string& bucket : buckets)
      server.create_bucket(bucket);
    for (const std::string& text : synthetic)
      if (!add_synthetic(server, text)) {
        std::cerr << "s3-test-server: --synthetic " << text << " is not BUCKET,COUNT,SIZE\n";
        return 2;
      }
    for (const std::string& text : objects)
      if (!add_object(server, text)) {
        std::cerr << "s3-test-server: --object " << text << " is not BUCKET,KEY,SIZE\n";
        return 2;
      }
    for (const std::string& text : cuts)
      if (!add_cut(server, text)) {
        std::cerr << "s3-test-server: --cut " << text << " is not KEY,BYTES\n";
        return 2;
      }
    for (const std::string& text : stalls)
      if (!add_stall(server, text)) {
        std::cerr << "s3-test-server: --stall " << text << " is not OPERATION,BYTES\n";
        return 2;
      }
    for (const std::string& text : refusals)
      if (!add_refusal(server, text)) {
        std::cerr << "s3-test-server: --refuse " << text << " is not OPERATION,KEY,CODE\n";
        return 2;
      }
    server.keep_log(log);
    server.configure([&](s3_testing::S3_Server_Settings& settings) {
      settings.latency_milliseconds = latency;
      settings.bytes_per_second = rate;
      settings.page_size = page_size;
      settings.requests_per_second = admitted;
      settings.throw_away_parts = throw_away;
      settings.date_ahead = date_ahead;
      if (stopped_clock)
        settings.clock = [start = static_cast<std::int64_t>(std::time(nullptr))] { return start + advanced; };
    });
    std::cout << "endpoint=" << server.url() << "\naccess_key=" << options.access_key
              << "\nsecret_key=" << options.secret_key << "\nready" << std::endl;
    std::string line;
    while (std::getline(std::cin, line))
      std::cout << answer(server, line) << std::endl;
    return 0;
  } catch (const std::exception& error) {
    std::cerr << "s3-test-server: " << error.what() << "\n";
    return 1;
  }
}
