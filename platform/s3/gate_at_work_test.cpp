#include "platform/s3/client_fixture.h"
#include "platform/s3/error_map.h"
#include "platform/s3/transport.h"

#include <chrono>
#include <iostream>
#include <thread>

namespace {

using s3_testing::S3_Server_Settings;

/// Requests over sockets to a server that admits so many a second, in real time: what Request_Pace learns from made-up
/// time, and the gate makes of it.
class Gate_At_Work : public Client_Test {
protected:
  static constexpr unsigned ADMITTED = 50; ///< per second; few, so that a busy machine can send them
  static constexpr double LEARNING = 20, MEASURED = 15;
  static constexpr unsigned WORKERS = 16;

  Gate_At_Work() {
    server.put("bucket", "key", "text");
    server.configure([](S3_Server_Settings& s) { s.requests_per_second = ADMITTED; });
  }

  struct Figures {
    std::atomic<unsigned> taken{0}, refused{0}, lost{0};
    double rate() const { return taken / MEASURED; }
    double share_refused() const { return static_cast<double>(refused) / std::max(1u, taken + refused); }
  };

  /// What came of the requests behind the first `LEARNING` seconds.
  void measure(Figures& figures) {
    // One that nobody holds any more begins anew: each measurement is of a gate that knows nothing.
    const std::shared_ptr<s3::Endpoint> endpoint = s3::Endpoint::make(service_options(), nullptr);
    ASSERT_EQ(0, endpoint->gate().pace().rate());
    const auto began = std::chrono::steady_clock::now();
    const auto now = [began] {
      return std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
    };
    std::vector<std::thread> workers;
    for (unsigned i = 0; i < WORKERS; ++i)
      workers.emplace_back([&] {
        s3::Transport transport(endpoint);
        while (now() < LEARNING + MEASURED) {
          const s3::Outcome done = s3::retried(-1, [&] {
            const s3::Outcome outcome = transport.ask(s3::Request{"GET", "bucket", "key", {}, {}, false, {}});
            const double at = now();
            if (at >= LEARNING && at < LEARNING + MEASURED)
              ++(outcome.ok() ? figures.taken : figures.refused);
            return outcome;
          });
          figures.lost += !done.ok();
        }
      });
    for (std::thread& worker : workers)
      worker.join();
  }
};

TEST_F(Gate_At_Work, nine_tenths_of_what_a_server_admits_are_reached_and_under_one_in_a_hundred_is_refused) {
  // A machine that stands still for a moment may spoil one measurement.
  for (int attempt = 1;; ++attempt) {
    Figures figures;
    measure(figures);
    std::cout << figures.rate() << " of " << ADMITTED << " requests a second, " << 100 * figures.share_refused()
              << " % refused\n";
    EXPECT_EQ(0u, figures.lost);
    if (attempt < 3 && (figures.rate() < 0.9 * ADMITTED || figures.share_refused() >= 0.01))
      continue;
    EXPECT_LE(0.9 * ADMITTED, figures.rate());
    EXPECT_GT(0.01, figures.share_refused());
    break;
  }
}

} // namespace
