#include "platform/s3/client_fixture.h"
#include "platform/s3/error_map.h"
#include "platform/s3/transport.h"

namespace {

using s3_testing::Fault;

/// Requests over sockets to a server that asks for fewer, by the test's clock: that every request passes the gate and
/// that the gate is told what came of it. What is learned from that is Request_Pace's. Time passes while somebody waits
/// for it and some with each request, so the machine's own pace does not show.
class Gate_At_Work : public Client_Test {
protected:
  static constexpr unsigned EACH = 5000; ///< microseconds that a request takes

  Gate_At_Work() { server.put("bucket", "key", "text"); }

  /// How many requests it took until one came right; 0: it never did.
  unsigned ask(s3::Transport& transport) {
    unsigned asked = 0;
    const s3::Outcome done = s3::retried(-1, [&] {
      ++asked;
      const s3::Outcome outcome = transport.ask(s3::Request{"GET", "bucket", "key", {}, {}, false, {}});
      clock.pass(EACH);
      return outcome;
    });
    return done.ok() ? asked : 0;
  }
  double now() {
    const ACE_Time_Value passed = clock.monotonic();
    return static_cast<double>(passed.sec()) + static_cast<double>(passed.usec()) / 1e6;
  }

  Test_Clock clock;
};

TEST_F(Gate_At_Work, is_open_while_nothing_is_refused) {
  const std::shared_ptr<s3::Endpoint> endpoint = s3::Endpoint::make(service_options(), nullptr);
  s3::Transport transport(endpoint);
  const double began = now();
  for (int i = 0; i < 100; ++i)
    ASSERT_EQ(1u, ask(transport));
  EXPECT_EQ(0, endpoint->gate().pace().rate());
  EXPECT_NEAR(100 * EACH / 1e6, now() - began, 0.001);
}

TEST_F(Gate_At_Work, requests_of_all_transports_wait_their_turn_once_some_were_refused) {
  const std::shared_ptr<s3::Endpoint> endpoint = s3::Endpoint::make(service_options(), nullptr);
  s3::Transport one(endpoint), other(endpoint);
  for (int i = 0; i < 10; ++i)
    ASSERT_EQ(1u, ask(one));
  server.add_fault(Fault::error(503, "SlowDown").on("GetObject").times(4));
  ASSERT_EQ(5u, ask(one)); // nothing is lost
  const double rate = endpoint->gate().pace().rate();
  ASSERT_LT(0, rate);
  ASSERT_GT(1e6 / EACH, rate);
  EXPECT_EQ(0u, endpoint->gate().pace().in_flight());
  constexpr unsigned REQUESTS = 10;
  const double began = now();
  double most = 0;
  for (unsigned i = 0; i < REQUESTS; ++i) {
    ASSERT_EQ(1u, ask(i % 2 ? one : other));
    most = std::max(most, endpoint->gate().pace().rate());
  }
  // The first one may be late already, and so begin at once.
  EXPECT_LE((REQUESTS - 2) / most, now() - began) << "at " << rate << " a second";
}

} // namespace
