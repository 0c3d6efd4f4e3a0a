#include "platform/s3/client_fixture.h"
#include "platform/s3/listing.h"
#include "platform/s3/signer.h"
#include "platform/s3/transport.h"
#include "sdk/job/job.h"

#include <future>
#include <thread>

namespace {

using s3_testing::Fault;
using s3_testing::S3_Server_Settings;

/// What a service asks for: fewer requests, later ones, ones that carry its own time.
class Waiting_Test : public Client_Test {
protected:
  Waiting_Test() { server.put("bucket", "key", "text"); }

  std::shared_ptr<s3::Endpoint> endpoint() { return s3::Endpoint::make(service_options(), nullptr); }
  s3::Outcome get(const std::shared_ptr<s3::Endpoint>& endpoint) {
    s3::Transport transport(endpoint);
    return transport.ask(s3::Request{"GET", "bucket", "key", {}, {}, false, {}});
  }

  Test_Clock clock;
};

TEST_F(Waiting_Test, retry_after_in_seconds_closes_the_endpoint_for_everybody) {
  server.add_fault(Fault::error(503, "SlowDown", 7).times(1));
  const std::shared_ptr<s3::Endpoint> one = endpoint(), other = endpoint();
  const s3::Outcome refused = get(one);
  EXPECT_TRUE(refused.error.retriable());
  EXPECT_EQ(7u, refused.retry_after);
  EXPECT_EQ(0u, clock.slept());
  EXPECT_TRUE(get(other).ok());
  EXPECT_EQ(7u, clock.slept());
  EXPECT_TRUE(get(one).ok());
  EXPECT_EQ(7u, clock.slept());
}

TEST_F(Waiting_Test, retry_after_as_a_date_counts_by_the_service_s_own_clock) {
  const time_t theirs = clock.now() + 500000;
  server.configure(
      [theirs](S3_Server_Settings& s) { s.clock = [theirs] { return static_cast<std::int64_t>(theirs); }; });
  server.add_fault(Fault::error(503, "SlowDown").reply_header("Retry-After", s3::http_date(theirs + 11)).times(1));
  const std::shared_ptr<s3::Endpoint> one = endpoint();
  one->learn_clock(500000);
  EXPECT_EQ(11u, get(one).retry_after);
  EXPECT_TRUE(get(one).ok());
  EXPECT_EQ(11u, clock.slept());
}

TEST_F(Waiting_Test, retry_after_that_makes_no_sense_is_no_wait) {
  const std::shared_ptr<s3::Endpoint> one = endpoint();
  for (const char* text : {"soon", "-5", "Fri, 01 Jan 1999 00:00:00 GMT", ""}) {
    server.add_fault(Fault::error(503, "SlowDown").reply_header("Retry-After", text).times(1));
    EXPECT_EQ(0u, get(one).retry_after) << text;
  }
  server.add_fault(Fault::error(503, "SlowDown", 99999999).times(1));
  EXPECT_EQ(300u, get(one).retry_after);
}

TEST_F(Waiting_Test, slow_down_inside_a_200_is_a_refusal_with_its_wait) {
  server.add_fault(Fault::error_in_200("SlowDown").reply_header("Retry-After", "3").on("ListObjects").times(1));
  const std::shared_ptr<s3::Endpoint> one = endpoint();
  s3::Transport transport(one);
  s3::Listing listing(transport);
  Get_Bucket_Content content;
  const s3::Outcome refused = listing.page("bucket", Get_Bucket_Parameter(), content);
  EXPECT_EQ("SlowDown", refused.error.code());
  EXPECT_TRUE(refused.error.retriable());
  EXPECT_EQ(3u, refused.retry_after);
  EXPECT_LT(0, one->gate().pace().rate());
  EXPECT_TRUE(listing.page("bucket", Get_Bucket_Parameter(), content).ok());
  EXPECT_EQ(3u, clock.slept());
}

TEST_F(Waiting_Test, refused_request_makes_the_gate_narrower_for_all_clients_of_the_endpoint) {
  const std::shared_ptr<s3::Endpoint> one = endpoint(), other = endpoint();
  EXPECT_TRUE(get(one).ok());
  EXPECT_EQ(0, one->gate().pace().rate());
  server.add_fault(Fault::error(429, "TooManyRequests").times(1));
  EXPECT_FALSE(get(one).ok());
  EXPECT_LT(0, other->gate().pace().rate());
  EXPECT_LT(0, other->gate().pace().limit());
  EXPECT_EQ(0u, other->gate().pace().in_flight());
  S3_Service_Options options = service_options();
  options.access_key = "ANOTHER";
  EXPECT_EQ(0, s3::Endpoint::make(options, nullptr)->gate().pace().rate());
}

TEST_F(Waiting_Test, other_failures_leave_the_gate_open) {
  const std::shared_ptr<s3::Endpoint> one = endpoint();
  for (const int status : {403, 404, 500, 502}) {
    server.add_fault(Fault::error(status, "").times(1));
    EXPECT_FALSE(get(one).ok());
  }
  EXPECT_EQ(0, one->gate().pace().rate());
  EXPECT_EQ(0u, one->gate().pace().in_flight());
}

TEST_F(Waiting_Test, service_that_admits_few_requests_a_second_serves_every_object) {
  constexpr int WORKERS = 12, EACH = 10;
  // Time passes at the gate alone, for the service as well: without it nothing more would be admitted.
  server.configure([this](S3_Server_Settings& s) {
    s.requests_per_second = 40;
    s.limit_clock = [this] { return clock.monotonic().sec() + clock.monotonic().usec() / 1e6; };
  });
  const std::shared_ptr<s3::Endpoint> one = endpoint();
  std::atomic<int> had{0};
  std::vector<std::thread> workers;
  for (int i = 0; i < WORKERS; ++i)
    workers.emplace_back([&] {
      for (int n = 0; n < EACH; ++n)
        for (int attempt = 0; attempt < 100; ++attempt)
          if (get(one).ok()) {
            ++had;
            break;
          }
    });
  for (std::thread& worker : workers)
    worker.join();
  EXPECT_EQ(WORKERS * EACH, had.load());
  EXPECT_GE(static_cast<std::uint64_t>(WORKERS), server.max_concurrent());
  EXPECT_LT(0, one->gate().pace().rate());
  EXPECT_LE(2u, clock.slept()) << "that is how long so many take";
  EXPECT_GT(2u * WORKERS * EACH, server.count("GetObject"));
}

TEST_F(Waiting_Test, who_waits_at_a_closed_gate_gives_up_when_the_job_is_cancelled) {
  class Idle_Job : public Job {
  public:
    Idle_Job() : Job(Job_Definition_var()) { activity().state = JOB_STATE_RUNNING; }
  };
  const Job_var job(new Idle_Job, false);
  server.add_fault(Fault::error(503, "SlowDown", 60).times(1));
  const std::shared_ptr<s3::Endpoint> one = endpoint();
  EXPECT_FALSE(get(one).ok());
  Job::current(job.get());
  job->activity().state = JOB_STATE_CANCELING;
  EXPECT_EQ("Cancelled", get(one).error.code());
  Job::current(nullptr);
  EXPECT_EQ(1u, server.count("GetObject"));
}

TEST_F(Waiting_Test, who_waits_at_a_closed_gate_gives_up_when_it_is_told_to_stop) {
  Clock::instance(nullptr); // It waits for a minute of real time.
  server.add_fault(Fault::error(503, "SlowDown", 60).times(1));
  const std::shared_ptr<s3::Endpoint> one = endpoint();
  EXPECT_FALSE(get(one).ok());
  std::atomic<bool> stop{false};
  std::promise<void> waiting;
  auto ended = std::async(std::launch::async, [&] {
    s3::Transport transport(one);
    transport.stop_on(&stop);
    waiting.set_value();
    return transport.ask(s3::Request{"GET", "bucket", "key", {}, {}, false, {}}).error.code();
  });
  waiting.get_future().wait();
  stop = true;
  EXPECT_EQ(std::future_status::ready, ended.wait_for(std::chrono::seconds(10)));
  EXPECT_EQ("Cancelled", ended.get());
  Clock::instance(&clock);
  EXPECT_EQ(1u, server.count("GetObject"));
}

TEST_F(Waiting_Test, clock_is_learned_where_it_may_be_what_is_refused) {
  const time_t theirs = clock.now() + 7200;
  server.configure(
      [theirs](S3_Server_Settings& s) { s.clock = [theirs] { return static_cast<std::int64_t>(theirs); }; });
  const std::shared_ptr<s3::Endpoint> one = endpoint();
  EXPECT_TRUE(get(one).ok()) << "RequestTimeTooSkewed";
  EXPECT_EQ(2u, server.count("GetObject"));
  EXPECT_NEAR(7200, one->now() - clock.now(), 2);
  EXPECT_TRUE(get(one).ok());
  EXPECT_EQ(3u, server.count("GetObject"));

  const std::shared_ptr<s3::Endpoint> another = endpoint();
  server.add_fault(Fault::error(403, "AccessDenied").times(1));
  EXPECT_TRUE(get(another).ok()) << "a service that does not say what it minds";
  EXPECT_EQ(5u, server.count("GetObject"));
}

TEST_F(Waiting_Test, refusal_is_final_where_the_clocks_agree) {
  server.add_fault(Fault::error(403, "AccessDenied").times(1));
  EXPECT_EQ("AccessDenied", get(endpoint()).error.code());
  EXPECT_EQ(1u, server.count("GetObject"));
}

TEST_F(Waiting_Test, connection_is_used_again_by_all_services_of_a_client) {
  const std::shared_ptr<s3::Endpoint> one = endpoint();
  for (int i = 0; i < 20; ++i)
    EXPECT_TRUE(get(one).ok());
  EXPECT_EQ(1u, server.connections_opened());
}

TEST_F(Waiting_Test, stalled_answer_ends_after_the_idle_time_out) {
  settings.idle_timeout = 1;
  server.put_synthetic("bucket", "large", 1000000, 1);
  server.add_fault(Fault::stall(1000).on("GetObject").key("large"));
  const S3_Service_var s = service();
  const HTTP_Connection_var c = s->get_object("bucket", "large", 0, nullptr);
  ASSERT_EQ(HTTP_Connection::HEADERS_READ, c->state());
  EXPECT_EQ(1000u, drain(*c).size());
  EXPECT_EQ(HTTP_Connection::CLOSED, c->state());
}

} // namespace
