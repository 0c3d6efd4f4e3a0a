#pragma once

#include "platform/s3/endpoint_settings.h"
#include "platform/s3/ledger.h"
#include "sdk/base/clock.h"
#include "sdk/s3/s3_service.h"
#include "testing/s3_server/s3_server.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

/// A clock that moves on as soon as somebody waits for it, and only then. Counts what it is asked to sleep; a wait of a
/// second or more is as good as a sleep.
class Test_Clock : public Clock {
public:
  Test_Clock() : before_(Clock::instance(this)) {}
  ~Test_Clock() override { Clock::instance(before_); }
  time_t now() override { return now_.load(); }
  ACE_Time_Value monotonic() override {
    const unsigned long long passed = passed_;
    return ACE_Time_Value(static_cast<time_t>(passed / 1000000), static_cast<suseconds_t>(passed % 1000000));
  }
  void sleep(unsigned seconds) override {
    passed_ += 1000000ull * seconds;
    ++sleeps_;
  }
  void wait(std::unique_lock<std::mutex>& lock, std::condition_variable&, const ACE_Time_Value& time) override {
    passed_ += static_cast<unsigned long long>(time.sec()) * 1000000 + static_cast<unsigned long long>(time.usec());
    if (time.sec() > 0)
      ++sleeps_;
    // Whoever would have something to do meanwhile may.
    lock.unlock();
    std::this_thread::yield();
    lock.lock();
  }
  void now(time_t time) { now_ = time; }
  void pass(unsigned microseconds) { passed_ += microseconds; }
  unsigned long long slept() const { return passed_ / 1000000; } ///< whole seconds
  unsigned sleeps() const { return sleeps_; }

private:
  std::atomic<time_t> now_{std::time(nullptr)};
  std::atomic<unsigned long long> passed_{0}; ///< microseconds
  std::atomic<unsigned> sleeps_{0};
  Clock* before_;
};

/// A server with one bucket, and services that reach it.
class Client_Test : public testing::Test {
protected:
  explicit Client_Test(bool tls = false) : server(options(tls)) {
    server.create_bucket("bucket");
    settings.connect_timeout = 2;
    settings.idle_timeout = 5;
    if (tls)
      settings.ca_file = server.ca_file();
    keys(access);
  }

  static s3_testing::S3_Server_Options options(bool tls) {
    s3_testing::S3_Server_Options options;
    options.tls = tls;
    options.seed = 7;
    return options;
  }

  /// Settings are kept by endpoint and key: each test has a port of its own.
  void keys(const std::string& key) { Endpoint_Settings::set("127.0.0.1", server.port(), key, settings); }

  S3_Service_Options service_options() {
    keys(access);
    S3_Service_Options options;
    options.type = server.ca_pem().empty() ? "http" : "https";
    options.ssl = !server.ca_pem().empty();
    options.host = "127.0.0.1";
    options.port = server.port();
    options.access_key = access;
    options.secret_key = secret;
    options.sign_method = sign_method;
    options.region = region;
    options.ledger = ledger;
    return options;
  }

  S3_Service_var service() { return make_s3_service(service_options()); }

  bool connect(S3_Client& client, int max_retry_seconds) {
    keys(access);
    S3_Client_Options options(access, secret, max_retry_seconds);
    options.sign_method = sign_method;
    options.region = region;
    options.ledger = ledger;
    return client.connect("http", "127.0.0.1", server.port(), !server.ca_pem().empty(), nullptr, options);
  }

  /// Reads to the end of the body, or to where it breaks.
  static std::string drain(HTTP_Connection& connection, size_t piece = 10000) {
    std::string all, buffer(piece, '\0');
    size_t got;
    while ((got = connection.recv(&buffer[0], buffer.size(), nullptr)) > 0 && got != HTTP_Connection::RECV_FAILED)
      all.append(buffer, 0, got);
    return all;
  }

  s3_testing::S3_Server server;
  Endpoint_Settings settings;
  std::shared_ptr<S3_Ledger> ledger = std::make_shared<S3_Ledger>();
  std::string access = s3_testing::S3_Server_Options().access_key;
  std::string secret = s3_testing::S3_Server_Options().secret_key;
  std::string sign_method;
  std::string region;
};
