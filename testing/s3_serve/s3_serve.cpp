// Runs the in-process S3 server by itself, for a client that is tried by hand. Prints how to reach it, one NAME=VALUE
// per line, and serves until standard input ends.
//   s3_serve [--tls] [--bucket NAME]... [--synthetic BUCKET PREFIX COUNT SIZE]...
#include "testing/s3_server/s3_server.h"

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <vector>

int main(int argc, char** argv) {
  try {
    const std::vector<std::string> words(argv + 1, argv + argc);
    s3_testing::S3_Server_Options options;
    for (const std::string& word : words)
      options.tls = options.tls || word == "--tls";
    s3_testing::S3_Server server(options);
    for (std::size_t i = 0; i < words.size(); ++i) {
      if (words[i] == "--bucket" && i + 1 < words.size()) {
        server.create_bucket(words[++i]);
      } else if (words[i] == "--synthetic" && i + 4 < words.size()) {
        server.create_bucket(words[i + 1]);
        server.add_synthetic(words[i + 1], words[i + 2], std::stoull(words[i + 3]), std::stoull(words[i + 4]));
        i += 4;
      } else if (words[i] != "--tls") {
        std::fprintf(stderr, "s3_serve: unexpected argument %s\n", words[i].c_str());
        return 2;
      }
    }
    std::printf("endpoint=%s\n", server.url().c_str());
    if (options.tls)
      std::printf("ca=%s\n", server.ca_file().c_str());
    std::printf("access_key=%s\nsecret_key=%s\n", options.access_key.c_str(), options.secret_key.c_str());
    std::fflush(stdout);
    while (std::getchar() != EOF) {
    }
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "s3_serve: %s\n", error.what());
    return 1;
  }
}
