// The test server as a process of its own, for system tests and benches that drive whole programs against it.
// Prints "endpoint=", "access_key=", "secret_key=" and "ready", serves until its standard input ends.

#include "testing/s3_server/s3_server.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <iostream>
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
    std::snprintf(key, sizeof key, "d%04llu/e%02llu/object-%010llu",
                  static_cast<unsigned long long>(index / 10000),
                  static_cast<unsigned long long>(index / 100 % 100), static_cast<unsigned long long>(index));
    return std::string(key);
  };
  keys.size = [size](std::uint64_t) { return size; };
  keys.mtime = 1700000000;
  server.create_bucket(bucket);
  return server.add_synthetic(bucket, keys);
}

} // namespace

int main(int argc, char** argv) {
  std::vector<std::string> synthetic;
  std::vector<std::string> buckets;
  int latency = 0;
  unsigned long long rate = 0;
  unsigned page_size = 1000;
  CLI::App app("An S3 server for tests, on a free port of 127.0.0.1. It ends when its standard input does.");
  app.add_option("--synthetic", synthetic, "BUCKET,COUNT,SIZE: a bucket of made-up objects")->allow_extra_args(false);
  app.add_option("--bucket", buckets, "An empty bucket")->allow_extra_args(false);
  app.add_option("--latency", latency, "Milliseconds before each reply");
  app.add_option("--rate", rate, "Bytes per second of each connection");
  app.add_option("--page-size", page_size, "Keys of a listing's page at the most");
  CLI11_PARSE(app, argc, argv);

  try {
    s3_testing::S3_Server_Options options;
    s3_testing::S3_Server server(options);
    for (const std::string& bucket : buckets)
      server.create_bucket(bucket);
    for (const std::string& text : synthetic)
      if (!add_synthetic(server, text)) {
        std::cerr << "s3-test-server: --synthetic " << text << " is not BUCKET,COUNT,SIZE\n";
        return 2;
      }
    server.configure([&](s3_testing::S3_Server_Settings& settings) {
      settings.latency_milliseconds = latency;
      settings.bytes_per_second = rate;
      settings.page_size = page_size;
    });
    std::cout << "endpoint=" << server.url() << "\naccess_key=" << options.access_key
              << "\nsecret_key=" << options.secret_key << "\nready" << std::endl;
    std::string line;
    while (std::getline(std::cin, line)) {
    }
    return 0;
  } catch (const std::exception& error) {
    std::cerr << "s3-test-server: " << error.what() << "\n";
    return 1;
  }
}
